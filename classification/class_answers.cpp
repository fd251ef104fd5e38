#include "classification/class_answers.h"

#include <mutex>
#include <set>
#include <unordered_set>

#include "classification/class_vote.h"
#include "classification/font_feature_cache.h"
#include "shell/cache_log.h"
#include "shell/feature_switches.h"
#include "shell/host_suites.h"
#include "shell/service_cache.h"
#include "similarity/font_similar_cache.h"

namespace fontrix {

namespace {

struct State {
  std::mutex mutex;
  std::string path;
  std::unique_ptr<ClassVote> vote;  // null until read, or when the file cannot be used
  std::string problem;              // why there is no vote
  std::set<std::string> said;       // reasons for plain answers already logged
  // The joined records, and the caches and changes they were worked out from.
  bool kept = false;
  bool plain = false;  // the vote could not be had for them: the linear classes stand
  std::weak_ptr<FontFeatureCache> features;
  std::weak_ptr<FontSimilarCache> similarity;
  uint64_t featureChanges = 0, similarityChanges = 0;
  std::vector<FeatureRecord> records;
};

State& state() {
  static State s;
  return s;
}

template <typename T>
bool Same(const std::weak_ptr<T>& kept, const std::shared_ptr<T>& now) {
  return !kept.owner_before(now) && !now.owner_before(kept) && !kept.expired();
}

// Logs, once a process, why the answers are the linear classes alone.
void SayPlain(State& s, const std::string& why) {
  if (s.said.insert(why).second) ClassificationLog().Info("Class vote not used: ", why);
}

std::vector<std::string> WithLabel(const std::vector<FeatureRecord>& records, uint32_t bit) {
  std::vector<std::string> names;
  for (const FeatureRecord& r : records)
    if (r.value & bit) names.push_back(r.name);
  return names;
}

// The records of `features` with joined masks; false when the vote cannot be had (said).
bool Join(State& s, FontFeatureCache& features, FontSimilarCache& similarity, std::vector<FeatureRecord>& records) {
  const ClassVoteTable& table = s.vote->Table();
  // The file must describe the shipped table the cache holds, face for face.
  const std::vector<ShippedFace> shipped = similarity.ShippedFaces();
  if (shipped.empty()) {
    SayPlain(s, "the similarity cache holds no shipped table");
    return false;
  }
  std::unordered_set<std::string> shippedNames;
  for (const ShippedFace& f : shipped) shippedNames.insert(f.name);
  std::vector<std::string> voterNames;
  size_t missing = 0;
  for (const ClassVoteFace& f : table.faces) {
    voterNames.push_back(f.name);
    missing += shippedNames.count(f.name) == 0;
  }
  if (missing || shipped.size() != table.faces.size()) {
    const std::string why = s.path + " describes another similarity table (" + std::to_string(table.faces.size()) +
                            " faces, " + std::to_string(missing) + " of them not among the " +
                            std::to_string(shipped.size()) + " shipped)";
    if (s.said.count(why) == 0)
      features.Progress().Report(CacheProgress::kWarning, why + "; style classes come from the linear rows alone");
    SayPlain(s, why);
    return false;
  }
  std::vector<bool> voting;
  const std::vector<float> voters = similarity.VectorsByName(voterNames, voting);

  // Fonts without a vector keep the linear classes.
  records = features.Records();
  std::vector<std::string> all;
  for (const FeatureRecord& r : records) all.push_back(r.name);
  std::vector<bool> found;
  const std::vector<float> vectors = similarity.VectorsByName(all, found);
  std::vector<std::string> names;
  std::vector<uint32_t> linear;
  std::vector<size_t> which;
  std::vector<float> theirs;
  for (size_t i = 0; i < records.size(); ++i) {
    if (!found[i]) continue;
    names.push_back(records[i].name);
    linear.push_back(records[i].value);
    which.push_back(i);
    theirs.insert(theirs.end(), vectors.begin() + std::ptrdiff_t(i * kFeatureDim),
                  vectors.begin() + std::ptrdiff_t((i + 1) * kFeatureDim));
  }
  const std::vector<uint32_t> joined = s.vote->Masks(names, theirs.data(), linear, voters.data(), voting, kFeatureDim);
  for (size_t n = 0; n < which.size(); ++n) records[which[n]].value = joined[n];
  return true;
}

}  // namespace

void ClassAnswers::SetUpPath() {
  ClassVoteEnabled();  // asked of the host here, on its main thread, and kept
  const std::string folder = qv::FolderPath(kQVFolderPluginData, false);
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.path = FileInFolder(folder, kClassVoteFileName);
}

void ClassAnswers::Load() {
  if (!ClassVoteEnabled() || !SimilarityEnabled()) return;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.kept = false;
  s.vote.reset();
  try {
    if (s.path.empty()) throw ClassVoteFileError(std::string(kClassVoteFileName) + ": the host gave no data folder");
    s.vote = std::make_unique<ClassVote>(ReadClassVoteFile(s.path));
    s.problem.clear();
    ClassificationLog().Info("Class vote loaded: ", s.vote->Table().faces.size(), " faces from ", s.path);
  } catch (const std::exception& e) {
    s.problem = e.what();
    SayPlain(s, s.problem);
    // Missing or not, the classes change without it: the user is told.
    if (auto cache = FontFeatureCache::Instance())
      cache->Progress().Report(CacheProgress::kWarning, "the class vote's data " + s.problem +
                                                            "; style classes come from the linear rows alone");
  }
}

std::vector<std::string> ClassAnswers::FontsWithLabel(const std::shared_ptr<FontFeatureCache>& cache,
                                                      int32_t labelIndex) {
  if (!cache || labelIndex < 0 || labelIndex >= kStyleClassCount) return {};
  if (!ClassVoteEnabled()) return cache->GetFontsWithLabel(labelIndex);
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!SimilarityEnabled()) {
    SayPlain(s, "similarity is switched off");
    return cache->GetFontsWithLabel(labelIndex);
  }
  if (!s.vote) {
    SayPlain(s, s.problem.empty() ? "no data file was read" : s.problem);
    return cache->GetFontsWithLabel(labelIndex);
  }
  const std::shared_ptr<FontSimilarCache> similarity = FontSimilarCache::Instance();
  if (!similarity || !similarity->Loaded()) {
    SayPlain(s, "the similarity cache is not loaded");
    return cache->GetFontsWithLabel(labelIndex);
  }
  // Read before the records and vectors: a change while they are read makes the next question
  // work them out again.
  const uint64_t featureChanges = cache->Changes(), similarityChanges = similarity->Changes();
  if (!(s.kept && Same(s.features, cache) && Same(s.similarity, similarity) && s.featureChanges == featureChanges &&
        s.similarityChanges == similarityChanges)) {
    std::vector<FeatureRecord> records;
    s.plain = !Join(s, *cache, *similarity, records);
    s.records = std::move(records);
    s.features = cache;
    s.similarity = similarity;
    s.featureChanges = featureChanges;
    s.similarityChanges = similarityChanges;
    s.kept = true;
  }
  return s.plain ? cache->GetFontsWithLabel(labelIndex) : WithLabel(s.records, kClassBits[labelIndex].bit);
}

void ClassAnswers::Terminate() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.vote.reset();
  s.problem.clear();
  s.said.clear();
  s.kept = false;
  s.features.reset();
  s.similarity.reset();
  s.records.clear();
}

}  // namespace fontrix
