#include "recognition/font_recognition_cache.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <numeric>
#include <unordered_map>
#include <unordered_set>

#include "deepnet/layers/fc.h"
#include "deepnet/model_io.h"
#include "deepnet/network.h"
#include "recognition/letter_proportions.h"
#include "shell/cache_folder_lock.h"
#include "shell/cache_log.h"
#include "shell/cancellation.h"
#include "shell/feature_switches.h"
#include "shell/host_suites.h"
#include "similarity/font_similar_cache.h"
#include "similarity/known_faces.h"
#include "similarity/similarity_table.h"

namespace fontrix {

namespace {

std::mutex paths_mutex;
RecognitionPaths resolved_paths;
bool paths_resolved = false;

}  // namespace

const RecognitionPaths& ResolveRecognitionPaths() {
  std::lock_guard<std::mutex> lock(paths_mutex);
  if (!paths_resolved) {
    const std::string data = qv::FolderPath(kQVFolderPluginData, false);
    resolved_paths = {FileInFolder(data, "NQ_rec_model.dnm"),
                      FileInFolder(data, "NQ_rec_font.bin"),
                      FileInFolder(data, "NQ_loc_model.dnm"),
                      FileInFolder(qv::FolderPath(kQVFolderUserCache, true), kInstalledLinesFileName),
                      FileInFolder(data, kConfidenceFileName),
                      FileInFolder(data, kKnownFacesFileName),
                      FileInFolder(data, kKnownLinesFileName)};
    paths_resolved = true;
    CacheLog& log = RecognitionLog();
    log.Info("Recognition Model File-Path : ", resolved_paths.model);
    log.Info("Recognition Meta File-Path : ", resolved_paths.fontTable);
    log.Info("Recognition Loc Model File-Path : ", resolved_paths.localisationModel);
    log.Info("Recognition Installed Lines File-Path : ", resolved_paths.installedLines);
    log.Info("Recognition Confidence File-Path : ", resolved_paths.confidence);
  }
  return resolved_paths;
}

void SetRecognitionPaths(const RecognitionPaths& paths) {
  std::lock_guard<std::mutex> lock(paths_mutex);
  resolved_paths = paths;
  paths_resolved = true;
}

namespace {

// The number of classes the network's "prob" scores: the outputs of the fully connected layer
// it normalises; 0 when the network has no such pair.
uint32_t ProbClasses(const deepnet::layer_model_list& network) {
  for (const auto& layer : network)
    if (layer->name == "prob" && layer->type == deepnet::layer_type_softmax && layer->inputs.size() == 1 &&
        layer->inputs[0]->type == deepnet::layer_type_fc)
      return static_cast<const deepnet::layer_model_fc*>(layer->inputs[0])->num_output;
  return 0;
}

}  // namespace

void FontRecognitionCache::Init() {
  try {
    // The init and update tasks run at once; an update that won the race has loaded already.
    auto cache = GetOrCreate();
    std::lock_guard<std::mutex> update(UpdateMutex());
    if (!cache->Loaded()) cache->Load(ResolveRecognitionPaths());
  } catch (...) {
    RecognitionLog().Exception(CacheLog::kInfo, "Recognition Cache Loading throws exception");
  }
}

bool FontRecognitionCache::Load(const RecognitionPaths& paths) {
  std::unique_lock<std::shared_mutex> lock(lock_);
  CacheLog& log = RecognitionLog();
  log.Info("Loading Recognition Engine Starts: time : ", HostTime());
  recognition_.clear();
  localisation_.clear();
  for (auto& c : table_) c.clear();
  status_.clear();
  largestLineOnly_ = qv::GetFeatureManager().IsEnabled(kRecognitionLargestLineSwitch);
  installedLines_ = qv::GetFeatureManager().IsEnabled(kRecognitionInstalledLinesSwitch);
  widthCuts_ = qv::GetFeatureManager().IsEnabled(kRecognitionWidthCutsSwitch);
  linesPath_ = paths.installedLines;
  lines_.clear();
  linesFromFile_ = 0;
  const std::string problem = LoadData(paths);
  const bool ok = problem.empty();
  if (!ok) {
    // Shipped data that cannot be used leaves the service without answers, and says why.
    recognition_.clear();
    localisation_.clear();
    for (auto& c : table_) c.clear();
    status_.clear();
    log.Info("Recognition Engine Unusable: ", problem);
    progress_.Report(CacheProgress::kFailure, problem);
  }
  confidence_ = ConfidenceModel();
  std::error_code absent;
  // A data folder without the model (stand-in data) answers without a confidence; any failure to
  // read one that is there (a folder in its place, an I/O error) costs the confidence only.
  if (ok && !paths.confidence.empty() && std::filesystem::exists(paths.confidence, absent)) {
    try {
      confidence_ = ReadConfidenceModel(paths.confidence);
    } catch (const std::exception& e) {
      log.Info("Recognition Confidence Unusable: ", e.what());
      progress_.Report(CacheProgress::kWarning, std::string(e.what()) + "; answers come without a confidence");
    }
  }
  if (ok && installedLines_) {
    networkFingerprint_ = NetworkFingerprint(paths.model);
    try {
      if (!linesPath_.empty()) lines_ = ReadInstalledLines(linesPath_, networkFingerprint_, &linesOlder_);
    } catch (const std::exception& e) {
      // A damaged file is read again font by font and written over.
      log.Info("Installed lines ", linesPath_, " unusable (", e.what(), "); they are read again");
    }
    linesFromFile_ = lines_.size();
    log.Info("Installed lines kept: ", lines_.size());
  }
  // The known faces are compared with the installed lines only: without them none is read.
  knownRead_ = false;
  knownNames_.clear();
  knownLines_ = {};
  knownAbsent_.clear();
  knownFacesPath_ = ok && installedLines_ ? paths.knownFaces : "";
  knownLinesPath_ = paths.knownLines;
  // The update task may have matched the installed fonts before (it waits for this load).
  MatchEntries();
  MatchLines();
  log.Info("Loading Recognition Engine Ends: time ", HostTime());
  loaded_.store(true);
  return ok;
}

std::string FontRecognitionCache::LoadData(const RecognitionPaths& paths) {
  namespace fs = std::filesystem;
  for (const std::string* file : {&paths.model, &paths.fontTable})
    if (!fs::is_regular_file(*file))
      return "the recognition " + std::string(file == &paths.model ? "model " : "font table ") + *file + " is missing";
  for (const auto& [file, network] :
       {std::make_pair(&paths.model, &recognition_), std::make_pair(&paths.localisationModel, &localisation_)}) {
    if (file == &paths.localisationModel && !fs::is_regular_file(*file)) continue;  // the whole picture is the line
    try {
      deepnet::deepnet_load_model(*file, *network);
    } catch (const std::exception& e) {
      return "the recognition model " + *file + " cannot be used: " + e.what();
    }
  }
  const int groups = SimilarityTable::ReadMeta(paths.fontTable, table_);
  if (groups <= 0) return "the recognition font table " + paths.fontTable + " is not whole groups of six lines";
  const uint32_t classes = ProbClasses(recognition_);
  if (uint32_t(groups) != classes)
    return "the recognition font table " + paths.fontTable + " lists " + std::to_string(groups) +
           " fonts, but the model " + paths.model + " scores " + std::to_string(classes);
  for (const auto& id : table_[kFieldServerId]) status_.push_back(ShippedStatus(id));
  return "";
}

bool FontRecognitionCache::Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId) {
  RecognitionLog().Info(" Current Font Server ID - ", fontServerId);
  if (fontServerId < fontServerId_.load()) return false;
  std::lock_guard<std::mutex> update(UpdateMutex());
  // The init task runs beside this one: the lines can only be read once the network is loaded.
  if (!loaded_.load()) Load(ResolveRecognitionPaths());
  progress_.Start(uint32_t(fonts.size()));
  // The same fonts in the same order as the similarity cache matches them, so the font indices
  // of the two caches agree when recognition widens through similarity.
  hostglue::FontAccess& access = Fonts().Get();
  std::vector<std::string> names;
  std::vector<QVFontHandle> usable;
  const bool available = Fonts().Available();
  for (QVFontHandle f : fonts) {
    hostglue::FontNames n;
    if (available && access.IsUsable(f) && access.Names(f, n)) {
      names.push_back(n.uniqueName);
      usable.push_back(f);
    }
  }
  {
    std::unique_lock<std::shared_mutex> lock(lock_);
    installed_ = names;
    handles_ = usable;
    proportionOf_.assign(usable.size(), -1.0);
    MatchEntries();
    MatchLines();
  }
  const bool read = IndexInstalledLines(usable, names);
  fontServerId_.store(fontServerId);
  progress_.Finish();
  return read;
}

bool FontRecognitionCache::IndexInstalledLines(const std::vector<QVFontHandle>& fonts,
                                               const std::vector<std::string>& names) {
  std::vector<InstalledLine> drawn;
  {
    std::shared_lock<std::shared_mutex> lock(lock_);
    // The network is there only when it and the kept lines were loaded.
    if (!installedLines_ || recognition_.empty()) return false;
    // Lines read by an earlier update of this run are not counted as found in the file again.
    std::unordered_map<std::string, bool> kept;
    for (size_t i = 0; i < lines_.size(); ++i) kept.emplace(lines_[i].name, i < linesFromFile_);
    hostglue::FontAccess& access = Fonts().Get();
    CacheLog& log = RecognitionLog();
    uint32_t fromFile = 0;
    for (const std::string& name : names)
      if (const auto it = kept.find(name); it != kept.end()) fromFile += it->second;
    progress_.matched.store(fromFile);
    for (size_t i = 0; i < fonts.size() && !CancelRequested(); ++i, progress_.done++) {
      if (kept.count(names[i])) continue;
      GreyRaster line;
      LineReading reading;
      try {
        if (DrawInstalledLine(access, fonts[i], line))
          reading = ReadText(line.pixels.data(), line.width, line.height, 1);
      } catch (const std::exception& e) {
        log.Info("Installed line of ", names[i], " not read: ", e.what());
      }
      // A font without a line is kept too, so that it is not drawn again at every start.
      (reading.features.empty() ? progress_.unusable : progress_.computed)++;
      drawn.push_back({names[i], std::move(reading.features)});
    }
  }
  std::vector<InstalledLine> kept;
  {
    std::unique_lock<std::shared_mutex> lock(lock_);
    if (drawn.empty() && !linesOlder_) return false;
    linesOlder_ = false;
    lines_.insert(lines_.end(), std::make_move_iterator(drawn.begin()), std::make_move_iterator(drawn.end()));
    MatchLines();
    ++changes_;
    kept = lines_;
  }
  CacheLog& log = RecognitionLog();
  log.Info("Installed lines read: ", drawn.size(), ", kept: ", kept.size());
  if (linesPath_.empty()) return true;
  // Another process may be saving into the same folder; queries go on meanwhile.
  CacheFolderLock folder(CacheFolderLock::FolderOf(linesPath_), CacheFolderLock::kExclusive, progress_);
  try {
    if (!folder.Held()) throw std::runtime_error(folder.Error());
    WriteInstalledLines(linesPath_, networkFingerprint_.sum, kept);
  } catch (const std::exception& e) {
    log.Info("Installed lines not saved: ", e.what());
    progress_.Report(CacheProgress::kNotSaved, std::string("the installed fonts' lines were not saved (") + e.what() +
                                                   "); they are drawn again at the next start");
  }
  return true;
}

void FontRecognitionCache::MatchLines() {
  std::unordered_map<std::string, int32_t> byName;
  for (size_t i = 0; i < lines_.size(); ++i) byName.emplace(lines_[i].name, int32_t(i));
  lineOfFont_.assign(installed_.size(), -1);
  for (size_t f = 0; f < installed_.size(); ++f)
    if (auto it = byName.find(installed_[f]); it != byName.end()) lineOfFont_[f] = it->second;
  named_.assign(installed_.size(), false);
  for (int32_t f : entryToFont_)
    if (f >= 0 && size_t(f) < named_.size()) named_[size_t(f)] = true;
  // Readers are shut out: the known faces read so far are matched again.
  if (knownRead_) MatchKnown();
}

void FontRecognitionCache::ReadKnownLocked() {
  std::lock_guard<std::mutex> known(knownMutex_);
  if (knownRead_) return;
  knownRead_ = true;
  std::error_code absent;
  if (knownFacesPath_.empty() || !std::filesystem::exists(knownFacesPath_, absent)) return;
  try {
    // The lines are as long as the network's "pool4"; the check sum of the network binds them to it.
    knownLines_ = PackedVectors::Read(knownLinesPath_, 0, networkFingerprint_.sum);
    for (KnownFace& face : ReadKnownFaces(knownFacesPath_, UINT32_MAX)) knownNames_.push_back(std::move(face.name));
    if (knownNames_.size() != knownLines_.Rows())
      throw KnownFacesFileError(knownLinesPath_ + " holds " + std::to_string(knownLines_.Rows()) + " lines for " +
                                std::to_string(knownNames_.size()) + " known faces");
    RecognitionLog().Info("Known faces' lines: ", knownNames_.size());
  } catch (const std::exception& e) {
    knownNames_.clear();
    knownLines_ = {};
    RecognitionLog().Info("Known faces unusable: ", e.what());
    progress_.Report(CacheProgress::kWarning,
                     std::string(e.what()) + "; pictures are answered with installed fonts only");
  }
  MatchKnown();
}

void FontRecognitionCache::MatchKnown() {
  knownAbsent_.clear();
  const std::unordered_set<std::string_view> installed(installed_.begin(), installed_.end());
  for (size_t k = 0; k < knownNames_.size(); ++k)
    if (!installed.count(knownNames_[k]) && !knownLines_.IsZero(k)) knownAbsent_.push_back(uint32_t(k));
}

void FontRecognitionCache::MatchEntries() {
  entryToFont_.assign(status_.size(), -1);
  for (size_t e = 0; e < status_.size(); ++e) {
    const auto hit = std::find(installed_.begin(), installed_.end(), table_[kFieldName][e]);
    if (hit != installed_.end()) entryToFont_[e] = int32_t(hit - installed_.begin());
  }
}

size_t FontRecognitionCache::TableSize() {
  std::shared_lock<std::shared_mutex> lock(lock_);
  return status_.size();
}

std::vector<FontRecognitionCache::Candidate> FontRecognitionCache::RankClasses(const std::vector<float>& prob,
                                                                               bool tableIndexMode) {
  std::vector<Candidate> candidates;
  for (size_t i = 0; i < status_.size() && i < prob.size(); ++i) {
    const int32_t font = entryToFont_[i];
    if (!tableIndexMode && font == -1 && table_[kFieldOrigin][i] == "0") continue;
    Candidate c;
    c.score = prob[i];
    c.fontIndex = font;
    c.tableIndex = tableIndexMode ? int32_t(i) : -1;
    c.status = status_[i];
    if (font == -1) {
      c.fontServerId = table_[kFieldServerId][i];
      c.name = table_[kFieldName][i];
    }
    candidates.push_back(std::move(c));
  }
  std::sort(candidates.begin(), candidates.end(),
            [](const Candidate& a, const Candidate& b) { return a.score > b.score; });
  return candidates;
}

std::vector<FontRecognitionCache::Candidate> FontRecognitionCache::Widen(const std::vector<Candidate>& ranked) {
  const size_t k = ranked.size() < 11 ? ranked.size() : kSteeringCandidates;
  std::vector<int32_t> fonts;
  std::vector<float> weights;
  for (size_t i = 0; i < k; ++i)
    if (ranked[i].fontIndex != -1) {
      fonts.push_back(ranked[i].fontIndex);
      weights.push_back(ranked[i].score);
    }
  std::vector<Candidate> widened;
  if (k == 0) return ranked;
  auto similar = FontSimilarCache::Instance();
  if (!similar) return widened;
  for (const RankedRecord& r : similar->GetSimilarToFontSet(fonts, weights)) {
    Candidate c;
    c.fontIndex = r.fontIndex;
    c.fontServerId = r.fontServerId;
    c.name = r.name;
    c.status = r.status;
    c.score = r.score * 0.5f;
    c.tableIndex = -1;
    widened.push_back(std::move(c));
  }
  return widened;
}

LineReading FontRecognitionCache::ReadText(const uint8_t* pixels, int32_t width, int32_t height, size_t mostLines) {
  // Sloping text is levelled first: cut to rows, a sloping line would be a tall band that the
  // network reads squashed.
  GreyRaster levelled;
  uint8_t paper = 255;
  if (const double skew = TextSkew(pixels, width, height, &paper); skew != 0) {
    levelled = Levelled(pixels, width, height, skew, paper);
    pixels = levelled.pixels.data();
    width = levelled.width;
    height = levelled.height;
  }
  const TextLayout layout = FindTextLines(pixels, width, height);
  LineReading sum;
  size_t read = 0;
  for (size_t i : LinesToRead(layout, mostLines)) {
    GreyRaster line = CutLine(pixels, width, height, layout, i);
    if (widthCuts_) {
      const std::vector<float> letters = XHeightLetterProportions(line);
      sum.letterProportions.insert(sum.letterProportions.end(), letters.begin(), letters.end());
    }
    if (!localisation_.empty()) {
      // The band of rows the localisation network picks within the cut: lines as the
      // recognition network was trained to read them.
      const auto [top, bottom] = LocaliseBand(localisation_, line);
      GreyRaster band{line.width, int32_t(bottom - top), {}};
      band.pixels.assign(line.pixels.begin() + ptrdiff_t(top) * line.width,
                         line.pixels.begin() + ptrdiff_t(bottom) * line.width);
      line = std::move(band);
    }
    int32_t lineWidth = 0;
    const std::vector<float> resized = ToLineHeight(line, lineWidth);
    if (lineWidth < kNarrowestLine) continue;  // far taller than wide: not a line of text
    const LineReading reading = ReadLine(recognition_, resized, lineWidth);
    if (sum.prob.empty()) {
      sum.prob.assign(reading.prob.size(), 0.0f);
      sum.features.assign(reading.features.size(), 0.0f);
    }
    for (size_t k = 0; k < reading.prob.size() && k < sum.prob.size(); ++k) sum.prob[k] += reading.prob[k];
    for (size_t k = 0; k < reading.features.size() && k < sum.features.size(); ++k)
      sum.features[k] += reading.features[k];
    ++read;
  }
  for (float& v : sum.prob) v /= float(read);
  double norm = 0;
  for (float v : sum.features) norm += double(v) * v;
  if (norm > 0)
    for (float& v : sum.features) v = float(v / std::sqrt(norm));
  else
    sum.features.clear();
  return sum;
}

std::vector<float> FontRecognitionCache::LikenessLocked(const std::vector<float>& features) const {
  std::vector<float> likeness(installed_.size(), -1.0f);
  if (!installedLines_ || features.empty()) return likeness;
  for (size_t f = 0; f < installed_.size() && f < lineOfFont_.size(); ++f) {
    if (lineOfFont_[f] < 0) continue;
    const std::vector<float>& line = lines_[size_t(lineOfFont_[f])].features;
    if (line.size() != features.size()) continue;  // none drawn
    double dot = 0;
    for (size_t k = 0; k < line.size(); ++k) dot += double(line[k]) * features[k];
    likeness[f] = float(dot);
  }
  return likeness;
}

std::vector<FontRecognitionCache::Result> FontRecognitionCache::MergeLinesLocked(
    const std::vector<Result>& answer, const std::vector<float>& likeness) const {
  if (std::none_of(likeness.begin(), likeness.end(), [](float l) { return l >= 0; })) return answer;
  std::vector<int32_t> order;
  for (const Result& r : answer) order.push_back(r.fontIndex);
  const std::vector<int32_t> merged = MergeInstalledLines(order, likeness, named_, kInstalledLinesMargin, kMaxResults);
  // A font the lines put in (or moved up) takes the score of the answer it goes before, so scores
  // still fall down the list; after the answer, the last answer's.
  std::unordered_map<int32_t, size_t> place;
  for (size_t i = 0; i < answer.size(); ++i) place.emplace(answer[i].fontIndex, i);
  std::vector<bool> used(answer.size(), false);
  std::vector<Result> results;
  size_t next = 0;  // the first answer not yet in the results
  for (int32_t f : merged) {
    while (next < answer.size() && used[next]) ++next;
    const double before = next < answer.size() ? answer[next].score : answer.empty() ? 0.0 : answer.back().score;
    const auto it = place.find(f);
    if (it != place.end()) {
      used[it->second] = true;
      results.push_back(answer[it->second]);
      if (named_[size_t(f)]) continue;
      results.back().score = std::max(results.back().score, before);
      continue;
    }
    results.push_back({installed_[size_t(f)], before, f});
  }
  return results;
}

namespace {

// The square root of each value (0 for values below 0), at unit length.
std::vector<float> RootLine(const float* values, size_t count) {
  std::vector<float> root(count);
  double sum = 0;  // of the roots' squares: the values'
  for (size_t i = 0; i < count; ++i) {
    root[i] = std::sqrt(std::max(values[i], 0.0f));
    sum += double(root[i]) * root[i];
  }
  const float scale = sum > 0 ? float(1.0 / std::sqrt(sum)) : 0.0f;
  for (float& v : root) v *= scale;
  return root;
}

double Dot(const std::vector<float>& a, const std::vector<float>& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}

}  // namespace

std::vector<FontRecognitionCache::Result> FontRecognitionCache::MergeKnownLocked(
    std::vector<Result> answer, const std::vector<float>& features) const {
  if (knownAbsent_.empty() || features.size() != knownLines_.Dim()) return answer;
  // Faces the network never saw are told apart better with each value's square root (the
  // lines' values are all 0 or more): the few strong values of a line weigh less against the
  // many weak ones. The known lines are kept so; the picture's reading and the answers' own lines
  // are brought to it here, and the answers' likeness given in it.
  const std::vector<float> picture = RootLine(features.data(), features.size());
  std::vector<double> answerBar;
  for (Result& r : answer) {
    const int32_t line =
        r.fontIndex >= 0 && size_t(r.fontIndex) < lineOfFont_.size() ? lineOfFont_[size_t(r.fontIndex)] : -1;
    const std::vector<float>* values = line >= 0 ? &lines_[size_t(line)].features : nullptr;
    r.likeness =
        values && values->size() == picture.size() ? Dot(RootLine(values->data(), values->size()), picture) : -1.0;
    // An answer without a line counts as one that matches nothing.
    answerBar.push_back(std::max(0.0, r.likeness) + kKnownFacesMargin + kKnownFacesScoreMargin * r.score);
  }
  std::vector<float> knownLikeness;
  knownLikeness.reserve(knownAbsent_.size());
  for (uint32_t k : knownAbsent_) knownLikeness.push_back(knownLines_.Dot(k, picture.data()));
  std::vector<Result> results;
  size_t next = 0;  // the first answer not yet in the results
  for (const MergedPlace& place : MergeKnownFaces(answerBar, knownLikeness, kMaxResults)) {
    if (!place.known) {
      results.push_back(answer[place.index]);
      next = place.index + 1;
      continue;
    }
    // Like a font the installed lines put in: the score of the answer it goes before, so scores
    // still fall down the list.
    Result r;
    r.name = knownNames_[knownAbsent_[place.index]];
    r.score = next < answer.size() ? answer[next].score : answer.empty() ? 0.0 : answer.back().score;
    r.likeness = knownLikeness[place.index];
    r.installed = false;
    results.push_back(std::move(r));
  }
  return results;
}

std::vector<FontRecognitionCache::Result> FontRecognitionCache::GetRecognizedFontList(const uint8_t* pixels,
                                                                                      int32_t width, int32_t height,
                                                                                      bool withKnown) {
  std::vector<Result> results;
  {
    std::shared_lock<std::shared_mutex> lock(lock_);
    if ((height >= 1 && height <= 19) || (width >= 1 && width <= 19)) return results;
    if (height < 1 || width < 1 || !pixels || recognition_.empty()) return results;
    const LineReading reading = ReadText(pixels, width, height, largestLineOnly_ ? 1 : kMostLinesRead);
    if (reading.prob.empty()) return results;  // no line of text
    const std::vector<float> likeness = LikenessLocked(reading.features);
    results = MergeLinesLocked(AnswerLocked(Widen(RankClasses(reading.prob, false))), likeness);
    if (widthCuts_) OrderWidthCutsLocked(results, MedianProportion(reading.letterProportions));
    RateLocked(results, likeness, false);
    // Known faces are compared with the installed fonts' own lines: without them they would go
    // before every answer.
    if (withKnown && installedLines_) {
      ReadKnownLocked();
      results = MergeKnownLocked(std::move(results), reading.features);
      RateLocked(results, {}, true);
    }
  }
  if (const QVDevUtilsSuite* dev = qv::Suites().devUtils)
    if (QVPerfLogHandle perf = PerformanceLog()) {
      char line[160];
      std::snprintf(line, sizeof line, "%u,%s,%s", unsigned(HostTime()),
                    "Font Recognition: GetRecognizedFontList() called", "Font Recognition");
      dev->WritePerformanceLog(perf, line);
    }
  return results;
}

void FontRecognitionCache::OrderWidthCutsLocked(std::vector<Result>& results, double seen) const {
  if (!(seen > 0) || results.size() < 2 || !Fonts().Available()) return;
  hostglue::FontAccess& access = Fonts().Get();
  // Measured once a font, on the first picture that needs it: a few glyph boxes.
  auto proportion = [&](int32_t f) {
    if (f < 0 || size_t(f) >= handles_.size()) return 0.0;
    std::lock_guard<std::mutex> lock(proportionMutex_);
    double& p = proportionOf_[size_t(f)];
    if (p < 0) p = FontLetterProportion(access, handles_[size_t(f)]);
    return p;
  };
  auto family = [&](int32_t f) {
    hostglue::FontNames n;
    return f >= 0 && size_t(f) < handles_.size() && access.Names(handles_[size_t(f)], n) ? n.family : std::string();
  };
  // Among the first answers, a width cut of the same family that scores nearly as well goes
  // before the answer when the picture's letters are clearly as wide as its own.
  constexpr size_t kConsidered = 3;
  constexpr double kNearlyAsWell = 0.9;
  for (size_t i = 0; i < results.size() && i < kConsidered; ++i)
    for (size_t j = i + 1; j < results.size() && j < kConsidered; ++j) {
      if (results[j].score < kNearlyAsWell * results[i].score) continue;
      const std::string home = family(results[i].fontIndex);
      if (home.empty() || family(results[j].fontIndex) != home) continue;
      if (!NearerTheOther(seen, proportion(results[i].fontIndex), proportion(results[j].fontIndex))) continue;
      const double score = results[i].score;
      std::swap(results[i], results[j]);
      results[j].score = std::min(results[j].score, results[i].score);
      results[i].score = score;
    }
}

void FontRecognitionCache::RateLocked(std::vector<Result>& results, const std::vector<float>& likeness,
                                      bool withKnown) const {
  double best = -1;
  // The two best likenesses of known faces that are not installed, and the first's place: each
  // such answer's best other is the first's, or the second's for the first itself.
  double bestKnown = -1, secondKnown = -1;
  size_t bestKnownAt = results.size();
  for (size_t i = 0; i < results.size(); ++i) {
    Result& r = results[i];
    // Answers over the known faces have their likeness set when they were merged.
    if (r.installed && !likeness.empty())
      r.likeness = r.fontIndex >= 0 && size_t(r.fontIndex) < likeness.size() ? likeness[size_t(r.fontIndex)] : -1.0;
    best = std::max(best, r.likeness);
    if (r.installed) continue;
    if (r.likeness > bestKnown) {
      secondKnown = bestKnown;
      bestKnown = r.likeness;
      bestKnownAt = i;
    } else {
      secondKnown = std::max(secondKnown, r.likeness);
    }
  }
  for (size_t i = 0; i < results.size(); ++i) {
    AnswerFacts facts;
    facts.score = results[i].score;
    facts.firstScore = results[0].score;
    facts.secondScore = results.size() > 1 ? results[1].score : 0.0;
    facts.first = i == 0;
    facts.likeness = results[i].likeness;
    facts.bestLikeness = best;
    facts.knownFace = !results[i].installed;
    facts.otherKnownLikeness = i == bestKnownAt ? secondKnown : bestKnown;
    facts.withKnown = withKnown;
    results[i].confidence = confidence_.Confidence(facts);
    results[i].sureAt = confidence_.SureAt(facts);
  }
}

std::vector<FontRecognitionCache::Result> FontRecognitionCache::Answer(const std::vector<Candidate>& widened) {
  std::shared_lock<std::shared_mutex> lock(lock_);
  return AnswerLocked(widened);
}

std::vector<FontRecognitionCache::Result> FontRecognitionCache::AnswerLocked(
    const std::vector<Candidate>& widened) const {
  // Only the font index decides: the status says where a table entry came from (a library face
  // has an identifier of seven characters), not whether the user has the face.
  std::vector<Result> results;
  for (const Candidate& c : widened) {
    if (c.fontIndex < 0 || size_t(c.fontIndex) >= installed_.size()) continue;
    results.push_back({installed_[size_t(c.fontIndex)], double(c.score), c.fontIndex});
    if (results.size() >= kMaxResults) break;
  }
  return results;
}

std::vector<TextLine> FontRecognitionCache::FindText(QVRasterHandle image) {
  hostglue::GreyImage pixels;
  if (!Fonts().Get().ImagePixels(image, pixels)) return {};
  return FindTextLines(pixels.pixels.data(), pixels.width, pixels.height).lines;
}

std::vector<FontRecognitionCache::Result> FontRecognitionCache::GetRecognizedFontList(QVRasterHandle image,
                                                                                      bool withKnown) {
  hostglue::GreyImage pixels;
  if (!Fonts().Get().ImagePixels(image, pixels)) return {};
  return GetRecognizedFontList(pixels.pixels.data(), pixels.width, pixels.height, withKnown);
}

std::vector<std::string> FontRecognitionCache::UnusableFonts() {
  std::shared_lock<std::shared_mutex> lock(lock_);
  std::vector<std::string> names;
  for (size_t f = 0; f < installed_.size() && f < lineOfFont_.size(); ++f)
    if (lineOfFont_[f] >= 0 && lines_[size_t(lineOfFont_[f])].features.empty()) names.push_back(installed_[f]);
  return names;
}

}  // namespace fontrix
