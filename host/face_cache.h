#pragma once
// FreeType faces of the host's fonts, lent to one caller at a time (internal header).
#include <ft2build.h>
#include FT_FREETYPE_H
#include <hb.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace fontrix::host {

/// Open FreeType faces, each with a HarfBuzz font over it, kept for reuse by file and face
/// index. FreeType faces are not thread-safe, so a face is lent to one caller at a time; two
/// threads that want the same font get two faces. All faces share one FT_Library, whose face
/// creation and destruction FreeType requires to be serialised (library_mu_). A face whose
/// file has changed since it was opened (modification time, size, inode) is not lent again.
class FaceCache {
 public:
  struct Face;

  /// A face on loan; returned to the cache when the lease ends.
  class Lease {
   public:
    Lease(Lease&& other) noexcept;
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Lease& operator=(Lease&&) = delete;
    ~Lease();

    /// Null when FreeType could not open the face.
    FT_Face face() const;
    /// A HarfBuzz font over face(), made on first use. After FT_Set_Char_Size, call
    /// hb_ft_font_changed before shaping.
    hb_font_t* shaper();

   private:
    friend class FaceCache;
    Lease(FaceCache* cache, std::unique_ptr<Face> face);
    FaceCache* cache_;
    std::unique_ptr<Face> face_;
  };

  /// Keeps at most `max_idle` faces open while nobody uses them. Throws std::runtime_error when
  /// FreeType cannot start.
  explicit FaceCache(size_t max_idle = 32);
  ~FaceCache();
  FaceCache(const FaceCache&) = delete;
  FaceCache& operator=(const FaceCache&) = delete;

  /// Lends face `index` (FreeType's face index: named instance << 16 | index) of `file`.
  Lease Borrow(const std::string& file, int index);

 private:
  void Return(std::unique_ptr<Face> face);
  void Close(std::unique_ptr<Face> face);

  size_t max_idle_;
  FT_Library library_ = nullptr;
  std::mutex library_mu_;                  // FT_Open_Face and FT_Done_Face on library_
  std::mutex mu_;                          // idle_
  std::list<std::unique_ptr<Face>> idle_;  // most recently returned first
};

}  // namespace fontrix::host
