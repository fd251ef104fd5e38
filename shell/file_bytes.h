#pragma once
// Reading a data or cache file whole, without the C++ streams: libstdc++'s file buffer throws
// std::ios_base::failure from inside a read that fails (a folder where a file should be, an
// I/O error), even on a stream that was never asked for exceptions. Every file the module reads
// comes in through here, so such a file is a reason in words, never an exception.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fontrix {

enum class FileState { kRead, kMissing, kUnreadable };

/// Reads the regular file `path` whole into `bytes`. kMissing when there is nothing at `path`
/// (bytes empty); kUnreadable with `why` ("PATH is a folder, not a file", "cannot read PATH:
/// reason") otherwise.
FileState ReadFileBytes(const std::string& path, std::string& bytes, std::string& why);
/// The data file `path` whole, for readers that cannot go on without it: a missing or unreadable
/// file throws `Error` ("PATH is missing", or ReadFileBytes's reason).
template <typename Error>
std::string ReadDataFile(const std::string& path) {
  std::string bytes, why;
  const FileState state = ReadFileBytes(path, bytes, why);
  if (state == FileState::kMissing) throw Error(path + " is missing");
  if (state == FileState::kUnreadable) throw Error(why);
  return bytes;
}

/// Appends the file `path`, read as native floats, to `values`, with nothing in between to copy
/// through. As ReadFileBytes, and kUnreadable also when its size is not a whole number of
/// floats; `values` is as it was unless the file was read.
FileState AppendFileFloats(const std::string& path, std::vector<float>& values, std::string& why);

/// Writes `bytes` to "PATH.tmp" and renames it over `path`, so that a reader never sees half a
/// file and a full folder keeps none; throws std::runtime_error saying which step failed and why.
void ReplaceFile(const std::string& path, std::string_view bytes);

/// A regular file mapped read-only, for shipped data read whole at every start: its pages come
/// from the page cache as they are touched, with nothing copied or zeroed. The file must not be
/// cut short while mapped (installed data is replaced by renaming, which leaves the mapping whole).
class MappedFile {
 public:
  MappedFile() = default;
  ~MappedFile() { Unmap(); }
  MappedFile(MappedFile&& other) noexcept { *this = std::move(other); }
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  /// Maps `path` in place of what was mapped; the states and reasons are ReadFileBytes's. An
  /// empty file maps to no bytes.
  FileState Map(const std::string& path, std::string& why);
  void Unmap();
  const void* Data() const { return data_; }
  size_t Size() const { return size_; }

 private:
  void* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace fontrix
