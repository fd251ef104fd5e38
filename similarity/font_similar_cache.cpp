#include "similarity/font_similar_cache.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "shell/cache_folder_lock.h"
#include "shell/cache_log.h"
#include "shell/cancellation.h"
#include "shell/host_suites.h"
#include "similarity/specimen.h"

namespace fontrix {

namespace {

std::mutex paths_mutex;
SimilarityPaths resolved_paths;

}  // namespace

const SimilarityPaths& ResolveSimilarityPaths() {
  std::lock_guard<std::mutex> lock(paths_mutex);
  if (resolved_paths.model.empty()) {
    const std::string data = qv::FolderPath(kQVFolderPluginData, false),
                      cache = qv::FolderPath(kQVFolderUserCache, true);
    resolved_paths = {FileInFolder(data, "NQ_sim_model.dnm"),     FileInFolder(data, "NQ_sim_fea_fs.bin"),
                      FileInFolder(data, "NQ_sim_meta_fs.bin"),   FileInFolder(cache, "NQ_sim_fea_sys.cch"),
                      FileInFolder(cache, "NQ_sim_meta_sys.cch"), FileInFolder(cache, "NQ_sim_debug_info.txt"),
                      FileInFolder(data, kKnownFacesFileName),    FileInFolder(data, kKnownVectorsFileName),
                      FileInFolder(data, kKnownFamiliesFileName)};
    if (!cache.empty()) SimilarityLog().SetFolder(cache);
    CacheLog& log = SimilarityLog();
    log.Info("Model File-Path : ", resolved_paths.model);
    log.Info("Computed Feature File-Path : ", resolved_paths.computedFeature);
    log.Info("Computed Meta File-Path : ", resolved_paths.computedMeta);
    log.Info("Cached Feature File-Path : ", resolved_paths.cachedFeature);
    log.Info("Cached Meta File-Path : ", resolved_paths.cachedMeta);
    log.Info("Debug Info File Path : ", resolved_paths.debugInfo);
  }
  return resolved_paths;
}

void SetSimilarityPaths(const SimilarityPaths& paths) {
  std::lock_guard<std::mutex> lock(paths_mutex);
  resolved_paths = paths;
}

void FontSimilarCache::Terminate() {
  if (auto cache = Instance()) {
    std::lock_guard<std::mutex> update(UpdateMutex());
    cache->SaveCache();
  }
  ServiceCache::Terminate();
}

void FontSimilarCache::Init() {
  CacheLog& log = SimilarityLog();
  try {
    log.Info("Similar Cache Loading Start");
    auto cache = GetOrCreate();
    log.Info("Loading Cache Data Starts: time : ", HostTime());
    const int result = cache->Load(ResolveSimilarityPaths());
    log.Info(result == kLoadOk ? "Similar Cache Loaded successful" : "Similar Cache Loaded unsuccessful");
  } catch (...) {
    log.Exception(CacheLog::kInfo, "Similar Cache Loading throws exception");
  }
}

int FontSimilarCache::Load(const SimilarityPaths& paths) {
  std::lock_guard<std::mutex> update(UpdateMutex());
  return LoadLocked(paths);
}

int FontSimilarCache::LoadLocked(const SimilarityPaths& paths) {
  int result = kLoadModelMissing;
  CacheLog& log = SimilarityLog();
  if (!loaded_.load()) {
    // Another process may be saving into the same folder. Only with the lock may this one
    // change the files; without it (the other is slow or stopped) it reads what is consistent.
    const std::string folderPath = CacheFolderLock::FolderOf(paths.cachedMeta);
    CacheFolderLock folder(folderPath, CacheFolderLock::kExclusive, progress_);
    const CacheAccess access = folder.Held() ? CacheAccess::kWritable : CacheAccess::kReadOnly;
    if (access == CacheAccess::kWritable) {
      RemoveStaleSumsFile(paths.cachedMeta);
      // A save cut short by a crash leaves a torn tail; cut it back before the strict reader sees it.
      const std::string repaired = RepairCachePair(paths.cachedMeta, paths.cachedFeature);
      if (!repaired.empty()) log.Info(repaired);
    } else if (!folderPath.empty()) {
      log.Info("Similar Cache Read Only: ", folder.Error());
      progress_.Report(CacheProgress::kWarning, folder.Error() +
                                                    "; the similarity cache was read without it, "
                                                    "as far as the other process had finished");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    try {
      result = table_.Load(paths.computedMeta, paths.computedFeature, paths.cachedMeta, paths.cachedFeature,
                           paths.model, access);
      if (!table_.note.empty()) {
        log.Info("Similar Cache: ", table_.note);
        progress_.Report(CacheProgress::kWarning, table_.note);
      }
      if (result == kLoadCacheFailed) {
        // A damaged cache would answer wrongly for good: it goes, and the update computes the
        // installed fonts again.
        const std::string why = table_.problem;
        log.Info("Similar Cache Damaged: ", why, "; ", MoveCachePairAside(paths.cachedMeta, paths.cachedFeature));
        result =
            table_.Load(paths.computedMeta, paths.computedFeature, paths.cachedMeta, paths.cachedFeature, paths.model);
        progress_.Report(CacheProgress::kWarning, "the similarity cache was damaged (" + why +
                                                      "); it is moved aside to *.damaged and made again");
      }
    } catch (const std::exception& e) {
      table_.Clear();
      table_.network.clear();
      table_.problem = "the similarity model " + paths.model + " cannot be used: " + e.what();
      result = kLoadModelMissing;
    }
    if (result != kLoadOk) {
      // Without the shipped pair or the network the service cannot answer: nothing is kept.
      table_.Clear();
      table_.network.clear();
      progress_.Report(CacheProgress::kFailure, table_.problem);
      log.Info("Similar Cache Unusable: ", table_.problem);
    }
    knownPaths_ = result == kLoadOk ? paths : SimilarityPaths();
    knownRead_ = false;
    entryToFont_.assign(table_.Size(), -1);
    ++changes_;
  }
  LogFontCounts();
  loaded_.store(true);
  return result;
}

// The log's labels are the module's fixed log lines, named after where entries come from:
// "Fontstream" counts kStatusIdentifier7 (library faces), "BXR" kStatusIdentifier12, "System"
// kStatusIdentifierOther (the shipped common system faces), "User" kStatusInstalled (computed on
// this machine); unusable entries count in the total only.
void FontSimilarCache::LogFontCounts() {
  size_t total = 0, counts[4] = {0, 0, 0, 0};
  {
    std::lock_guard<std::mutex> lock(mutex_);
    total = table_.Size();
    for (uint32_t s : table_.status)
      if (s < 4) ++counts[s];
  }
  CacheLog& log = SimilarityLog();
  log.Info(" total fonts loaded in DB:", total);
  log.Info("Fontstream fonts: ", counts[0]);
  log.Info("BXR fonts: ", counts[1]);
  log.Info("System fonts: ", counts[2]);
  log.Info("User fonts: ", counts[3]);
}

bool FontSimilarCache::Update(const std::vector<QVFontHandle>& fonts, uint32_t currentId) {
  CacheLog& log = SimilarityLog();
  log.Info("Update : Cache Font Server ID - ", fontServerId_.load());
  log.Info(" Current Font Server ID - ", currentId);
  if (!Fonts().Available() || currentId < fontServerId_.load() || fonts.empty()) return false;
  std::lock_guard<std::mutex> update(UpdateMutex());
  log.Info("Update Starts with #Fonts = ", fonts.size());
  if (CancelRequested()) return false;
  // The init and update tasks run at once; an update that wins the race loads the table first
  // rather than compute every font against an empty one.
  if (!loaded_.load()) LoadLocked(ResolveSimilarityPaths());
  // Without a network (no model file) no font can be computed: leave them for a later run.
  if (table_.network.empty()) return false;
  hostglue::FontAccess& access = Fonts().Get();

  std::vector<QVFontHandle> usable;
  for (QVFontHandle f : fonts)
    if (access.IsUsable(f)) usable.push_back(f);
  progress_.Start(uint32_t(usable.size()));

  // Matching: by identifier unless it is "0" (always so for fonts on this machine), then by name.
  std::vector<std::string> names(usable.size());
  for (size_t i = 0; i < usable.size(); ++i) {
    hostglue::FontNames n;
    if (access.Names(usable[i], n)) names[i] = n.uniqueName;
  }
  std::vector<size_t> unmatched;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    installedNames_ = names;
    entryToFont_.assign(table_.Size(), -1);
    fontToEntry_.assign(usable.size(), -1);
    // Installed fonts carry the identifier "0", which is never looked up: they match by name,
    // the first equal entry.
    const auto& entryNames = table_.columns[kFieldName];
    std::unordered_map<std::string_view, size_t> firstEntry;
    firstEntry.reserve(entryNames.size());
    for (size_t e = 0; e < entryNames.size(); ++e) firstEntry.emplace(entryNames[e], e);
    for (size_t i = 0; i < usable.size(); ++i) {
      const auto hit = firstEntry.find(names[i]);
      if (hit != firstEntry.end()) {
        const size_t e = hit->second;
        entryToFont_[e] = int32_t(i);
        fontToEntry_[i] = int32_t(e);
      } else {
        unmatched.push_back(i);
      }
    }
  }
  // Fonts stored by earlier updates of this run match now, but were not in the files.
  const size_t matched = usable.size() - unmatched.size();
  progress_.matched.store(uint32_t(matched - std::min(matched, storedThisRun_)));
  progress_.done.store(uint32_t(matched));
  log.Info("Update : Total Font Size :", usable.size(), " ", "Unmatched font List size : ", unmatched.size());

  bool changed = false;
  log.Info("Update : Processing Starts at time : ", HostTime());
  for (size_t i : unmatched) {
    if (CancelRequested()) break;
    // A font found unusable in this run is not stored, and would be found unusable again.
    if (unusableThisRun_.count(names[i])) {
      progress_.done++;
      continue;
    }
    try {
      log.Info("Processing Font : Name - ", names[i]);
      Specimens specimens;
      const int result = RenderSpecimens(access, usable[i], specimens);
      if (result == kRenderUnusable) {
        unusableThisRun_.insert(names[i]);
        progress_.unusable++;
        changed = true;
      } else {
        StoreFont(i, result, specimens);
        changed = true;
        // The sizes are printed in storage order under crossed labels, as the log has always read.
        log.Info("Processed Font : Result - ", result == kRenderOk ? "Success" : "Failure",
                 " Upper Case Dimension : Height : ", specimens.lower.height, " Width : ", specimens.lower.width,
                 " lower Case Dimension : Height : ", specimens.upper.height, " Width : ", specimens.upper.width);
      }
    } catch (...) {
      log.Exception(CacheLog::kDetail, "Processing Font throws");
    }
    progress_.done++;
  }
  log.Info("Update : Processing Ends at time : ", HostTime());
  fontServerId_.store(currentId);
  return changed;
}

void FontSimilarCache::StoreFont(size_t fontIndex, int drawResult, const Specimens& specimens) {
  // The network runs outside the cache mutex, so queries wait only for the append: only
  // updates use it, and they run one at a time under the update mutex.
  std::vector<float> feature(kFeatureDim, 0.0f);
  uint32_t status = kStatusUnusable;
  if (drawResult == kRenderOk && specimens.lower.height >= 1) {
    feature = ComputeFeature(table_.network, specimens);
    status = kStatusInstalled;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (fontToEntry_[fontIndex] != -1) return;
  const size_t entry = table_.AddInstalled(feature, status, installedNames_[fontIndex]);
  fontToEntry_[fontIndex] = int32_t(entry);
  entryToFont_.push_back(int32_t(fontIndex));
  ++storedThisRun_;
  ++changes_;
  (status == kStatusUnusable ? progress_.unusable : progress_.computed)++;
}

std::vector<std::string> FontSimilarCache::UnusableFonts() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  for (size_t i = 0; i < installedNames_.size(); ++i) {
    const int32_t entry = i < fontToEntry_.size() ? fontToEntry_[i] : -1;
    if ((entry >= 0 && table_.status[size_t(entry)] == kStatusUnusable) || unusableThisRun_.count(installedNames_[i]))
      names.push_back(installedNames_[i]);
  }
  return names;
}

void FontSimilarCache::SaveCache() {
  std::lock_guard<std::mutex> lock(mutex_);
  CacheLog& log = SimilarityLog();
  log.Info("Cache Saving Start : time :", HostTime());
  if (!table_.pending.empty() && !table_.cacheMetaPath.empty()) {
    CacheFolderLock folder(CacheFolderLock::FolderOf(table_.cacheMetaPath), CacheFolderLock::kExclusive, progress_);
    const std::string problem = folder.Held() ? table_.Save()
                                              : "the similarity cache was not saved: " + folder.Error() +
                                                    "; installed fonts are computed again at every start";
    if (!problem.empty()) {
      log.Info("Cache Saving: ", problem);
      progress_.Report(CacheProgress::kNotSaved, problem);
    }
  }
  log.Info("Cache Saving Ends : time :", HostTime());
}

namespace {

// The dot product in two running sums of 16 lanes each (GCC vector types: one AVX-512 register
// per sum, or two AVX ones), with unaligned loads; the scalar tail is for lengths off 32.
typedef float Lanes __attribute__((vector_size(64)));

float Dot(const float* a, const float* b, size_t n) {
  Lanes s0 = {}, s1 = {};
  size_t i = 0;
  for (; i + 32 <= n; i += 32) {
    Lanes a0, a1, b0, b1;
    std::memcpy(&a0, a + i, sizeof a0);
    std::memcpy(&a1, a + i + 16, sizeof a1);
    std::memcpy(&b0, b + i, sizeof b0);
    std::memcpy(&b1, b + i + 16, sizeof b1);
    s0 += a0 * b0;
    s1 += a1 * b1;
  }
  s0 += s1;
  float score = 0;
  for (int k = 0; k < 16; ++k) score += s0[k];
  for (; i < n; ++i) score += a[i] * b[i];
  return score;
}

}  // namespace

std::vector<FontSimilarCache::Scored> FontSimilarCache::RankLocked(int64_t queryEntry,
                                                                   const std::vector<float>& queryVector) {
  const bool byEntry = queryEntry >= 0 && size_t(queryEntry) < table_.Size();
  const float* query = byEntry ? table_.Feature(size_t(queryEntry)) : queryVector.data();
  const size_t n = byEntry ? table_.featureDim : std::min<size_t>(queryVector.size(), table_.featureDim);
  std::vector<Scored> ranked;
  ranked.reserve(table_.Size());
  for (size_t j = 0; j < table_.Size(); ++j) {
    if (byEntry && int64_t(j) == queryEntry) continue;
    const int32_t font = j < entryToFont_.size() ? entryToFont_[j] : -1;
    // An entry computed for a font no longer installed ("0" in field 3) is not offered.
    if (font == -1 && table_.columns[kFieldOrigin][j] == "0") continue;
    if (table_.status[j] == kStatusUnusable) continue;
    ranked.push_back({Dot(table_.Feature(j), query, n), uint32_t(j), font});
  }
  // Not stable: equal scores come in no defined order.
  std::sort(ranked.begin(), ranked.end(), [](const Scored& a, const Scored& b) { return a.score > b.score; });
  return ranked;
}

std::vector<RankedRecord> FontSimilarCache::Records(const std::vector<Scored>& scored) {
  std::vector<RankedRecord> records(scored.size());
  for (size_t k = 0; k < scored.size(); ++k) {
    RankedRecord& r = records[k];
    r.score = scored[k].score;
    r.fontIndex = scored[k].fontIndex;
    r.status = table_.status[scored[k].entry];
    if (r.fontIndex == -1) {
      r.fontServerId = table_.columns[kFieldServerId][scored[k].entry];
      r.name = table_.columns[kFieldName][scored[k].entry];
    }
  }
  return records;
}

std::vector<RankedRecord> FontSimilarCache::RankByVector(int64_t queryEntry, const std::vector<float>& queryVector) {
  std::lock_guard<std::mutex> lock(mutex_);
  return Records(RankLocked(queryEntry, queryVector));
}

std::vector<std::pair<std::string, double>> FontSimilarCache::GetSimilarFonts(const std::string& fontName) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find(installedNames_.begin(), installedNames_.end(), fontName);
  const int32_t entry = it == installedNames_.end() ? -1 : fontToEntry_[size_t(it - installedNames_.begin())];
  if (entry < 0 || table_.status[size_t(entry)] == kStatusUnusable) return {{fontName, 1.0}};
  std::vector<std::pair<std::string, double>> result;
  for (const Scored& r : RankLocked(entry, {})) {
    if (result.size() >= kMaxSimilarFonts) break;
    if (r.fontIndex >= 0) result.emplace_back(installedNames_[size_t(r.fontIndex)], double(r.score));
  }
  return result;
}

std::vector<std::string> FontSimilarCache::GetSimilarFontNames(const std::string& fontName) {
  std::vector<std::string> names;
  for (auto& [name, score] : GetSimilarFonts(fontName)) names.push_back(name);
  return names;
}

namespace {

// Shipped entries are those the shipped pair loaded: the cache pair's come after them, as
// installed (or unusable) entries with the identifier "0".
bool IsShipped(const SimilarityTable& table, size_t entry) { return table.status[entry] <= kStatusIdentifierOther; }

}  // namespace

std::vector<ShippedFace> FontSimilarCache::ShippedFaces() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ShippedFace> faces;
  for (size_t j = 0; j < table_.Size(); ++j)
    if (IsShipped(table_, j))
      faces.push_back({table_.columns[kFieldName][j], table_.columns[kFieldFamily][j], table_.columns[kFieldStyle][j],
                       j < entryToFont_.size() && entryToFont_[j] >= 0});
  return faces;
}

std::optional<std::vector<std::pair<std::string, double>>> FontSimilarCache::GetSimilarToShippedFace(
    const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto& names = table_.columns[kFieldName];
  size_t entry = 0;
  while (entry < table_.Size() && !(IsShipped(table_, entry) && names[entry] == name)) ++entry;
  if (entry == table_.Size()) return std::nullopt;
  std::vector<std::pair<std::string, double>> result;
  for (const Scored& r : RankLocked(int64_t(entry), {})) {
    if (result.size() >= kMaxSimilarFonts) break;
    if (r.fontIndex >= 0 && installedNames_[size_t(r.fontIndex)] != name)
      result.emplace_back(installedNames_[size_t(r.fontIndex)], double(r.score));
  }
  return result;
}

void FontSimilarCache::ReadKnownLocked() {
  if (knownRead_) return;
  knownRead_ = true;
  const SimilarityPaths& paths = knownPaths_;
  CacheLog& log = SimilarityLog();
  knownFaces_.clear();
  knownByName_.clear();
  knownShippedEntry_.clear();
  knownVectors_ = {};
  knownFamilies_.clear();
  std::string why;
  // Files that are not there are no fault (a data folder without them answers installed fonts
  // only); files that are there and cannot be used are said, and the service goes on without.
  const auto present = [](const std::string& path) { return !path.empty() && std::filesystem::exists(path); };
  try {
    if (present(paths.knownFaces)) {
      knownVectors_ = PackedVectors::Read(paths.knownVectors, kFeatureDim, NetworkCheckSum(paths.model));
      knownFaces_ = ReadKnownFaces(paths.knownFaces, knownVectors_.Rows());
      knownByName_ = KnownFacesByName(knownFaces_);
      // The faces the shipped pair holds are found there once, by name.
      std::unordered_map<std::string_view, size_t> shipped;
      for (size_t entry = 0; entry < table_.Size(); ++entry)
        if (IsShipped(table_, entry)) shipped.emplace(table_.columns[kFieldName][entry], entry);
      for (const KnownFace& face : knownFaces_) {
        const auto it = face.vectorRow == KnownFace::kShipped ? shipped.find(face.name) : shipped.end();
        knownShippedEntry_.push_back(it == shipped.end() ? -1 : int64_t(it->second));
      }
      log.Info("Similar Cache Known Faces : ", knownFaces_.size());
    }
  } catch (const std::exception& e) {
    knownFaces_.clear();
    knownByName_.clear();
    knownShippedEntry_.clear();
    knownVectors_ = {};
    why = std::string(e.what()) + "; faces that are not installed are not known";
  }
  try {
    if (present(paths.knownFamilies)) knownFamilies_ = ReadKnownFamilies(paths.knownFamilies);
  } catch (const std::exception& e) {
    why += (why.empty() ? "" : "; ") + std::string(e.what()) + "; well-known families are not known";
  }
  if (!why.empty()) {
    log.Info("Similar Cache Known Faces Unusable: ", why);
    progress_.Report(CacheProgress::kWarning, why);
  }
}

bool FontSimilarCache::KnownVectorLocked(size_t k, float* out) {
  const int32_t row = knownFaces_[k].vectorRow;
  if (row >= 0) {
    knownVectors_.Unpack(size_t(row), out);
    return !knownVectors_.IsZero(size_t(row));
  }
  const int64_t entry = knownShippedEntry_[k];
  if (entry < 0 || table_.status[size_t(entry)] == kStatusUnusable) return false;
  std::copy(table_.Feature(size_t(entry)), table_.Feature(size_t(entry)) + kFeatureDim, out);
  return true;
}

void FontSimilarCache::VisitKnownFaces(const std::function<void(const KnownFace&, bool)>& visit) {
  std::lock_guard<std::mutex> lock(mutex_);
  ReadKnownLocked();
  std::unordered_set<std::string_view> installed(installedNames_.begin(), installedNames_.end());
  for (const KnownFace& face : knownFaces_) visit(face, installed.count(face.name) > 0);
}

std::optional<std::vector<std::pair<std::string, double>>> FontSimilarCache::GetSimilarToKnownFaces(
    const std::vector<std::string>& names) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (table_.featureDim != kFeatureDim) return std::nullopt;
  ReadKnownLocked();
  std::vector<float> query(kFeatureDim, 0.0f), vector(kFeatureDim);
  std::unordered_set<std::string_view> asked;
  size_t kept = 0;
  for (const std::string& name : names) {
    const auto it = knownByName_.find(name);
    if (it == knownByName_.end() || !KnownVectorLocked(it->second, vector.data())) continue;
    asked.insert(name);
    const float weight = 1.0f / float(++kept);
    for (size_t i = 0; i < kFeatureDim; ++i) query[i] += weight * vector[i];
  }
  if (kept == 0) return std::nullopt;
  std::vector<std::pair<std::string, double>> result;
  // A query of several vectors is scaled back to the size of one, so scores stay comparable.
  float total = 0;
  for (size_t k = 1; k <= kept; ++k) total += 1.0f / float(k);
  for (const Scored& r : RankLocked(-1, query)) {
    if (result.size() >= kMaxSimilarFonts) break;
    if (r.fontIndex >= 0 && !asked.count(installedNames_[size_t(r.fontIndex)]))
      result.emplace_back(installedNames_[size_t(r.fontIndex)], double(r.score / total));
  }
  return result;
}

std::optional<KnownFamily> FontSimilarCache::FindKnownFamily(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  ReadKnownLocked();
  const KnownFamily* family = fontrix::FindKnownFamily(knownFamilies_, name);
  if (!family) return std::nullopt;
  return *family;
}

std::vector<RankedRecord> FontSimilarCache::GetSimilarToFontSet(const std::vector<int32_t>& fontIndices,
                                                                const std::vector<float>& weights) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<float> query(kFeatureDim, 0.0f);
  size_t kept = 0;
  for (size_t k = 0; k < fontIndices.size() && k < weights.size() && kept < kMaxFontSetSize; ++k) {
    const int32_t font = fontIndices[k];
    if (font < 0 || size_t(font) >= fontToEntry_.size() || fontToEntry_[size_t(font)] < 0) continue;
    const float* f = table_.Feature(size_t(fontToEntry_[size_t(font)]));
    for (size_t i = 0; i < query.size(); ++i) query[i] += weights[k] * f[i];
    ++kept;
  }
  return Records(RankLocked(-1, query));
}

std::vector<std::string> FontSimilarCache::InstalledFonts() {
  std::lock_guard<std::mutex> lock(mutex_);
  return installedNames_;
}

size_t FontSimilarCache::Size() {
  std::lock_guard<std::mutex> lock(mutex_);
  return table_.Size();
}

void FontSimilarCache::VisitVectorsByName(const std::vector<std::string>& names,
                                          const std::function<void(size_t, const float*)>& visit) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (table_.featureDim != kFeatureDim) return;
  std::unordered_map<std::string_view, size_t> entryOf;
  entryOf.reserve(table_.Size());
  for (size_t j = table_.Size(); j-- > 0;)
    if (table_.status[j] != kStatusUnusable) entryOf[table_.columns[kFieldName][j]] = j;  // the first one wins
  for (size_t i = 0; i < names.size(); ++i)
    if (const auto it = entryOf.find(names[i]); it != entryOf.end()) visit(i, table_.Feature(it->second));
}

std::vector<float> FontSimilarCache::VectorsByName(const std::vector<std::string>& names, std::vector<bool>& found) {
  std::vector<float> vectors(names.size() * kFeatureDim, 0.0f);
  found.assign(names.size(), false);
  VisitVectorsByName(names, [&](size_t i, const float* vector) {
    std::memcpy(&vectors[i * kFeatureDim], vector, kFeatureDim * sizeof(float));
    found[i] = true;
  });
  return vectors;
}

std::pair<std::vector<float>, uint32_t> FontSimilarCache::Entry(size_t index) {
  std::lock_guard<std::mutex> lock(mutex_);
  return {table_.FeatureVector(index), table_.status.at(index)};
}

}  // namespace fontrix
