#include "classification/class_answers.h"

#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "classification/class_vote.h"
#include "classification/font_feature_cache.h"
#include "classification/kept_class_votes.h"
#include "shell/cache_folder_lock.h"
#include "shell/cache_log.h"
#include "shell/feature_switches.h"
#include "shell/host_suites.h"
#include "shell/service_cache.h"
#include "similarity/font_similar_cache.h"

namespace fontrix {

namespace {

struct State {
  std::mutex mutex;
  std::string path, headPath;
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
  // The votes kept between processes: the file's, read at the first join, and those worked out
  // since, all for the shared inputs `votesIdentity`; `lastVotes` are the last join's, what a
  // save writes.
  std::string votesPath;
  bool votesRead = false;
  uint64_t votesIdentity = 0;
  std::unordered_map<std::string, KeptClassVote> votes;
  std::vector<KeptClassVote> lastVotes;
  size_t votesInFile = 0;
  bool votesUnsaved = false;  // the file differs from lastVotes
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

// Makes `s.votes` those kept for the shared inputs `identity`: at the first join the file's,
// later the same unless the inputs changed.
void KeepVotesFor(State& s, uint64_t identity) {
  if (s.votesRead) {
    if (identity != s.votesIdentity) s.votes.clear();
    s.votesIdentity = identity;
    return;
  }
  s.votesRead = true;
  s.votesIdentity = identity;
  if (s.votesPath.empty()) return;  // no cache folder: the host says so
  CacheLog& log = ClassificationLog();
  try {
    KeptClassVotes file = ReadKeptClassVotes(s.votesPath, identity);
    if (file.source == KeptClassVotes::kOtherInputs) {
      log.Info("Kept class votes ", s.votesPath, " were worked out from other data; they are worked out again");
      s.votesUnsaved = true;
    }
    for (KeptClassVote& v : file.votes) s.votes.emplace(v.name, std::move(v));
    s.votesInFile = s.votes.size();
  } catch (const std::exception& e) {
    // Only time is lost: the votes are worked out again and the file written over.
    log.Info("Kept class votes ", s.votesPath, " unusable (", e.what(), "); they are worked out again");
    s.votesUnsaved = true;
  }
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
  const ClassHead* head = s.vote->Head();
  KeepVotesFor(s, VoteInputsIdentity(table, voters.data(), voting, kFeatureDim, head ? head->Identity() : 0));

  // Fonts without a vector keep the linear classes. Those whose linear classes and vector are as
  // kept take the kept mask; the others are voted on.
  records = features.Records();
  std::vector<std::string> all;
  for (const FeatureRecord& r : records) all.push_back(r.name);
  std::vector<KeptClassVote> joined;  // every font with a vector
  std::vector<std::string> names;
  std::vector<uint32_t> linear;
  std::vector<size_t> which, slot;  // their records and places in `joined`
  std::vector<float> theirs;
  // The vectors are read where the cache holds them: only those of fonts voted on are copied.
  similarity.VisitVectorsByName(all, [&](size_t i, const float* vector) {
    KeptClassVote vote{records[i].name, records[i].value, VectorHash(vector, kFeatureDim), 0};
    const auto kept = s.votes.find(vote.name);
    if (kept != s.votes.end() && kept->second.linear == vote.linear && kept->second.vector == vote.vector) {
      vote.joined = records[i].value = kept->second.joined;
    } else {
      names.push_back(records[i].name);
      linear.push_back(records[i].value);
      which.push_back(i);
      slot.push_back(joined.size());
      theirs.insert(theirs.end(), vector, vector + kFeatureDim);
    }
    joined.push_back(std::move(vote));
  });
  if (!names.empty()) {
    const std::vector<uint32_t> masks = s.vote->Masks(names, theirs.data(), linear, voters.data(), voting, kFeatureDim);
    for (size_t n = 0; n < names.size(); ++n) {
      records[which[n]].value = joined[slot[n]].joined = masks[n];
      s.votes[names[n]] = joined[slot[n]];
    }
  }
  ClassificationLog().Info("Class votes: ", joined.size() - names.size(), " kept, ", names.size(), " worked out");
  // Without a font voted on, the file still differs when it holds fonts this join did not ask for.
  if (!names.empty() || joined.size() != s.votesInFile) s.votesUnsaved = true;
  s.lastVotes = std::move(joined);
  return true;
}

// Gives the vote the class head when its data file has rules for one. Without the head's file,
// or with one that cannot be used, the classes are those of the rows and the vote: the user is
// told, since they differ from what the head would give.
void LoadHead(State& s) {
  if (!s.vote->Table().headRuled) {
    ClassificationLog().Info("Class head not used: ", s.path, " holds no rules for it");
    return;
  }
  try {
    if (s.headPath.empty()) throw ClassHeadError(std::string(kClassHeadFileName) + ": the host gave no data folder");
    s.vote->SetHead(std::make_unique<const ClassHead>(s.headPath, kFeatureDim));
    ClassificationLog().Info("Class head loaded from ", s.headPath);
  } catch (const std::exception& e) {
    ClassificationLog().Info("Class head not used: ", e.what());
    if (auto cache = FontFeatureCache::Instance())
      cache->Progress().Report(CacheProgress::kWarning, std::string("the class head's data ") + e.what() +
                                                            "; style classes come from the rows and the vote alone");
  }
}

}  // namespace

void ClassAnswers::SetUpPath() {
  ClassVoteEnabled();  // asked of the host here, on its main thread, and kept
  ClassHeadEnabled();
  const std::string folder = qv::FolderPath(kQVFolderPluginData, false);
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.path = FileInFolder(folder, kClassVoteFileName);
  s.headPath = FileInFolder(folder, kClassHeadFileName);
  s.votesPath = FileInFolder(qv::FolderPath(kQVFolderUserCache, true), kKeptClassVotesFileName);
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
    if (ClassHeadEnabled()) LoadHead(s);
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

void ClassAnswers::Save() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!s.votesUnsaved || s.votesPath.empty()) return;
  CacheLog& log = ClassificationLog();
  // Said through the classification service, while it is still there to say it.
  const std::shared_ptr<FontFeatureCache> cache = FontFeatureCache::Instance();
  try {
    CacheFolderLock folder(CacheFolderLock::FolderOf(s.votesPath), CacheFolderLock::kExclusive, CacheFolderWait(),
                           [&cache](const std::string& waiting) {
                             if (cache) cache->Progress().Waiting(waiting);
                           });
    if (!folder.Held()) throw std::runtime_error(folder.Error());
    WriteKeptClassVotes(s.votesPath, s.votesIdentity, s.lastVotes);
    s.votesInFile = s.lastVotes.size();
    s.votesUnsaved = false;
    log.Info("Kept class votes saved: ", s.lastVotes.size());
  } catch (const std::exception& e) {
    log.Info("Kept class votes not saved: ", e.what());
    if (cache)
      cache->Progress().Report(CacheProgress::kNotSaved, std::string("the fonts' class votes were not saved (") +
                                                             e.what() +
                                                             "); they are worked out again at the next start");
  }
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
  s.votesRead = false;
  s.votes.clear();
  s.lastVotes.clear();
  s.votesInFile = 0;
  s.votesUnsaved = false;
}

}  // namespace fontrix
