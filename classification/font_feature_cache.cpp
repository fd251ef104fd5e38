#include "classification/font_feature_cache.h"

#include <algorithm>
#include <mutex>

#include "classification/attribute_scoring.h"
#include "classification/font_features.h"
#include "classification/labels.h"
#include "shell/cache_folder_lock.h"
#include "shell/cache_log.h"
#include "shell/cancellation.h"
#include "shell/host_suites.h"

namespace fontrix {

namespace {

std::mutex paths_mutex;
std::string lookup_path, cache_path, debug_path;
std::mutex classifier_mutex;
FontFeatureCache::Classifier classifier;

int64_t MeasureAndScore(hostglue::FontAccess& fonts, QVFontHandle font) {
  FeatureVector features{};
  return ComputeFontFeatures(fonts, font, features) ? int64_t(ClassMask(features)) : -1;
}

int64_t Classify(hostglue::FontAccess& fonts, QVFontHandle font) {
  FontFeatureCache::Classifier c;
  {
    std::lock_guard<std::mutex> lock(classifier_mutex);
    c = classifier;
  }
  return c ? c(fonts, font) : MeasureAndScore(fonts, font);
}

}  // namespace

void FontFeatureCache::SetClassifier(Classifier c) {
  std::lock_guard<std::mutex> lock(classifier_mutex);
  classifier = std::move(c);
}

void FontFeatureCache::SetUpPaths() { SetCacheFolder(qv::FolderPath(kQVFolderUserCache, true)); }

void FontFeatureCache::SetCacheFolder(const std::string& folder) {
  std::lock_guard<std::mutex> lock(paths_mutex);
  if (folder.empty()) return;
  lookup_path = FileInFolder(folder, kFamilyLabelsFileName);
  cache_path = FileInFolder(folder, kFeatureCacheFileName);
  debug_path = FileInFolder(folder, kFeatureLogFileName);
  ClassificationLog().SetFolder(folder);
  CacheLog& log = ClassificationLog();
  log.Info("Look-Up File Path : ", lookup_path);
  log.Info("Cache File Path : ", cache_path);
  log.Info("Debug Info File Path : ", debug_path);
}

std::string FontFeatureCache::CacheFilePath() {
  std::lock_guard<std::mutex> lock(paths_mutex);
  return cache_path;
}

void FontFeatureCache::Terminate() {
  ClassificationLog().Info("Feature Cache Terminating");
  ServiceCache::Terminate();
}

void FontFeatureCache::Init() {
  CacheLog& log = ClassificationLog();
  log.Info("Feature Cache Initialization Start");
  try {
    // The init and update tasks run at once. An update that won the race has loaded the file
    // and may have added records since: loading again would drop them.
    auto cache = GetOrCreate();
    std::lock_guard<std::mutex> update(UpdateMutex());
    const bool ok = cache->Loaded() || cache->Load();
    log.Info(ok ? "Feature Cache Initialization successful" : "Feature Cache Initialization failed");
  } catch (...) {
    log.Exception(CacheLog::kInfo, "Exception while Feature Cache Initialization");
  }
}

bool FontFeatureCache::Load() {
  CacheLog& log = ClassificationLog();
  log.Info("Loading Cache Data Starts: time : ", HostTime());
  bool ok = true;
  {
    // Another process may be saving into the same folder: read only what it has finished.
    // The file is replaced whole by a rename, so reading it without the lock is safe too.
    CacheFolderLock folder(CacheFolderLock::FolderOf(CacheFilePath()), CacheFolderLock::kShared, progress_);
    std::unique_lock<std::shared_mutex> lock(lock_);
    std::vector<FeatureRecord> read;
    std::string damage;
    try {
      if (!LoadFeatureCache(CacheFilePath(), read)) damage = "it is not JSON";
    } catch (const FeatureCacheParameterError& e) {
      damage = e.what();
    }
    // Looked up by binary search: a file written in another order (by hand, another tool) is
    // sorted here, or every font would be missed and measured again.
    std::sort(read.begin(), read.end());
    records_ = damage.empty() ? std::move(read) : std::vector<FeatureRecord>();
    ++changes_;
    if (!damage.empty()) {
      // A damaged cache is dropped: the next update measures every font again and saves over it.
      log.Info("Exception while Feature Cache Initialization: ", damage);
      progress_.Report(CacheProgress::kWarning,
                       "the feature cache " + CacheFilePath() + " was damaged (" + damage + "); it is made again");
      ok = false;
    }
    log.Info("Loaded Cache of size : ", records_.size());
  }
  log.Info("Loading Cache Data Ends: time ", HostTime());
  loaded_.store(true);
  return ok;
}

bool FontFeatureCache::Update(const std::vector<QVFontHandle>& fonts, uint32_t currentId) {
  CacheLog& log = ClassificationLog();
  log.Info("Update : Cache Font Server ID - ", fontServerId_.load());
  log.Info(" Current Font Server ID - ", currentId);
  if (!Fonts().Available() || currentId < fontServerId_.load() || fonts.empty()) return false;
  std::lock_guard<std::mutex> update(UpdateMutex());
  log.Info("Update Starts");
  if (!loaded_.load()) Load();  // the init task may not have run yet
  hostglue::FontAccess& access = Fonts().Get();
  progress_.Start(uint32_t(fonts.size()));

  std::vector<QVFontHandle> unmatched;
  std::vector<std::string> names;
  if (!CancelRequested()) {
    std::shared_lock<std::shared_mutex> lock(lock_);
    for (QVFontHandle f : fonts) {
      hostglue::FontNames n;
      if (!f || !access.Names(f, n)) continue;
      const auto it = std::lower_bound(records_.begin(), records_.end(), FeatureRecord{n.uniqueName, 0});
      if (it == records_.end() || it->name != n.uniqueName) {
        unmatched.push_back(f);
        names.push_back(n.uniqueName);
      }
    }
  }
  log.Info("Update: Total Font Size :", fonts.size(), " ", "Unmatched font List size : ", unmatched.size());
  // Fonts measured by earlier updates of this run match now, but were not in the file.
  const size_t matched = fonts.size() - unmatched.size();
  progress_.matched.store(uint32_t(matched - std::min(matched, storedThisRun_)));
  progress_.done.store(uint32_t(matched));

  // The costly measuring runs without the cache lock, so the suite stays answerable.
  std::vector<FeatureRecord> added;
  log.Info("Update : Processing Starts at time : ", HostTime());
  for (size_t i = 0; i < unmatched.size() && !CancelRequested(); ++i) {
    try {
      log.Info("Processing Font : Name - ", names[i]);
      const int64_t measured = Classify(access, unmatched[i]);
      const uint32_t mask = measured < 0 ? 0 : uint32_t(measured);  // unmeasurable: no class
      added.push_back({names[i], mask});
      (measured < 0 ? progress_.unusable : progress_.computed)++;
      log.Info("Font Attribute Value - ", mask);
    } catch (...) {
      log.Exception(CacheLog::kDetail, "Processing Font throws");
    }
    progress_.done++;
  }
  log.Info("Update : Processing End at time : ", HostTime());
  log.Info("Update : Processing Ends with feature List of Size : ", added.size());
  {
    std::unique_lock<std::shared_mutex> lock(lock_);
    records_.insert(records_.end(), added.begin(), added.end());
    std::sort(records_.begin(), records_.end());
    storedThisRun_ += added.size();
    if (!added.empty()) ++changes_;
  }
  fontServerId_.store(currentId);
  if (!added.empty()) Save();
  log.Info("Update Ends");
  return !added.empty();
}

void FontFeatureCache::Save() {
  if (CacheFilePath().empty()) return;  // no cache folder: the host says so
  CacheLog& log = ClassificationLog();
  log.Info("Cache Saving Start : time :", HostTime());
  log.Info("Writing Feature Cache Info Starts");
  try {
    CacheFolderLock folder(CacheFolderLock::FolderOf(CacheFilePath()), CacheFolderLock::kExclusive, progress_);
    if (!folder.Held()) throw std::runtime_error(folder.Error());
    std::shared_lock<std::shared_mutex> lock(lock_);
    SaveFeatureCache(CacheFilePath(), records_);
    log.Info("Writing Feature Cache Info Ends");
  } catch (const std::exception& e) {
    log.Info("Exception while Writing Feature Cache: ", e.what());
    progress_.Report(CacheProgress::kNotSaved, std::string("the feature cache was not saved: ") + e.what() +
                                                   "; fonts are measured again at every start");
  }
  log.Info("Cache Saving Ends : time :", HostTime());
}

std::vector<std::string> FontFeatureCache::GetFontsWithLabel(int32_t labelIndex) {
  std::vector<std::string> names;
  if (labelIndex < 0 || labelIndex >= kStyleClassCount) return names;
  const uint32_t bit = kClassBits[labelIndex].bit;
  std::shared_lock<std::shared_mutex> lock(lock_);
  for (const FeatureRecord& r : records_)
    if (r.value & bit) names.push_back(r.name);
  return names;
}

int64_t FontFeatureCache::Mask(const std::string& name) {
  std::shared_lock<std::shared_mutex> lock(lock_);
  const auto it = std::lower_bound(records_.begin(), records_.end(), FeatureRecord{name, 0});
  return it != records_.end() && it->name == name ? int64_t(it->value) : -1;
}

std::vector<FeatureRecord> FontFeatureCache::Records() {
  std::shared_lock<std::shared_mutex> lock(lock_);
  return records_;
}

}  // namespace fontrix
