#include "plugin/fontrix.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <thread>

#include "classification/class_answers.h"
#include "classification/font_feature_cache.h"
#include "deepnet/parallel.h"
#include "hostglue/font_engine.h"
#include "plugin/exported_suites.h"
#include "plugin/tasks.h"
#include "recognition/font_recognition_cache.h"
#include "shell/cache_log.h"
#include "shell/cancellation.h"
#include "shell/feature_switches.h"
#include "shell/qv_error.h"
#include "similarity/font_similar_cache.h"

namespace fontrix {

namespace {

std::atomic<bool> initTasksQueued{false};

constexpr const char* kTimerName = "QV Fontrix Notifier Timer";

}  // namespace

Fontrix* Fontrix::Create(QVPluginRef pluginRef) {
  void* memory = qv::NewHostMemory(sizeof(Fontrix));
  if (!memory) return nullptr;
  try {
    return new (memory) Fontrix(pluginRef);
  } catch (...) {
    qv::DisposeHostMemory(memory);
    return nullptr;
  }
}

void Fontrix::Destroy(Fontrix* plugin) {
  if (!plugin) return;
  plugin->~Fontrix();
  qv::DisposeHostMemory(plugin);
}

Fontrix* Fontrix::Global() { return static_cast<Fontrix*>(qv::GlobalPlugin()); }

Fontrix::Fontrix(QVPluginRef pluginRef) : Plugin(pluginRef) {
  std::memset(name, 0, sizeof name);
  std::snprintf(name, sizeof name, "%s", "Fontrix");
}

Fontrix::~Fontrix() = default;

void Fontrix::ResetForTesting() {
  initTasksQueued.store(false);
  ResetFeatureSwitchesForTesting();
}

QVErr Fontrix::StartupPlugin(QVMessageData* message) {
  QVErr result = Plugin::StartupPlugin(message);
  if (result != kQVNoErr) return result;

  switch (hostglue::BindFontEngine()) {
    case hostglue::BindResult::kNoInterface:
      return kQVCantHappenErr;
    case hostglue::BindResult::kMissingProcedure:
      return 1;  // a plain number, not a four-character code: the host treats any non-zero as failure
    case hostglue::BindResult::kBound:
      break;
  }

  // The networks split each batch of crops over the cores (up to four): imaging a font for
  // similarity is five crops a case. A query that finds the engine's workers busy with an update
  // runs its own crops alone rather than wait, so the two never block each other.
  deepnet::deepnet_set_num_threads(int(std::clamp(std::thread::hardware_concurrency(), 1u, 4u)));

  const QVNotifierSuite* notifier = qv::Suites().notifier;
  if (!notifier) return kQVCantHappenErr;
  QVNotifierHandle ignored = nullptr;
  qv::Check(notifier->AddNotifier(pluginRef, name, kQVApplicationShutdownNotifier, &ignored));
  qv::Check(notifier->AddNotifier(pluginRef, name, kQVFontListChangedNotifier, &ignored));

  if (!featureSuiteTable || !similarSuiteTable || !recognitionSuiteTable) return kQVCantHappenErr;
  const auto* registry = static_cast<const QVSuitesSuite*>(qv::AcquireSuite(kQVSuitesSuite, kQVSuitesSuiteVersion));
  QVSuiteRef ref = nullptr;
  qv::Check(registry->AddSuite(pluginRef, kFontrixFeatureSuite, 1, 1, featureSuiteTable, &ref));
  qv::Check(registry->AddSuite(pluginRef, kFontrixSimilarSuite, 1, 1, similarSuiteTable, &ref));
  qv::Check(registry->AddSuite(pluginRef, kFontrixRecognitionSuite, 1, 1, recognitionSuiteTable, &ref));
  qv::Check(
      registry->AddSuite(pluginRef, kFontrixProgressSuite, kFontrixProgressSuiteVersion, 1, &ProgressSuite(), &ref));
  qv::Check(registry->AddSuite(pluginRef, kFontrixTableSuite, kFontrixTableSuiteVersion, 1, &TableSuite(), &ref));
  // Version 2 begins as version 1 does: callers of either get the one table.
  for (int32_t version : {1, kFontrixTextSuiteVersion})
    qv::Check(registry->AddSuite(pluginRef, kFontrixTextSuite, version, 1, &TextSuite(), &ref));
  qv::Check(registry->AddSuite(pluginRef, kFontrixKnownFontsSuite, kFontrixKnownFontsSuiteVersion, 1,
                               &KnownFontsSuite(), &ref));

  if (const QVTimerSuite* timer = qv::Suites().timer) {
    qv::Check(timer->AddTimer(pluginRef, kTimerName, 0, &notifierTimer));
    timer->SetTimerActive(notifierTimer, 0);
  }
  return LockPlugin(true);
}

QVErr Fontrix::PostStartupPlugin() {
  // The caches load on their own threads while the host's font list is asked for: a host may
  // still be listing its fonts.
  QueueInitTasks();
  if (fontList.empty()) FontListChanged();
  return kQVNoErr;
}

QVErr Fontrix::ShutdownPlugin(QVMessageData* message) {
  EmptySuiteTables();
  return Plugin::ShutdownPlugin(message);
}

QVErr Fontrix::UnloadPlugin(QVMessageData* message) { return Plugin::UnloadPlugin(message); }
QVErr Fontrix::ReloadPlugin(QVMessageData* message) { return Plugin::ReloadPlugin(message); }

void Fontrix::ReinitialiseInPlace() {
  scheduler.~SimpleTaskScheduler();
  new (&scheduler) SimpleTaskScheduler();
  std::lock_guard<std::mutex> lock(pendingMutex);
  pendingNotifications.~concurrent_vector();
  new (&pendingNotifications) tbb::concurrent_vector<std::string>();
}

void Fontrix::SetGlobal(qv::Plugin* plugin) {
  Plugin::SetGlobal(plugin);
  // After a reload the tables must point at the current code. Clearing the pointer (shut-down,
  // unload) leaves tables emptied just before as they are.
  if (!plugin) return;
  if (similarSuiteTable)
    static_cast<FontrixSimilarSuite*>(similarSuiteTable)->GetSimilarFontNames = FontrixGetSimilarFontNames;
  if (featureSuiteTable)
    static_cast<FontrixFeatureSuite*>(featureSuiteTable)->GetFontsWithLabel = FontrixGetFontsWithLabel;
  if (recognitionSuiteTable)
    static_cast<FontrixRecognitionSuite*>(recognitionSuiteTable)->GetRecognizedFonts = FontrixGetRecognizedFonts;
}

QVErr Fontrix::AllocateSuiteTables() {
  const auto* blocks = static_cast<const QVBlocksSuite*>(qv::AcquireSuite(kQVBlocksSuite, kQVBlocksSuiteVersion));
  const std::pair<const char*, void**> tables[] = {{kFontrixFeatureSuite, &featureSuiteTable},
                                                   {kFontrixSimilarSuite, &similarSuiteTable},
                                                   {kFontrixRecognitionSuite, &recognitionSuiteTable}};
  QVErr result = kQVNoErr;
  for (const auto& [suite_name, table] : tables) {
    result = blocks->AllocateBlock(sizeof(void*), suite_name, table);
    if (result != kQVNoErr) break;
  }
  qv::ReleaseSuite(kQVBlocksSuite, kQVBlocksSuiteVersion);
  return result;
}

QVErr Fontrix::FillSuiteTables() {
  if (!featureSuiteTable || !similarSuiteTable || !recognitionSuiteTable) return kQVCantHappenErr;
  static_cast<FontrixFeatureSuite*>(featureSuiteTable)->GetFontsWithLabel = FontrixGetFontsWithLabel;
  static_cast<FontrixSimilarSuite*>(similarSuiteTable)->GetSimilarFontNames = FontrixGetSimilarFontNames;
  static_cast<FontrixRecognitionSuite*>(recognitionSuiteTable)->GetRecognizedFonts = FontrixGetRecognizedFonts;
  return kQVNoErr;
}

QVErr Fontrix::EmptySuiteTables() {
  if (featureSuiteTable) static_cast<FontrixFeatureSuite*>(featureSuiteTable)->GetFontsWithLabel = nullptr;
  if (similarSuiteTable) static_cast<FontrixSimilarSuite*>(similarSuiteTable)->GetSimilarFontNames = nullptr;
  if (recognitionSuiteTable) static_cast<FontrixRecognitionSuite*>(recognitionSuiteTable)->GetRecognizedFonts = nullptr;
  return kQVNoErr;
}

QVErr Fontrix::ReleaseSuiteTables() {
  // After shut-down the host forgets the suites the module registered, so no plug-in can
  // acquire the tables again: their blocks go back to the host.
  const auto* blocks = static_cast<const QVBlocksSuite*>(qv::TryAcquireSuite(kQVBlocksSuite, kQVBlocksSuiteVersion));
  if (!blocks) return kQVNoErr;
  for (void** table : {&featureSuiteTable, &similarSuiteTable, &recognitionSuiteTable}) {
    blocks->FreeBlock(*table);
    *table = nullptr;
  }
  qv::ReleaseSuite(kQVBlocksSuite, kQVBlocksSuiteVersion);
  return kQVNoErr;
}

QVErr Fontrix::Notify(QVNotifierMessage* message) {
  const char* type = message->type ? message->type : "";
  if (std::strcmp(type, kQVApplicationShutdownNotifier) == 0) {
    const QVTimerSuite* timer = qv::Suites().timer;
    if (timer && notifierTimer) timer->SetTimerActive(notifierTimer, 0);
    shuttingDown.store(1);
    RequestCancel(true);
    scheduler.StopAll();
    RequestCancel(false);
    ClassAnswers::Save();
    FontFeatureCache::Terminate();
    ClassAnswers::Terminate();
    FontSimilarCache::Terminate();
    FontRecognitionCache::Terminate();
    hostglue::ReleaseFontEngine();
    return Plugin::Notify(message);
  }
  if (std::strcmp(type, kQVFontListChangedNotifier) == 0) {
    FontListChanged();
    return kQVNoErr;
  }
  return Plugin::Notify(message);
}

void Fontrix::FontListChanged() {
  RefreshFontList();
  // Once the application is shutting down the caches are gone; a late font change is ignored.
  if (shuttingDown.load()) return;
  QueueInitTasks();
  QueueUpdateTasks();
}

void Fontrix::RefreshFontList() {
  fontList.clear();
  const QVFontSuite* fonts = qv::Suites().fonts;
  const QVFontGlueSuite* glue = qv::Suites().fontGlue;
  int32_t count = 0;
  if (fonts && fonts->CountFonts(&count) == kQVNoErr && count > 0) {
    fontList.reserve(size_t(count));
    for (int32_t i = 0; i < count; ++i) {
      QVFontHandle font = nullptr;
      if (fonts->IndexFontList(i, &font) != kQVNoErr) continue;
      // Qualifies when the three yes/no questions are answered "no" and the kind is not a
      // bitmap strike; the first failure disqualifies.
      QVBool answer = 1;
      int32_t kind = kQVFontKindBitmapStrike;
      if (!glue || glue->IsBitmapOnly(font, &answer) != kQVNoErr || answer) continue;
      if (glue->IsSymbolFont(font, &answer) != kQVNoErr || answer) continue;
      if (glue->IsDuplicateName(font, &answer) != kQVNoErr || answer) continue;
      if (glue->GetFontKind(font, &kind) != kQVNoErr || kind == kQVFontKindBitmapStrike) continue;
      fontList.push_back(font);
    }
  }
  ++fontListGeneration;
}

void Fontrix::QueueInitTasks() {
  if (initTasksQueued.load()) return;
  ResolveCacheLogs();
  if (ClassificationEnabled()) scheduler.Enqueue(new FontFeatureCacheInitTask());
  if (SimilarityEnabled()) scheduler.Enqueue(new FontSimilarCacheInitTask());
  if (RecognitionEnabled()) scheduler.Enqueue(new FontRecognitionCacheInitTask());
  initTasksQueued.store(true);
}

void Fontrix::QueueUpdateTasks() {
  if (ClassificationEnabled()) scheduler.Enqueue(new FontFeatureCacheUpdateTask(fontList, fontListGeneration));
  if (SimilarityEnabled()) scheduler.Enqueue(new FontSimilarCacheUpdateTask(fontList, fontListGeneration));
  if (RecognitionEnabled()) scheduler.Enqueue(new FontRecognitionCacheUpdateTask(fontList, fontListGeneration));
}

void Fontrix::PostNotification(const std::string& type) {
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    for (const auto& queued : pendingNotifications)
      if (queued == type) return;
    pendingNotifications.push_back(type);
  }
  const QVTimerSuite* timer = qv::Suites().timer;
  if (timer && notifierTimer) timer->SetTimerActive(notifierTimer, 1);
}

QVErr Fontrix::GoTimer(QVTimerMessage* message) {
  if (!notifierTimer || message->timer != notifierTimer) return kQVNoErr;
  std::vector<std::string> names;
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    names.assign(pendingNotifications.begin(), pendingNotifications.end());
    pendingNotifications.clear();
  }
  if (const QVNotifierSuite* notifier = qv::Suites().notifier)
    for (const auto& type : names) notifier->Notify(type.c_str(), nullptr);
  if (const QVTimerSuite* timer = qv::Suites().timer) timer->SetTimerActive(notifierTimer, 0);
  return kQVNoErr;
}

}  // namespace fontrix
