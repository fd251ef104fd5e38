// The host's cache of open FreeType faces.
#include "host/face_cache.h"

#include FT_MULTIPLE_MASTERS_H
#include <hb-ft.h>
#include <sys/stat.h>

#include <stdexcept>
#include <tuple>
#include <vector>

#include "host/font_file.h"

namespace fontrix::host {
namespace {

struct Stamp {
  int64_t seconds = -1, nanoseconds = -1, size = -1, inode = -1, device = -1;
  bool operator==(const Stamp& o) const {
    return std::tie(seconds, nanoseconds, size, inode, device) ==
           std::tie(o.seconds, o.nanoseconds, o.size, o.inode, o.device);
  }
};

Stamp StampOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return {};
  return {int64_t(st.st_mtim.tv_sec), int64_t(st.st_mtim.tv_nsec), int64_t(st.st_size), int64_t(st.st_ino),
          int64_t(st.st_dev)};
}

// FreeType 2.12 reads the fvar coordinates of named instances unsigned on 64-bit systems, so
// a negative one (Inter's slnt -10) becomes 65526 and is clamped to the axis' end: the instance
// is drawn upright. Setting its coordinates again, sign-extended from 32 bits, draws it as
// designed.
void RepairNamedInstance(FT_Face face) {
  const FT_UInt instance = FT_UInt(face->face_index >> 16);
  FT_MM_Var* mm = nullptr;
  if (instance == 0 || !FT_HAS_MULTIPLE_MASTERS(face) || FT_Get_MM_Var(face, &mm) != 0) return;
  if (instance <= mm->num_namedstyles) {
    const FT_Fixed* stored = mm->namedstyle[instance - 1].coords;
    std::vector<FT_Fixed> coords(stored, stored + mm->num_axis);
    bool repaired = false;
    for (FT_Fixed& c : coords) {
      const FT_Fixed extended = FT_Fixed(int32_t(uint32_t(c)));
      repaired = repaired || extended != c;
      c = extended;
    }
    if (repaired) FT_Set_Var_Design_Coordinates(face, mm->num_axis, coords.data());
  }
  FT_Done_MM_Var(face->glyph->library, mm);
}

}  // namespace

struct FaceCache::Face {
  std::string path;
  int index = 0;
  Stamp stamp;
  std::unique_ptr<FontFile> file;
  FT_Face face = nullptr;
  hb_font_t* hb = nullptr;
};

FaceCache::Lease::Lease(FaceCache* cache, std::unique_ptr<Face> face) : cache_(cache), face_(std::move(face)) {}

FaceCache::Lease::Lease(Lease&& other) noexcept : cache_(other.cache_), face_(std::move(other.face_)) {}

FaceCache::Lease::~Lease() {
  if (face_) cache_->Return(std::move(face_));
}

FT_Face FaceCache::Lease::face() const { return face_->face; }

hb_font_t* FaceCache::Lease::shaper() {
  if (!face_->hb && face_->face) {
    face_->hb = hb_ft_font_create(face_->face, nullptr);
    // Unhinted advances from outlines, as the glyphs are drawn.
    hb_ft_font_set_load_flags(face_->hb, FT_LOAD_NO_HINTING | FT_LOAD_NO_BITMAP);
  }
  return face_->hb;
}

FaceCache::FaceCache(size_t max_idle) : max_idle_(max_idle) {
  if (FT_Init_FreeType(&library_) != 0) throw std::runtime_error("FreeType could not start");
}

FaceCache::~FaceCache() {
  for (auto& face : idle_) Close(std::move(face));
  FT_Done_FreeType(library_);
}

FaceCache::Lease FaceCache::Borrow(const std::string& path, int index) {
  const Stamp stamp = StampOf(path);
  std::vector<std::unique_ptr<Face>> stale;
  std::unique_ptr<Face> found;
  {
    std::lock_guard lock(mu_);
    for (auto it = idle_.begin(); it != idle_.end();) {
      if ((*it)->index != index || (*it)->path != path) {
        ++it;
      } else if (!((*it)->stamp == stamp)) {
        stale.push_back(std::move(*it));
        it = idle_.erase(it);
      } else {
        found = std::move(*it);
        idle_.erase(it);
        break;
      }
    }
  }
  for (auto& face : stale) Close(std::move(face));
  if (found) return Lease(this, std::move(found));

  auto face = std::make_unique<Face>();
  face->path = path;
  face->index = index;
  face->stamp = stamp;
  face->file = std::make_unique<FontFile>(path);
  {
    std::lock_guard lock(library_mu_);
    face->face = face->file->Open(library_, index);
    if (face->face) RepairNamedInstance(face->face);
  }
  return Lease(this, std::move(face));
}

void FaceCache::Return(std::unique_ptr<Face> face) {
  if (!face->face) return Close(std::move(face));  // a file FreeType cannot open is tried afresh next time
  std::unique_ptr<Face> evicted;
  {
    std::lock_guard lock(mu_);
    idle_.push_front(std::move(face));
    if (idle_.size() > max_idle_) {
      evicted = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  if (evicted) Close(std::move(evicted));
}

void FaceCache::Close(std::unique_ptr<Face> face) {
  if (face->hb) hb_font_destroy(face->hb);  // made without a destroy callback: leaves the face open
  if (face->face) {
    std::lock_guard lock(library_mu_);
    FT_Done_Face(face->face);
  }
  face->file.reset();
}

}  // namespace fontrix::host
