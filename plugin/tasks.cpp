#include "plugin/tasks.h"

#include <atomic>

#include "classification/class_answers.h"
#include "classification/font_feature_cache.h"
#include "plugin/fontrix.h"
#include "recognition/font_recognition_cache.h"
#include "shell/cache_log.h"
#include "shell/host_suites.h"
#include "similarity/font_similar_cache.h"

namespace fontrix {

namespace {

std::atomic<int> busy[kFontrixServiceCount];

}  // namespace

void ServiceActivity::Begin(int service) { busy[service].fetch_add(1); }
void ServiceActivity::End(int service) { busy[service].fetch_sub(1); }
bool ServiceActivity::Idle(int service) { return busy[service].load() == 0; }

ServiceTask::~ServiceTask() {
  if (!ended_) ServiceActivity::End(service_);
}

void ServiceTask::Run() {
  Work();
  ended_ = true;
  ServiceActivity::End(service_);
}

void ResolveCacheLogs() {
  const std::string folder = qv::FolderPath(kQVFolderUserCache, true);
  for (CacheLog* log : {&ClassificationLog(), &SimilarityLog(), &RecognitionLog()}) {
    log->ReadLogSwitch();
    if (!folder.empty()) log->SetFolder(folder);
  }
}

FontFeatureCacheInitTask::FontFeatureCacheInitTask() : ServiceTask(kFontrixServiceClassification) {
  FontFeatureCache::SetUpPaths();
  ClassAnswers::SetUpPath();
}

void FontFeatureCacheInitTask::Work() {
  FontFeatureCache::Init();
  ClassAnswers::Load();
}

FontSimilarCacheInitTask::FontSimilarCacheInitTask() : ServiceTask(kFontrixServiceSimilarity) {
  SimilarityLog().ReadLogSwitch();
  ResolveSimilarityPaths();
}

void FontSimilarCacheInitTask::Work() { FontSimilarCache::Init(); }

FontRecognitionCacheInitTask::FontRecognitionCacheInitTask() : ServiceTask(kFontrixServiceRecognition) {
  ResolveRecognitionPaths();
}

void FontRecognitionCacheInitTask::Work() { FontRecognitionCache::Init(); }

// An update whose cache cannot be had does nothing; a change is announced to the host.
void FontFeatureCacheUpdateTask::Work() {
  try {
    auto cache = FontFeatureCache::GetOrCreate();
    if (cache && cache->Update(fontList, generation))
      if (Fontrix* plugin = Fontrix::Global()) plugin->PostNotification("Font Feature List Updated Notifier");
  } catch (...) {
    ClassificationLog().Exception(CacheLog::kInfo, "Exception while Feature Cache Update");
  }
}

// What an update computed is saved at once rather than only at shut-down: a process that is
// killed keeps it, other processes on the folder see it, and a save that fails is said while
// the host still listens.
void FontSimilarCacheUpdateTask::Work() {
  try {
    auto cache = FontSimilarCache::GetOrCreate();
    if (cache && cache->Update(fontList, generation)) {
      cache->SaveCache();
      if (Fontrix* plugin = Fontrix::Global()) plugin->PostNotification("Fonts Similar List Updated Notifier");
    }
  } catch (...) {
    SimilarityLog().Exception(CacheLog::kInfo, "Similar Cache Update throws exception");
  }
}

void FontRecognitionCacheUpdateTask::Work() {
  try {
    if (auto cache = FontRecognitionCache::GetOrCreate()) cache->Update(fontList, generation);
  } catch (...) {
    RecognitionLog().Exception(CacheLog::kInfo, "Recognition Cache Update throws exception");
  }
}

}  // namespace fontrix
