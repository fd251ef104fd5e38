#pragma once
// A font file that FreeType reads through pread (internal header of the host).
#include <ft2build.h>
#include FT_FREETYPE_H
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace fontrix::host {

/// An open font file that FreeType reads through pread rather than FT_New_Face's memory map:
/// mapping and unmapping thousands of files from several threads spends most of the time in the
/// kernel, and a mapped file that shrinks under a reader kills it with SIGBUS, where pread only
/// comes up short. Faces opened from it must be closed before it.
class FontFile {
 public:
  explicit FontFile(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    struct stat st {};
    if (fd_ < 0 || ::fstat(fd_, &st) != 0) return;
    stream_.size = static_cast<unsigned long>(st.st_size);
    stream_.descriptor.value = fd_;
    stream_.read = ReadAt;
    stream_.close = CloseNothing;
  }
  ~FontFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  FontFile(const FontFile&) = delete;
  FontFile& operator=(const FontFile&) = delete;

  /// Opens face `index`; null when FreeType cannot. One face at a time per file: the stream
  /// keeps the read position of the face that uses it.
  FT_Face Open(FT_Library library, int index) {
    if (!stream_.read) return nullptr;
    FT_Open_Args args{};
    args.flags = FT_OPEN_STREAM;
    args.stream = &stream_;
    FT_Face face = nullptr;
    if (FT_Open_Face(library, &args, index, &face) != 0) return nullptr;
    // A WOFF file is unpacked into a stream FreeType allocates in place of ours, yet FreeType
    // 2.12 still marks the face's stream as the caller's, so FT_Done_Face would leave it behind:
    // a stream that is not ours is FreeType's to free.
    if (face->stream != &stream_) face->face_flags &= ~FT_FACE_FLAG_EXTERNAL_STREAM;
    return face;
  }

 private:
  static unsigned long ReadAt(FT_Stream stream, unsigned long offset, unsigned char* buffer, unsigned long count) {
    if (count == 0) return 0;  // a seek: FreeType checks the offset against the size itself
    const ssize_t got = ::pread(int(stream->descriptor.value), buffer, count, off_t(offset));
    return got < 0 ? 0 : static_cast<unsigned long>(got);
  }
  static void CloseNothing(FT_Stream) {}

  int fd_;
  FT_StreamRec stream_{};
};

}  // namespace fontrix::host
