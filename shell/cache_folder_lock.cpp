#include "shell/cache_folder_lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace fontrix {

namespace {

std::string LockPath(const std::string& folder) { return folder + "/fontrix.lock"; }

// A wait shorter than this is not worth a word: saves take a few milliseconds.
constexpr double kSecondsBeforeNotice = 0.5;

std::atomic<double> folder_wait{60};

}  // namespace

double CacheFolderWait() { return folder_wait.load(); }
void SetCacheFolderWait(double seconds) { folder_wait.store(seconds); }

CacheFolderLock::CacheFolderLock(const std::string& folder, Mode mode, double timeout_seconds,
                                 const WaitNotice& notice) {
  if (folder.empty()) {
    error_ = "there is no cache folder";
    return;
  }
  const std::string path = LockPath(folder);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  // A read-only folder can still be read safely by everyone: a shared lock on the file as it is,
  // or no lock at all when even that is missing (then no process can be writing there).
  if (fd < 0 && mode == kShared) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error_ = "cannot open the lock file " + path + ": " + std::strerror(errno);
    return;
  }
  const int operation = (mode == kExclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + std::chrono::duration<double>(timeout_seconds);
  bool noticed = false;
  // Polled rather than blocking, so a process that never lets go cannot stall this one forever.
  while (::flock(fd, operation) != 0) {
    const int cause = errno;
    const auto now = std::chrono::steady_clock::now();
    if ((cause != EWOULDBLOCK && cause != EINTR) || now >= deadline) {
      error_ = cause == EWOULDBLOCK
                   ? "another process has held " + path + " for " + std::to_string(int(timeout_seconds)) + " s"
                   : "cannot lock " + path + ": " + std::strerror(cause);
      ::close(fd);
      if (noticed) notice("");
      return;
    }
    if (!noticed && notice && now - start >= std::chrono::duration<double>(kSecondsBeforeNotice)) {
      notice(WaitingSentence(folder));
      noticed = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (noticed) notice("");
  fd_ = fd;
  exclusive_ = mode == kExclusive;
  // The writer names itself, so that a process kept waiting can say whom it waits for.
  if (exclusive_) {
    const std::string pid = std::to_string(::getpid()) + "\n";
    // A lock file that cannot hold the pid still locks.
    const bool named = ::ftruncate(fd_, 0) == 0 && ::pwrite(fd_, pid.data(), pid.size(), 0) == ssize_t(pid.size());
    (void)named;
  }
}

CacheFolderLock::~CacheFolderLock() {
  if (fd_ < 0) return;
  // A pid left behind would name a process that no longer holds the lock.
  const bool cleared = exclusive_ && ::ftruncate(fd_, 0) == 0;
  (void)cleared;
  ::close(fd_);  // closing the descriptor releases the lock
}

std::string CacheFolderLock::FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string CacheFolderLock::WaitingSentence(const std::string& folder) {
  const std::string path = LockPath(folder);
  std::string whom = "another fontrix";
  if (const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC); fd >= 0) {
    char text[32] = {0};
    const ssize_t got = ::pread(fd, text, sizeof text - 1, 0);
    ::close(fd);
    const long pid = got > 0 ? std::strtol(text, nullptr, 10) : 0;
    if (pid > 0 && pid != ::getpid() && (::kill(pid_t(pid), 0) == 0 || errno == EPERM))
      whom += " (pid " + std::to_string(pid) + ")";
  }
  return "waiting for " + whom + " to finish with the cache folder " + folder;
}

}  // namespace fontrix
