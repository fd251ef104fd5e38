#include "shell/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace fontrix {

FileState ReadFileBytes(const std::string& path, std::string& bytes, std::string& why) {
  bytes.clear();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return FileState::kMissing;
    why = "cannot read " + path + ": " + std::strerror(errno);
    return FileState::kUnreadable;
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    why = path + (S_ISDIR(info.st_mode) ? " is a folder, not a file" : " is not a regular file");
    ::close(fd);
    return FileState::kUnreadable;
  }
  bytes.reserve(size_t(info.st_size));
  char buffer[1 << 16];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      why = "cannot read " + path + ": " + std::strerror(errno);
      ::close(fd);
      bytes.clear();
      return FileState::kUnreadable;
    }
    bytes.append(buffer, size_t(got));
  }
  ::close(fd);
  return FileState::kRead;
}

}  // namespace fontrix
