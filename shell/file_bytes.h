#pragma once
// Reading a data or cache file whole, without the C++ streams: libstdc++'s file buffer throws
// std::ios_base::failure from inside a read that fails (a folder where a file should be, an
// I/O error), even on a stream that was never asked for exceptions. Every file the module reads
// comes in through here, so such a file is a reason in words, never an exception.
#include <string>
#include <vector>

namespace fontrix {

enum class FileState { kRead, kMissing, kUnreadable };

/// Reads the regular file `path` whole into `bytes`. kMissing when there is nothing at `path`
/// (bytes empty); kUnreadable with `why` ("PATH is a folder, not a file", "cannot read PATH:
/// reason") otherwise.
FileState ReadFileBytes(const std::string& path, std::string& bytes, std::string& why);
/// Appends the file `path`, read as native floats, to `values`, with nothing in between to copy
/// through. As ReadFileBytes, and kUnreadable also when its size is not a whole number of
/// floats; `values` is as it was unless the file was read.
FileState AppendFileFloats(const std::string& path, std::vector<float>& values, std::string& why);

}  // namespace fontrix
