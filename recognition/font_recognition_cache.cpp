#include "recognition/font_recognition_cache.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <mutex>

#include "deepnet/layers/fc.h"
#include "deepnet/model_io.h"
#include "deepnet/network.h"
#include "shell/cache_log.h"
#include "shell/feature_switches.h"
#include "shell/host_suites.h"
#include "similarity/font_similar_cache.h"
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
    resolved_paths = {FileInFolder(data, "NQ_rec_model.dnm"), FileInFolder(data, "NQ_rec_font.bin"),
                      FileInFolder(data, "NQ_loc_model.dnm")};
    paths_resolved = true;
    CacheLog& log = RecognitionLog();
    log.Info("Recognition Model File-Path : ", resolved_paths.model);
    log.Info("Recognition Meta File-Path : ", resolved_paths.fontTable);
    log.Info("Recognition Loc Model File-Path : ", resolved_paths.localisationModel);
  }
  return resolved_paths;
}

void SetRecognitionPaths(const RecognitionPaths& paths) {
  std::lock_guard<std::mutex> lock(paths_mutex);
  resolved_paths = paths;
  paths_resolved = true;
}

void FontRecognitionCache::Init() {
  try {
    GetOrCreate()->Load(ResolveRecognitionPaths());
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
  // The update task runs beside this one and may have matched the installed fonts first.
  MatchEntries();
  log.Info("Loading Recognition Engine Ends: time ", HostTime());
  loaded_.store(true);
  return ok;
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
  for (const auto& id : table_[0]) status_.push_back(ShippedStatus(id));
  return "";
}

bool FontRecognitionCache::Update(const std::vector<QVFontHandle>& fonts, uint32_t fontServerId) {
  RecognitionLog().Info(" Current Font Server ID - ", fontServerId);
  if (fontServerId < fontServerId_.load()) return false;
  progress_.Start(uint32_t(fonts.size()));
  // The same fonts in the same order as the similarity cache matches them, so the font indices
  // of the two caches agree when recognition widens through similarity.
  hostglue::FontAccess& access = Fonts().Get();
  std::vector<std::string> names;
  const bool available = Fonts().Available();
  for (QVFontHandle f : fonts) {
    hostglue::FontNames n;
    if (available && access.IsUsable(f) && access.Names(f, n)) names.push_back(n.uniqueName);
  }
  {
    std::unique_lock<std::shared_mutex> lock(lock_);
    installed_ = names;
    MatchEntries();
  }
  fontServerId_.store(fontServerId);
  progress_.Finish();
  return false;
}

void FontRecognitionCache::MatchEntries() {
  entryToFont_.assign(status_.size(), -1);
  for (size_t e = 0; e < status_.size(); ++e) {
    const auto hit = std::find(installed_.begin(), installed_.end(), table_[3][e]);
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
    if (!tableIndexMode && font == -1 && table_[2][i] == "0") continue;
    Candidate c;
    c.score = prob[i];
    c.fontIndex = font;
    c.tableIndex = tableIndexMode ? int32_t(i) : -1;
    c.status = status_[i];
    if (font == -1) {
      c.fontServerId = table_[0][i];
      c.name = table_[3][i];
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

std::vector<float> FontRecognitionCache::ScoreText(const uint8_t* pixels, int32_t width, int32_t height) {
  const TextLayout layout = FindTextLines(pixels, width, height);
  std::vector<float> sum;
  size_t read = 0;
  for (size_t i : LinesToRead(layout, largestLineOnly_ ? 1 : kMostLinesRead)) {
    GreyRaster line = CutLine(pixels, width, height, layout, i);
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
    const std::vector<float> prob = ScoreLine(recognition_, resized, lineWidth);
    if (sum.empty()) sum.assign(prob.size(), 0.0f);
    for (size_t k = 0; k < prob.size() && k < sum.size(); ++k) sum[k] += prob[k];
    ++read;
  }
  for (float& v : sum) v /= float(read);
  return sum;
}

std::vector<FontRecognitionCache::Result> FontRecognitionCache::GetRecognizedFontList(const uint8_t* pixels,
                                                                                      int32_t width, int32_t height) {
  std::vector<Result> results;
  {
    std::shared_lock<std::shared_mutex> lock(lock_);
    if ((height >= 1 && height <= 19) || (width >= 1 && width <= 19)) return results;
    if (height < 1 || width < 1 || !pixels || recognition_.empty()) return results;
    const std::vector<float> prob = ScoreText(pixels, width, height);
    if (prob.empty()) return results;  // no line of text
    results = AnswerLocked(Widen(RankClasses(prob, false)));
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

std::vector<FontRecognitionCache::Result> FontRecognitionCache::GetRecognizedFontList(QVRasterHandle image) {
  hostglue::GreyImage pixels;
  if (!Fonts().Get().ImagePixels(image, pixels)) return {};
  return GetRecognizedFontList(pixels.pixels.data(), pixels.width, pixels.height);
}

}  // namespace fontrix
