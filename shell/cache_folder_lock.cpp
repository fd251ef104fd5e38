#include "shell/cache_folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace fontrix {

CacheFolderLock::CacheFolderLock(const std::string& folder, Mode mode, double timeout_seconds) {
  const std::string path = (folder.empty() ? std::string(".") : folder) + "/fontrix.lock";
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  // A read-only folder can still be read safely by everyone: a shared lock on the file as it is,
  // or no lock at all when even that is missing (then no process can be writing there).
  if (fd < 0 && mode == kShared) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error_ = "cannot open the lock file " + path + ": " + std::strerror(errno);
    return;
  }
  const int operation = (mode == kExclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_seconds);
  // Polled rather than blocking, so a process that never lets go cannot stall this one forever.
  while (::flock(fd, operation) != 0) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) {
      error_ = errno == EWOULDBLOCK
                   ? "another process has held " + path + " for " + std::to_string(int(timeout_seconds)) + " s"
                   : "cannot lock " + path + ": " + std::strerror(errno);
      ::close(fd);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  fd_ = fd;
}

CacheFolderLock::~CacheFolderLock() {
  if (fd_ >= 0) ::close(fd_);  // closing the descriptor releases the lock
}

std::string CacheFolderLock::FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace fontrix
