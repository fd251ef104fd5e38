#pragma once
// The module's plug-in class: start-up, notifiers, the notifier timer, the font list, the
// background tasks and the three exported font suites.
#include <tbb/concurrent_vector.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "plugin/plugin.h"
#include "plugin/task_scheduler.h"

namespace fontrix {

class Fontrix : public qv::Plugin {
 public:
  /// Allocates from host memory and constructs; null when memory is exhausted.
  static Fontrix* Create(QVPluginRef pluginRef);
  static void Destroy(Fontrix* plugin);
  /// The live plug-in object, or null.
  static Fontrix* Global();

  explicit Fontrix(QVPluginRef pluginRef);
  ~Fontrix() override;

  QVErr StartupPlugin(QVMessageData* message) override;
  QVErr PostStartupPlugin() override;
  QVErr ShutdownPlugin(QVMessageData* message) override;
  QVErr UnloadPlugin(QVMessageData* message) override;
  QVErr ReloadPlugin(QVMessageData* message) override;
  void SetGlobal(qv::Plugin* plugin) override;
  QVErr AllocateSuiteTables() override;
  QVErr FillSuiteTables() override;
  QVErr EmptySuiteTables() override;
  QVErr ReleaseSuiteTables() override;
  QVErr Notify(QVNotifierMessage* message) override;
  QVErr GoTimer(QVTimerMessage* message) override;
  void ReinitialiseInPlace() override;

  /// Any thread: queues a notifier type name to be sent on the main thread by the timer; a
  /// name already queued is not queued twice.
  void PostNotification(const std::string& type);

  /// Rebuilds the font list from the host's qualifying fonts and counts up its generation.
  void RefreshFontList();
  /// Queues the three caches' initialisation tasks, once per process, for the services on.
  void QueueInitTasks();
  /// Queues an update task with the current font list for every service that is on.
  void QueueUpdateTasks();

  const std::vector<QVFontHandle>& FontList() const { return fontList; }
  uint32_t FontListGeneration() const { return fontListGeneration; }
  size_t ScheduledTasks() const { return scheduler.Size(); }
  bool ShuttingDown() const { return shuttingDown.load() != 0; }

  /// Lets a test start the module again in the same process: the init tasks may be queued anew.
  static void ResetForTesting();

  static void* operator new(size_t, void* place) { return place; }

 private:
  void FontListChanged();

  void* similarSuiteTable = nullptr;
  void* featureSuiteTable = nullptr;
  void* recognitionSuiteTable = nullptr;
  SimpleTaskScheduler scheduler;
  std::vector<QVFontHandle> fontList;
  QVTimerHandle notifierTimer = nullptr;
  tbb::concurrent_vector<std::string> pendingNotifications;
  // Serialises a post (scan, then append) against another post and against the drain.
  std::mutex pendingMutex;
  std::atomic<int32_t> shuttingDown{0};
  uint32_t fontListGeneration = 0;
};

}  // namespace fontrix
