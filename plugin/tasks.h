#pragma once
// The six background tasks: load each cache, and bring each cache up to date with a font list.
#include <cstdint>
#include <vector>

#include "plugin/task_scheduler.h"
#include "sdk/fontrix_suites.h"

namespace fontrix {

/// Counts, per service, the tasks queued whose work has not ended; a service with none is idle.
class ServiceActivity {
 public:
  static void Begin(int service);
  static void End(int service);
  static bool Idle(int service);
};

/// Common part of the tasks: the service they work for, counted busy from construction until
/// their work ends (or, for a task that never ran, until it is destroyed).
class ServiceTask : public ITask {
 public:
  explicit ServiceTask(int service) : service_(service) { ServiceActivity::Begin(service); }
  ~ServiceTask() override;
  void Run() final;

 protected:
  virtual void Work() = 0;

 private:
  int service_;
  bool ended_ = false;
};

class FontFeatureCacheInitTask : public ServiceTask {
 public:
  FontFeatureCacheInitTask();

 protected:
  void Work() override;
};

class FontSimilarCacheInitTask : public ServiceTask {
 public:
  /// Reads the debug-log switch and resolves the cache's paths: both need the main thread.
  FontSimilarCacheInitTask();

 protected:
  void Work() override;
};

class FontRecognitionCacheInitTask : public ServiceTask {
 public:
  FontRecognitionCacheInitTask();

 protected:
  void Work() override;
};

/// An update task carries its own copy of the font list and the list's generation.
class UpdateTask : public ServiceTask {
 public:
  UpdateTask(int service, std::vector<QVFontHandle> fonts, uint32_t generation)
      : ServiceTask(service), fontList(std::move(fonts)), generation(generation) {}

 protected:
  std::vector<QVFontHandle> fontList;
  uint32_t generation;
};

class FontFeatureCacheUpdateTask : public UpdateTask {
 public:
  FontFeatureCacheUpdateTask(std::vector<QVFontHandle> fonts, uint32_t generation)
      : UpdateTask(kFontrixServiceClassification, std::move(fonts), generation) {}

 protected:
  void Work() override;
};

class FontSimilarCacheUpdateTask : public UpdateTask {
 public:
  FontSimilarCacheUpdateTask(std::vector<QVFontHandle> fonts, uint32_t generation)
      : UpdateTask(kFontrixServiceSimilarity, std::move(fonts), generation) {}

 protected:
  void Work() override;
};

class FontRecognitionCacheUpdateTask : public UpdateTask {
 public:
  FontRecognitionCacheUpdateTask(std::vector<QVFontHandle> fonts, uint32_t generation)
      : UpdateTask(kFontrixServiceRecognition, std::move(fonts), generation) {}

 protected:
  void Work() override;
};

/// Resolves the log files of the three caches into the host's writable folder and reads the
/// debug switch for them. Main thread.
void ResolveCacheLogs();

}  // namespace fontrix
