// The installed fonts: fontconfig lists the faces, FreeType opens each one once to read its
// names and answer the qualification questions.
#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_ADVANCES_H
#include FT_MULTIPLE_MASTERS_H
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <tuple>
#include <unordered_map>

#include "host/font_file.h"
#include "host/font_names.h"
#include "host/fontconfig_source.h"
#include "host/host.h"

namespace fontrix::host {
namespace {

// OpenType and TrueType before the older formats that often hold a copy of the same face.
// Decided once per face from the name's last dot (the sort below compares it often).
int FormatRank(const std::string& file) {
  const size_t dot = file.rfind('.'), slash = file.rfind('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return 1;
  std::string extension = file.substr(dot);
  for (char& c : extension) c = char(std::tolower(static_cast<unsigned char>(c)));
  for (const char* modern : {".otf", ".ttf", ".ttc", ".otc", ".woff", ".woff2"})
    if (extension == modern) return 0;
  return 1;
}

struct ListedFace {
  std::string file;
  int index;
  bool variable;  // fontconfig's pattern of a whole variable font (its default instance)
  int weight, width, slant;
  int rank = FormatRank(file);
};

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

// Whether the codes of the Latin letters hold something else: the legacy encodings of symbol and
// dingbat fonts (Standard Symbols' "a" is alpha, D050000L's is a pencil). Told by the glyphs'
// names, where the face has them: a letter's glyph is named as the letter ("a", "a.alt",
// "uni0061"), generically ("glyph12", "cid00012": no answer), or as something else ("alpha",
// "a60"). A face whose letters are mostly named as something else, and hardly any as themselves,
// draws no text.
bool LettersHoldSymbols(FT_Face face) {
  if (!FT_HAS_GLYPH_NAMES(face)) return false;
  size_t themselves = 0, others = 0;
  static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  for (const char* c = kLetters; *c; ++c) {
    const FT_UInt glyph = FT_Get_Char_Index(face, FT_ULong(*c));
    char name[64] = "";
    if (!glyph || FT_Get_Glyph_Name(face, glyph, name, sizeof name) != 0 || !name[0]) continue;
    const std::string n = name;
    char code[16];
    std::snprintf(code, sizeof code, "%04X", unsigned(*c));
    const bool itself = (n.size() == 1 && n[0] == *c) || ((n[1] == '.' || n[1] == '_') && n[0] == *c) ||
                        n == "uni" + std::string(code) || n == "u" + std::string(code);
    size_t digits = n.size();
    while (digits > 0 && std::isdigit(static_cast<unsigned char>(n[digits - 1]))) --digits;
    const std::string stem = n.substr(0, digits);
    const bool generic = digits < n.size() && (stem == "glyph" || stem == "g" || stem == "cid" || stem == "gid" ||
                                               stem == "index" || stem == "afii");
    if (itself)
      ++themselves;
    else if (!generic)
      ++others;
  }
  return others >= 26 && themselves < 10;
}

// The named instance (1-based) whose coordinates are the variable font's defaults; 0 when none
// is. fontconfig does not list that instance on its own: the default face stands for it.
FT_UInt DefaultInstance(FT_Library library, FT_Face face) {
  FT_MM_Var* mm = nullptr;
  if (!FT_HAS_MULTIPLE_MASTERS(face) || FT_Get_MM_Var(face, &mm) != 0) return 0;
  FT_UInt found = 0;
  for (FT_UInt k = 0; k < mm->num_namedstyles && !found; ++k) {
    bool defaults = true;
    for (FT_UInt a = 0; a < mm->num_axis; ++a) defaults = defaults && mm->namedstyle[k].coords[a] == mm->axis[a].def;
    if (defaults) found = k + 1;
  }
  FT_Done_MM_Var(library, mm);
  return found;
}

// Advances of a-z, A-Z and 0-9 in the face's own units (a variable face's at its instance),
// brought to 1000 units to the em; empty when the face cannot be measured.
std::vector<int16_t> LatinAdvances(FT_Face face) {
  if (!FT_IS_SCALABLE(face) || face->units_per_EM == 0) return {};
  std::vector<int16_t> advances;
  static const char kLatin[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  for (const char* c = kLatin; *c; ++c) {
    const FT_UInt glyph = FT_Get_Char_Index(face, FT_ULong(*c));
    FT_Fixed units = 0;
    const int64_t advance =
        glyph && FT_Get_Advance(face, glyph, FT_LOAD_NO_SCALE | FT_LOAD_NO_HINTING | FT_LOAD_NO_BITMAP, &units) == 0
            ? (int64_t(units) * 1000 + face->units_per_EM / 2) / face->units_per_EM
            : -1;
    advances.push_back(int16_t(std::clamp<int64_t>(advance, -1, 32767)));
  }
  return advances;
}

// The advances hashed (FNV-1a): equal for the same outlines in two files.
uint64_t OutlinePrint(const std::vector<int16_t>& advances) {
  if (advances.empty()) return 0;
  uint64_t hash = 14695981039346656037ull;
  for (int16_t advance : advances)
    for (int shift = 0; shift < 16; shift += 8)
      hash = (hash ^ uint64_t((uint16_t(advance) >> shift) & 0xFF)) * 1099511628211ull;
  return hash ? hash : 1;
}

std::string AdvancesText(const std::vector<int16_t>& advances) {
  std::string text;
  for (int16_t a : advances) text += (text.empty() ? "" : ",") + std::to_string(a);
  return text;
}

}  // namespace

FaceResult ReadFace(FT_Library library, const std::string& path, int index, bool variable) {
  FontFile file(path);  // outlives the face, which reads through it
  FT_Face face = file.Open(library, index);
  if (!face) return std::nullopt;
  FaceResult result;
  // fontconfig lists every named instance of a variable font on its own; the whole font's
  // pattern would repeat one of them.
  const bool instances_listed = variable && (index >> 16) == 0 && (face->style_flags >> 16) > 0;
  if (!instances_listed) {
    HostFont font;
    font.file = path;
    font.face_index = index;
    // The default face of a variable font is its default named instance ("Inter-Regular"), not
    // the font's base name ("Inter"), which every file of the family shares.
    std::optional<FontFile> instance_file;  // a second stream: one serves one face at a time
    FT_Face named = face;
    if ((index >> 16) == 0 && (face->style_flags >> 16) > 0)
      if (const FT_UInt instance = DefaultInstance(library, face))
        if (FT_Face opened = instance_file.emplace(path).Open(library, int(instance << 16) | (index & 0xFFFF)))
          named = opened;
    font.family = named->family_name ? named->family_name : "";
    font.style = named->style_name ? named->style_name : "";
    const char* postscript = FT_Get_Postscript_Name(named);
    if (postscript && *postscript)
      font.unique_name = postscript;
    else if (!font.family.empty())
      font.unique_name = WithoutSpaces(font.family) + (font.style.empty() ? "" : "-" + WithoutSpaces(font.style));
    if (named != face) FT_Done_Face(named);
    font.bitmap_only = !FT_IS_SCALABLE(face);
    font.symbol = !MapsLatinAlphanumerics(face) || LettersHoldSymbols(face);
    // Decided while the face is open anyway: the module asks for every font at every update.
    FT_UInt glyph = FT_Get_Char_Index(face, 'a');
    if (!glyph && face->num_glyphs > 1) glyph = 1;
    font.usable = FT_IS_SCALABLE(face) && face->units_per_EM != 0 && face->num_glyphs >= 1 &&
                  FT_Load_Glyph(face, glyph, FT_LOAD_NO_SCALE | FT_LOAD_NO_HINTING | FT_LOAD_NO_BITMAP) == 0 &&
                  face->glyph->format == FT_GLYPH_FORMAT_OUTLINE;
    font.advances = LatinAdvances(face);
    font.outline_print = OutlinePrint(font.advances);
    font.glyphs = int(face->num_glyphs);
    if (!font.unique_name.empty()) result = std::move(font);
  }
  FT_Done_Face(face);
  return result;
}

namespace {

std::vector<ListedFace> ListFaces() {
  FcPattern* pattern = FcPatternCreate();
  FcObjectSet* objects =
      FcObjectSetBuild(FC_FILE, FC_INDEX, FC_VARIABLE, FC_SCALABLE, FC_WEIGHT, FC_WIDTH, FC_SLANT, nullptr);
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
    // A variable font's whole pattern holds ranges: its default instance is listed as well.
    int weight = FC_WEIGHT_REGULAR, width = FC_WIDTH_NORMAL, slant = FC_SLANT_ROMAN;
    FcPatternGetInteger(set->fonts[i], FC_WEIGHT, 0, &weight);
    FcPatternGetInteger(set->fonts[i], FC_WIDTH, 0, &width);
    FcPatternGetInteger(set->fonts[i], FC_SLANT, 0, &slant);
    faces.push_back({reinterpret_cast<const char*>(file), index, variable == FcTrue, weight, width, slant});
  }
  FcFontSetDestroy(set);
  // fontconfig's order follows its caches; sorting makes the list, and so which face of a
  // repeated unique name comes first, the same on every run.
  std::sort(faces.begin(), faces.end(), [](const ListedFace& a, const ListedFace& b) {
    return std::make_tuple(a.rank, std::cref(a.file), a.index, a.variable) <
           std::make_tuple(b.rank, std::cref(b.file), b.index, b.variable);
  });
  faces.erase(
      std::unique(faces.begin(), faces.end(),
                  [](const ListedFace& a, const ListedFace& b) { return a.file == b.file && a.index == b.index; }),
      faces.end());
  return faces;
}

// Reads faces[i] for every i in `todo` into results[i], on a few threads when there are many;
// `read` counts the faces read.
void ReadFaces(const std::vector<ListedFace>& faces, const std::vector<size_t>& todo, std::vector<FaceResult>& results,
               std::atomic<uint64_t>& read) {
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
      for (size_t k; (k = next.fetch_add(1)) < todo.size();) {
        const ListedFace& face = faces[todo[k]];
        results[todo[k]] = ReadFace(library, face.file, face.index, face.variable);
        read.fetch_add(1, std::memory_order_relaxed);
      }
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

// Fields of the on-disk listing are separated by tabs; names are escaped so no field holds one.
std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\t')
      out += "\\t";
    else if (c == '\n')
      out += "\\n";
    else
      out += c;
  }
  return out;
}

std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      ++i;
      out += text[i] == 't' ? '\t' : text[i] == 'n' ? '\n' : text[i];
    } else {
      out += text[i];
    }
  }
  return out;
}

constexpr const char* kListingHeader = "fontrix font listing 5";

}  // namespace

namespace {

// FNV-1a of the listing's lines, so a listing edited or cut since it was written is found.
uint64_t ListingSum(std::string_view text) {
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : text) hash = (hash ^ c) * 1099511628211ull;
  return hash;
}

constexpr const char* kListingEnd = "end ";

}  // namespace

namespace {

// A whole number filling `text`; false for anything else (an edited or foreign listing).
template <typename T>
bool ParseNumber(std::string_view text, T& value) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return !text.empty() && error == std::errc() && stop == end;
}

std::string Unescaped(std::string_view text) {
  if (text.find('\\') == std::string_view::npos) return std::string(text);
  return Unescape(std::string(text));
}

bool ParseAdvanceList(std::string_view text, std::vector<int16_t>& advances) {
  advances.clear();
  for (size_t start = 0; start < text.size();) {
    const size_t comma = std::min(text.find(',', start), text.size());
    int16_t advance = 0;
    if (!ParseNumber(text.substr(start, comma - start), advance)) return false;
    advances.push_back(advance);
    start = comma + 1;
  }
  return true;
}

// One face's line; false when it is not one the writer writes.
bool ParseListingLine(std::string_view line, FontListing& listing) {
  constexpr size_t kFields = 15;
  std::string_view f[kFields];
  size_t count = 0;
  for (size_t start = 0;;) {
    const size_t tab = line.find('\t', start);
    if (count == kFields) return false;
    f[count++] = line.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start);
    if (tab == std::string_view::npos) break;
    start = tab + 1;
  }
  if (count != kFields) return false;
  ListedFaceResult r;
  if (!ParseNumber(f[2], r.stamp.seconds) || !ParseNumber(f[3], r.stamp.nanoseconds) ||
      !ParseNumber(f[4], r.stamp.size))
    return false;
  std::string file = Unescaped(f[0]);
  if (f[5] == "1") {
    HostFont font;
    int bitmap_only = 0, symbol = 0;
    if (!ParseNumber(f[1], font.face_index) || !ParseNumber(f[9], bitmap_only) || !ParseNumber(f[10], symbol) ||
        !ParseNumber(f[11], font.usable) || !ParseNumber(f[12], font.outline_print) ||
        !ParseAdvanceList(f[13], font.advances) || !ParseNumber(f[14], font.glyphs))
      return false;
    font.file = file;
    font.unique_name = Unescaped(f[6]);
    font.family = Unescaped(f[7]);
    font.style = Unescaped(f[8]);
    font.bitmap_only = bitmap_only == 1;
    font.symbol = symbol == 1;
    r.result = std::move(font);
  }
  listing[std::move(file) + '\n' + std::string(f[1])] = std::move(r);
  return true;
}

}  // namespace

// The listing is read whole and parsed in place: a listing of thousands of faces is read by
// every process before it answers.
FontListing ReadFontListing(std::istream& in) {
  std::string text;
  // One allocation of the listing's size when it can be asked (a file); growing a string stream
  // page by page touched twice the memory.
  const std::streampos start = in.tellg();
  in.seekg(0, std::ios::end);
  if (const std::streamoff size = in.tellg() - start; in && start >= 0 && size > 0) {
    in.seekg(start);
    text.resize(size_t(size));
    in.read(text.data(), size);
    text.resize(size_t(in.gcount()));
  } else {
    in.clear();
    if (start >= 0) in.seekg(start);
    std::ostringstream whole;
    whole << in.rdbuf();
    text = std::move(whole).str();
  }
  const std::string_view all(text);
  size_t at = all.find('\n');
  if (at == std::string_view::npos || all.substr(0, at) != kListingHeader) return {};
  FontListing listing;
  for (size_t start = at + 1; start < all.size(); start = at + 1) {
    at = all.find('\n', start);
    const std::string_view line = all.substr(start, at == std::string_view::npos ? std::string_view::npos : at - start);
    if (line.substr(0, std::strlen(kListingEnd)) == kListingEnd) {
      char sum[17];
      std::snprintf(sum, sizeof sum, "%016llx", static_cast<unsigned long long>(ListingSum(all.substr(0, start))));
      return line.substr(std::strlen(kListingEnd)) == sum ? listing : FontListing();
    }
    if (at == std::string_view::npos || !ParseListingLine(line, listing)) return {};
  }
  return {};  // no end line: cut short
}

void WriteFontListing(std::ostream& out, const FontListing& listing) {
  std::ostringstream body;
  body << kListingHeader << '\n';
  for (const auto& [key, r] : listing) {
    const size_t cut = key.rfind('\n');
    body << Escape(key.substr(0, cut)) << '\t' << key.substr(cut + 1) << '\t' << r.stamp.seconds << '\t'
         << r.stamp.nanoseconds << '\t' << r.stamp.size << '\t' << (r.result ? 1 : 0);
    if (r.result)
      body << '\t' << Escape(r.result->unique_name) << '\t' << Escape(r.result->family) << '\t'
           << Escape(r.result->style) << '\t' << int(r.result->bitmap_only) << '\t' << int(r.result->symbol) << '\t'
           << r.result->usable << '\t' << r.result->outline_print << '\t' << AdvancesText(r.result->advances) << '\t'
           << r.result->glyphs;
    else
      body << "\t\t\t\t0\t0\t-1\t0\t\t0";
    body << '\n';
  }
  char sum[17];
  std::snprintf(sum, sizeof sum, "%016llx", static_cast<unsigned long long>(ListingSum(body.str())));
  out << body.str() << kListingEnd << sum << '\n';
}

namespace {

class FontconfigSource : public FontSource {
 public:
  // The listing is read by the first List(), which a host may run on a thread of its own.
  explicit FontconfigSource(std::string listing) : listing_(std::move(listing)) {}

  std::vector<HostFont> List() override {
    // FcInit loads the configuration once; later lists pick up fonts added since.
    if (!initialised_) {
      // The listing is read while fontconfig loads its configuration and caches: both grow with
      // the fonts, and a process waits for them before it answers.
      std::future<void> reading = std::async(std::launch::async, [this] { ReadListing(); });
      const bool loaded = FcInit();
      reading.get();
      if (!loaded) throw std::runtime_error("fontconfig could not load its configuration");
      initialised_ = true;
    } else if (!FcInitReinitialize()) {
      throw std::runtime_error("fontconfig could not load its configuration again");
    }
    const std::vector<ListedFace> faces = ListFaces();

    // What is remembered of an unchanged file is moved, not copied: thousands of faces.
    std::vector<std::string> keys(faces.size());
    std::vector<FileStamp> stamps(faces.size());
    std::vector<FaceResult> results(faces.size());
    std::vector<size_t> todo;
    for (size_t i = 0; i < faces.size(); ++i) {
      keys[i] = Key(faces[i]);
      struct stat st {};
      const bool stated = ::stat(faces[i].file.c_str(), &st) == 0;
      const FileStamp stamp{int64_t(st.st_mtim.tv_sec), int64_t(st.st_mtim.tv_nsec), int64_t(st.st_size)};
      auto node = remembered_.extract(keys[i]);
      if (stated && !node.empty() && node.mapped().stamp == stamp) {
        results[i] = std::move(node.mapped().result);
      } else {
        todo.push_back(i);
      }
      stamps[i] = stated ? stamp : FileStamp{};
    }
    // What is left was remembered of faces no longer listed.
    const bool changed = !todo.empty() || !remembered_.empty();
    read_.store(0);
    to_read_.store(todo.size());
    ReadFaces(faces, todo, results, read_);
    to_read_.store(0);

    std::vector<HostFont> fonts;
    fonts.reserve(faces.size());
    FontListing remembered;
    remembered.reserve(faces.size());
    for (size_t i = 0; i < faces.size(); ++i) {
      if (results[i]) {
        fonts.push_back(*results[i]);
        fonts.back().weight = faces[i].weight;
        fonts.back().width = faces[i].width;
        fonts.back().slant = faces[i].slant;
      }
      remembered.emplace(std::move(keys[i]), ListedFaceResult{stamps[i], std::move(results[i])});
    }
    NameFaces(fonts);
    remembered_ = std::move(remembered);
    if (changed) WriteListing();
    listed_ = true;
    return fonts;
  }

  // fontconfig's own stamps (its configuration files and font folders) say whether anything was
  // added, removed or renamed since the last list: a host told of a change at start-up lists
  // nothing twice.
  bool Unchanged() override { return listed_ && FcConfigUptoDate(nullptr); }

  std::pair<uint64_t, uint64_t> Reading() const override {
    const uint64_t total = to_read_.load();
    return {std::min(read_.load(), total), total};
  }

 private:
  static std::string Key(const ListedFace& face) { return face.file + '\n' + std::to_string(face.index); }

  // What earlier runs read of each face, so a new process opens only new or changed files. A
  // listing that cannot be read is ignored: every face is read again.
  void ReadListing() {
    if (listing_.empty()) return;
    std::ifstream in(listing_);
    remembered_ = ReadFontListing(in);
  }

  // Written to a temporary file and renamed, so a reader never sees half a listing.
  void WriteListing() const {
    if (listing_.empty()) return;
    const std::string temporary = listing_ + ".tmp";
    bool written = false;
    {
      std::ofstream out(temporary, std::ios::trunc);
      if (!out) return;
      WriteFontListing(out, remembered_);
      written = bool(out.flush());
    }
    // A folder that is full keeps no half listing: the next process reads the faces again.
    if (!written || std::rename(temporary.c_str(), listing_.c_str()) != 0) std::remove(temporary.c_str());
  }

  std::string listing_;
  bool initialised_ = false;
  FontListing remembered_;                      // by file and face index
  bool listed_ = false;                         // a List() succeeded
  std::atomic<uint64_t> read_{0}, to_read_{0};  // faces the running List() has read, and must
};

}  // namespace

std::unique_ptr<FontSource> MakeFontconfigSource(const std::string& listing) {
  return std::make_unique<FontconfigSource>(listing);
}

}  // namespace fontrix::host

// fontconfig 2.14 loses a few bytes while it parses its configuration files; builds of the host
// with LeakSanitizer should report only leaks of their own, and keep standard error clean.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
