// The installed fonts: fontconfig lists the faces, FreeType opens each one once to read its
// names and answer the qualification questions.
#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <optional>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <unordered_map>

#include "host/font_file.h"
#include "host/host.h"

namespace fontrix::host {
namespace {

struct ListedFace {
  std::string file;
  int index;
  bool variable;  // fontconfig's pattern of a whole variable font (its default instance)
};

// What reading one face gave; nullopt: FreeType cannot open it, or it is left out.
using FaceResult = std::optional<HostFont>;

std::string WithoutSpaces(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
  return text;
}

// True when a Unicode cmap maps every one of a-z, A-Z and 0-9.
bool MapsLatinAlphanumerics(FT_Face face) {
  FT_CharMap unicode = nullptr;
  for (int i = 0; i < face->num_charmaps && !unicode; ++i)
    if (face->charmaps[i]->encoding == FT_ENCODING_UNICODE) unicode = face->charmaps[i];
  if (!unicode || FT_Set_Charmap(face, unicode) != 0) return false;
  static const char kLatin[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  for (const char* c = kLatin; *c; ++c)
    if (FT_Get_Char_Index(face, FT_ULong(*c)) == 0) return false;
  return true;
}

FaceResult ReadFace(FT_Library library, const ListedFace& listed) {
  FontFile file(listed.file);  // outlives the face, which reads through it
  FT_Face face = file.Open(library, listed.index);
  if (!face) return std::nullopt;
  FaceResult result;
  // fontconfig lists every named instance of a variable font on its own; the whole font's
  // pattern would repeat one of them.
  const bool instances_listed = listed.variable && (listed.index >> 16) == 0 && (face->style_flags >> 16) > 0;
  if (!instances_listed) {
    HostFont font;
    font.file = listed.file;
    font.face_index = listed.index;
    font.family = face->family_name ? face->family_name : "";
    font.style = face->style_name ? face->style_name : "";
    const char* postscript = FT_Get_Postscript_Name(face);
    if (postscript && *postscript)
      font.unique_name = postscript;
    else if (!font.family.empty())
      font.unique_name = WithoutSpaces(font.family) + (font.style.empty() ? "" : "-" + WithoutSpaces(font.style));
    font.bitmap_only = !FT_IS_SCALABLE(face);
    font.symbol = !MapsLatinAlphanumerics(face);
    // Decided while the face is open anyway: the module asks for every font at every update.
    FT_UInt glyph = FT_Get_Char_Index(face, 'a');
    if (!glyph && face->num_glyphs > 1) glyph = 1;
    font.usable = FT_IS_SCALABLE(face) && face->units_per_EM != 0 && face->num_glyphs >= 1 &&
                  FT_Load_Glyph(face, glyph, FT_LOAD_NO_SCALE | FT_LOAD_NO_HINTING | FT_LOAD_NO_BITMAP) == 0 &&
                  face->glyph->format == FT_GLYPH_FORMAT_OUTLINE;
    if (!font.unique_name.empty()) result = std::move(font);
  }
  FT_Done_Face(face);
  return result;
}

std::vector<ListedFace> ListFaces() {
  FcPattern* pattern = FcPatternCreate();
  FcObjectSet* objects = FcObjectSetBuild(FC_FILE, FC_INDEX, FC_VARIABLE, FC_SCALABLE, nullptr);
  FcFontSet* set = pattern && objects ? FcFontList(nullptr, pattern, objects) : nullptr;
  if (objects) FcObjectSetDestroy(objects);
  if (pattern) FcPatternDestroy(pattern);
  if (!set) throw std::runtime_error("fontconfig could not list the installed fonts");

  std::vector<ListedFace> faces;
  faces.reserve(size_t(set->nfont));
  for (int i = 0; i < set->nfont; ++i) {
    FcChar8* file = nullptr;
    int index = 0;
    FcBool variable = FcFalse;
    if (FcPatternGetString(set->fonts[i], FC_FILE, 0, &file) != FcResultMatch || !file) continue;
    FcPatternGetInteger(set->fonts[i], FC_INDEX, 0, &index);
    FcPatternGetBool(set->fonts[i], FC_VARIABLE, 0, &variable);
    faces.push_back({reinterpret_cast<const char*>(file), index, variable == FcTrue});
  }
  FcFontSetDestroy(set);
  // fontconfig's order follows its caches; sorting makes the list, and so which face of a
  // repeated unique name comes first, the same on every run.
  std::sort(faces.begin(), faces.end(), [](const ListedFace& a, const ListedFace& b) {
    return std::tie(a.file, a.index, a.variable) < std::tie(b.file, b.index, b.variable);
  });
  faces.erase(
      std::unique(faces.begin(), faces.end(),
                  [](const ListedFace& a, const ListedFace& b) { return a.file == b.file && a.index == b.index; }),
      faces.end());
  return faces;
}

// Reads faces[i] for every i in `todo` into results[i], on a few threads when there are many.
void ReadFaces(const std::vector<ListedFace>& faces, const std::vector<size_t>& todo,
               std::vector<FaceResult>& results) {
  constexpr size_t kFacesPerThread = 48;
  const size_t threads =
      std::max<size_t>(1, std::min<size_t>({std::thread::hardware_concurrency(), 8, todo.size() / kFacesPerThread}));
  std::atomic<size_t> next{0};
  std::vector<std::exception_ptr> errors(threads);
  auto work = [&](size_t worker) {
    FT_Library library = nullptr;
    try {
      // One FreeType library per thread: faces of one library must not be used concurrently.
      if (FT_Init_FreeType(&library) != 0) throw std::runtime_error("FreeType could not start");
      for (size_t k; (k = next.fetch_add(1)) < todo.size();) results[todo[k]] = ReadFace(library, faces[todo[k]]);
    } catch (...) {
      errors[worker] = std::current_exception();
    }
    if (library) FT_Done_FreeType(library);
  };
  std::vector<std::thread> pool;
  for (size_t t = 1; t < threads; ++t) pool.emplace_back(work, t);
  work(0);
  for (auto& t : pool) t.join();
  for (const auto& e : errors)
    if (e) std::rethrow_exception(e);
}

class FontconfigSource : public FontSource {
 public:
  std::vector<HostFont> List() override {
    // FcInit loads the configuration once; later lists pick up fonts added since.
    if (!initialised_) {
      if (!FcInit()) throw std::runtime_error("fontconfig could not load its configuration");
      initialised_ = true;
    } else {
      FcInitBringUptoDate();
    }
    const std::vector<ListedFace> faces = ListFaces();

    std::unordered_map<std::string, Remembered> remembered;
    std::vector<FaceResult> results(faces.size());
    std::vector<size_t> todo;
    for (size_t i = 0; i < faces.size(); ++i) {
      const std::string key = Key(faces[i]);
      struct stat st {};
      const bool stated = ::stat(faces[i].file.c_str(), &st) == 0;
      const Stamp stamp{int64_t(st.st_mtim.tv_sec), int64_t(st.st_mtim.tv_nsec), int64_t(st.st_size)};
      auto it = remembered_.find(key);
      if (stated && it != remembered_.end() && it->second.stamp == stamp) {
        results[i] = it->second.result;
      } else {
        todo.push_back(i);
      }
      remembered[key].stamp = stated ? stamp : Stamp{};
    }
    ReadFaces(faces, todo, results);

    std::vector<HostFont> fonts;
    fonts.reserve(faces.size());
    for (size_t i = 0; i < faces.size(); ++i) {
      remembered[Key(faces[i])].result = results[i];
      if (results[i]) fonts.push_back(*results[i]);
    }
    remembered_ = std::move(remembered);
    return fonts;
  }

 private:
  struct Stamp {
    int64_t seconds = -1, nanoseconds = -1, size = -1;
    bool operator==(const Stamp& o) const {
      return seconds == o.seconds && nanoseconds == o.nanoseconds && size == o.size;
    }
  };
  struct Remembered {
    Stamp stamp;
    FaceResult result;
  };

  static std::string Key(const ListedFace& face) { return face.file + '\n' + std::to_string(face.index); }

  bool initialised_ = false;
  std::unordered_map<std::string, Remembered> remembered_;  // by file and face index
};

}  // namespace

std::unique_ptr<FontSource> MakeFontconfigSource() { return std::make_unique<FontconfigSource>(); }

}  // namespace fontrix::host

// fontconfig 2.14 loses a few bytes while it parses its configuration files; builds of the host
// with LeakSanitizer should report only leaks of their own, and keep standard error clean.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
