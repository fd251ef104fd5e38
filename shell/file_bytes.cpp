#include "shell/file_bytes.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>

namespace fontrix {
namespace {

// Opens the regular file `path` for reading, its size in `size`; `fd` is open only on kRead.
FileState OpenRegular(const std::string& path, int& fd, size_t& size, std::string& why) {
  fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
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
  size = size_t(info.st_size);
  return FileState::kRead;
}

// Reads the regular file `path` whole into the room `grow(n)` gives: n bytes starting at the
// pointer it returns (kept from one call to the next up to n). The file's size is asked first,
// one byte more so that its end is seen at once; a file that grows meanwhile is read to its end.
// `got` is the number of bytes read.
FileState ReadInto(const std::string& path, const std::function<char*(size_t)>& grow, size_t& got, std::string& why) {
  got = 0;
  int fd = -1;
  size_t size = 0;
  if (const FileState state = OpenRegular(path, fd, size, why); state != FileState::kRead) return state;
  size_t room = size + 1;
  char* at = grow(room);
  for (;;) {
    if (got == room) at = grow(room *= 2);
    const ssize_t n = ::read(fd, at + got, room - got);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      why = "cannot read " + path + ": " + std::strerror(errno);
      ::close(fd);
      return FileState::kUnreadable;
    }
    got += size_t(n);
  }
  ::close(fd);
  return FileState::kRead;
}

}  // namespace

FileState ReadFileBytes(const std::string& path, std::string& bytes, std::string& why) {
  bytes.clear();
  size_t got = 0;
  const FileState state = ReadInto(
      path,
      [&](size_t n) {
        bytes.resize(n);
        return bytes.data();
      },
      got, why);
  bytes.resize(state == FileState::kRead ? got : 0);
  return state;
}

FileState AppendFileFloats(const std::string& path, std::vector<float>& values, std::string& why) {
  const size_t before = values.size();
  size_t got = 0;
  FileState state = ReadInto(
      path,
      [&](size_t n) {
        values.resize(before + (n + sizeof(float) - 1) / sizeof(float));
        return reinterpret_cast<char*>(values.data() + before);
      },
      got, why);
  if (state == FileState::kRead && got % sizeof(float) != 0) {
    why = path + " does not hold whole values of " + std::to_string(sizeof(float)) + " bytes";
    state = FileState::kUnreadable;
  }
  values.resize(before + (state == FileState::kRead ? got / sizeof(float) : 0));
  return state;
}

void ReplaceFile(const std::string& path, std::string_view bytes) {
  const std::string temporary = path + ".tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(errno));
  for (size_t written = 0; written < bytes.size();) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const int cause = n < 0 ? errno : ENOSPC;
      ::close(fd);
      std::remove(temporary.c_str());
      throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(cause));
    }
    written += size_t(n);
  }
  if (::close(fd) != 0) {
    const int cause = errno;
    std::remove(temporary.c_str());
    throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(cause));
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    const int cause = errno;
    std::remove(temporary.c_str());
    throw std::runtime_error("cannot replace " + path + ": " + std::strerror(cause));
  }
}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    Unmap();
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
  }
  return *this;
}

void MappedFile::Unmap() {
  if (data_) ::munmap(data_, size_);
  data_ = nullptr;
  size_ = 0;
}

FileState MappedFile::Map(const std::string& path, std::string& why) {
  Unmap();
  int fd = -1;
  size_t size = 0;
  if (const FileState state = OpenRegular(path, fd, size, why); state != FileState::kRead) return state;
  if (size > 0) {
    void* data = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (data == MAP_FAILED) {
      why = "cannot read " + path + ": " + std::strerror(errno);
      ::close(fd);
      return FileState::kUnreadable;
    }
    data_ = data;
    size_ = size;
  }
  ::close(fd);
  return FileState::kRead;
}

}  // namespace fontrix
