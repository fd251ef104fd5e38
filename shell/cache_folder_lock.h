#pragma once
// An advisory lock on a cache folder, shared by every process that uses the folder (two
// `fontrix index`, an application and the tool): shared while a cache file is read, exclusive
// while one is written, so no process reads half of another's save and no two saves interleave.
#include <string>

namespace fontrix {

class CacheFolderLock {
 public:
  enum Mode { kShared, kExclusive };
  /// Locks "fontrix.lock" in `folder` (created when missing), waiting for other processes up to
  /// `timeout_seconds`. Never throws: Held() says whether the lock was had, Error() why not.
  CacheFolderLock(const std::string& folder, Mode mode, double timeout_seconds = 60);
  ~CacheFolderLock();
  CacheFolderLock(const CacheFolderLock&) = delete;
  CacheFolderLock& operator=(const CacheFolderLock&) = delete;

  bool Held() const { return fd_ >= 0; }
  const std::string& Error() const { return error_; }

  /// The folder of a file path ("" for a bare name).
  static std::string FolderOf(const std::string& path);

 private:
  int fd_ = -1;
  std::string error_;
};

}  // namespace fontrix
