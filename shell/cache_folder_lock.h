#pragma once
// An advisory lock on a cache folder, shared by every process that uses the folder (two
// `fontrix index`, an application and the tool): shared while a cache file is read, exclusive
// while one is written, so no process reads half of another's save and no two saves interleave.
// A process that did not get the lock may read only what is consistent; it never writes.
#include <functional>
#include <string>

#include "shell/cache_progress.h"

namespace fontrix {

/// Seconds a service waits for another process's hold on its cache folder before it reads
/// without the lock (or leaves its save undone): 60 unless set (tests set less).
double CacheFolderWait();
void SetCacheFolderWait(double seconds);

class CacheFolderLock {
 public:
  enum Mode { kShared, kExclusive };
  /// Told once when a wait has lasted long enough for a user to wonder ("waiting for another
  /// fontrix (pid N) …"), and again with "" when it ends, whether the lock was had or not.
  using WaitNotice = std::function<void(const std::string&)>;
  /// Locks "fontrix.lock" in `folder` (created when missing), waiting for other processes up to
  /// `timeout_seconds`. Never throws: Held() says whether the lock was had, Error() why not.
  /// An empty folder (no cache folder could be made) is never locked: nothing may be written.
  CacheFolderLock(const std::string& folder, Mode mode, double timeout_seconds = CacheFolderWait(),
                  const WaitNotice& notice = {});
  /// A service's lock: waits CacheFolderWait() and says a long wait through its `progress`.
  CacheFolderLock(const std::string& folder, Mode mode, CacheProgress& progress)
      : CacheFolderLock(folder, mode, CacheFolderWait(),
                        [&progress](const std::string& waiting) { progress.Waiting(waiting); }) {}
  ~CacheFolderLock();
  CacheFolderLock(const CacheFolderLock&) = delete;
  CacheFolderLock& operator=(const CacheFolderLock&) = delete;

  bool Held() const { return fd_ >= 0; }
  const std::string& Error() const { return error_; }

  /// The folder of a file path ("" for a bare name).
  static std::string FolderOf(const std::string& path);
  /// The sentence a waiting process shows: the writer's pid when an exclusive holder wrote it
  /// into the lock file and it still runs.
  static std::string WaitingSentence(const std::string& folder);

 private:
  int fd_ = -1;
  bool exclusive_ = false;
  std::string error_;
};

}  // namespace fontrix
