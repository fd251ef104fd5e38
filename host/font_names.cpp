// Unique names for the listed faces, and what people type resolved to a face through fontconfig's
// own matching, so that a name means here what it means to fc-match.
#include "host/font_names.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "host/specimen.h"

namespace fontrix::host {
namespace {

std::string WithoutSpaces(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
  return text;
}

// One face in two files, under one family and style: the same letters and digits missing, the
// advances within two units in 1000 (the files round a variation's deltas or another em
// differently) but for at most 6 glyphs, and none off by more than 4 % of the em (Inter Display's
// italic file and the italic instances of its file with a slant axis differ in 3 to 5 glyphs,
// "q", "J" and "Q" among them, and look the same). Another design under the same names differs
// in most of them.
bool NearAdvances(const HostFont& a, const HostFont& b) {
  if (a.advances.empty() || a.advances.size() != b.advances.size())
    return a.outline_print != 0 && a.outline_print == b.outline_print;
  size_t off = 0;
  for (size_t i = 0; i < a.advances.size(); ++i) {
    const int difference = std::abs(a.advances[i] - b.advances[i]);
    if ((a.advances[i] < 0) != (b.advances[i] < 0) || difference > 40) return false;
    off += difference > 2;
  }
  return off <= 6;
}

// The print of a symbol font measures glyphs it may not have, or maps elsewhere in another
// format: where either copy is one, family and style alone decide.
bool SameFace(const HostFont& a, const HostFont& b) {
  return a.family == b.family && a.style == b.style && ((a.symbol || b.symbol) || NearAdvances(a, b));
}

std::string FileStem(const std::string& file) { return WithoutSpaces(std::filesystem::path(file).stem().string()); }

}  // namespace

std::string FoldedName(const std::string& text) {
  std::string out;
  for (unsigned char c : text)
    if (c != ' ' && c != '-' && c != '_') out += char(std::tolower(c));
  return out;
}

std::string LowerCase(std::string text) {
  for (char& c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

void NameFaces(std::vector<HostFont>& fonts) {
  std::set<std::string> own;  // names faces carry of their own: never derived for another face
  for (const HostFont& f : fonts) own.insert(f.unique_name);
  std::set<std::string> taken;
  std::unordered_map<std::string, std::vector<size_t>> claimants;  // own name -> faces kept under it
  for (size_t i = 0; i < fonts.size(); ++i) {
    HostFont& font = fonts[i];
    std::vector<size_t>& earlier = claimants[font.unique_name];
    const auto copied =
        std::find_if(earlier.begin(), earlier.end(), [&](size_t k) { return SameFace(fonts[k], font); });
    if (copied != earlier.end()) {
      HostFont& kept = fonts[*copied];
      font.unique_name = kept.unique_name;
      // A clearly fuller file of one face is the one used (a whole system file over a web subset
      // of its Latin letters): it takes the name, and the copies listed so far point to it. Copies
      // about as full keep the listing's order, which puts OpenType before Type 1.
      if (font.glyphs <= kept.glyphs + kept.glyphs / 4) {
        font.duplicate_of = kept.file;
        continue;
      }
      for (HostFont& other : fonts)
        if (&other != &kept && other.duplicate_of == kept.file && other.unique_name == kept.unique_name)
          other.duplicate_of = font.file;
      kept.duplicate_of = font.file;
      *copied = i;
      continue;
    }
    if (!earlier.empty()) {
      const std::string base = font.unique_name;
      std::vector<std::string> candidates = {WithoutSpaces(font.family) + "-" + WithoutSpaces(font.style),
                                             base + "-" + FileStem(font.file)};
      for (int n = 2; n <= int(fonts.size()) + 2; ++n) candidates.push_back(base + "-" + std::to_string(n));
      for (const std::string& c : candidates) {
        if (!own.count(c) && !taken.count(c)) {
          font.unique_name = c;
          break;
        }
      }
    }
    earlier.push_back(i);
    taken.insert(font.unique_name);
  }
}

std::string UnusedReason(const HostFont& font) {
  if (!font.duplicate_of.empty()) return "a copy of the face in " + font.duplicate_of;
  if (font.bitmap_only) return "bitmap only (the services need outlines)";
  if (font.symbol)
    return "no Latin letters and digits, or symbols in their place (a symbol, dingbat or non-Latin font)";
  if (font.usable == 0) return "its outlines cannot be loaded";
  return "";
}

namespace {

// A fontconfig pattern, destroyed with its owner.
struct Pattern {
  FcPattern* p;
  explicit Pattern(FcPattern* pattern) : p(pattern) {}
  ~Pattern() {
    if (p) FcPatternDestroy(p);
  }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;
};

struct Matched {
  std::string file, postscript;
  int index = 0;
  bool operator==(const Matched& o) const { return file == o.file && index == o.index; }
};

// The face fc-match gives for `pattern`.
std::optional<Matched> Match(FcPattern* pattern) {
  Pattern p(FcPatternDuplicate(pattern));
  if (!p.p || !FcConfigSubstitute(nullptr, p.p, FcMatchPattern)) return std::nullopt;
  FcDefaultSubstitute(p.p);
  FcResult result = FcResultNoMatch;
  Pattern m(FcFontMatch(nullptr, p.p, &result));
  FcChar8* file = nullptr;
  if (!m.p || FcPatternGetString(m.p, FC_FILE, 0, &file) != FcResultMatch) return std::nullopt;
  Matched matched;
  matched.file = reinterpret_cast<const char*>(file);
  FcPatternGetInteger(m.p, FC_INDEX, 0, &matched.index);
  FcChar8* postscript = nullptr;
  if (FcPatternGetString(m.p, FC_POSTSCRIPT_NAME, 0, &postscript) == FcResultMatch)
    matched.postscript = reinterpret_cast<const char*>(postscript);
  return matched;
}

// Adds a style people type: words fontconfig knows as constants ("bold italic", "semibold",
// "condensed") become weight, slant and width; anything else is matched as the style name.
void AddStyle(FcPattern* pattern, const std::string& style) {
  auto constant = [](const std::string& word) {
    return FcNameGetConstant(reinterpret_cast<const FcChar8*>(word.c_str()));
  };
  std::vector<const FcConstant*> constants;
  if (const FcConstant* whole = constant(FoldedName(style))) {
    constants.push_back(whole);
  } else {
    std::istringstream words(style);
    for (std::string word; words >> word;) {
      const FcConstant* c = constant(LowerCase(word));
      if (!c) {
        FcPatternDel(pattern, FC_STYLE);
        FcPatternAddString(pattern, FC_STYLE, reinterpret_cast<const FcChar8*>(style.c_str()));
        return;
      }
      constants.push_back(c);
    }
  }
  for (const FcConstant* c : constants) {
    FcPatternDel(pattern, c->object);
    FcPatternAddInteger(pattern, c->object, c->value);
  }
}

bool IsGenericFamily(const std::string& family) {
  static const std::set<std::string> kGeneric = {"serif",   "sans-serif", "sans",      "monospace", "mono",
                                                 "cursive", "fantasy",    "system-ui", "emoji",     "math"};
  return kGeneric.count(LowerCase(family)) > 0;
}

class Resolver {
 public:
  Resolver(const std::vector<const HostFont*>& fonts, std::string typed, std::string style)
      : fonts_(fonts), typed_(std::move(typed)), style_(std::move(style)) {
    for (const HostFont* f : fonts_) families_[FoldedName(f->family)].push_back(f);
  }

  ResolvedFont Resolve() {
    // A unique name, exact before any case; with a style, another face of its family.
    for (const bool exact : {true, false})
      for (const HostFont* f : fonts_)
        if (exact ? f->unique_name == typed_ : LowerCase(f->unique_name) == LowerCase(typed_))
          return style_.empty() ? ResolvedFont{f, ""} : FromFamily(f->family, style_);
    if (auto file = FromFile()) return *file;
    if (typed_.find(':') == std::string::npos) {
      // The longest run of leading words that names a family; the words after it are a style.
      std::vector<std::string> words;
      std::istringstream in(typed_);
      for (std::string w; in >> w;) words.push_back(w);
      for (size_t n = words.size(); n > 0; --n) {
        std::string family, style;
        for (size_t k = 0; k < words.size(); ++k) (k < n ? family : style) += (k ? " " : "") + words[k];
        if (families_.count(FoldedName(family))) return FromFamily(family, Trimmed(style + " " + style_));
      }
    }
    return FromPattern();
  }

 private:
  static std::string Trimmed(const std::string& text) {
    const size_t a = text.find_first_not_of(' '), b = text.find_last_not_of(' ');
    return a == std::string::npos ? "" : text.substr(a, b - a + 1);
  }

  std::optional<ResolvedFont> FromFile() {
    namespace fs = std::filesystem;
    std::error_code ec;
    if (typed_.find('/') == std::string::npos || !fs::is_regular_file(typed_, ec)) return std::nullopt;
    const fs::path wanted = fs::canonical(typed_, ec);
    std::vector<const HostFont*> faces;
    for (const HostFont* f : fonts_)
      if (fs::canonical(f->file, ec) == wanted) faces.push_back(f);
    if (faces.empty()) throw UnknownFont(typed_ + " holds no face the services use (fontrix fonts --all says why)");
    std::sort(faces.begin(), faces.end(), [](auto* a, auto* b) { return a->face_index < b->face_index; });
    if (!style_.empty())
      for (const HostFont* f : faces)
        if (FoldedName(f->style) == FoldedName(style_)) return ResolvedFont{f, ""};
    return ResolvedFont{faces[0], faces.size() == 1 ? ""
                                                    : typed_ + " holds " + std::to_string(faces.size()) +
                                                          " faces; using the first, " + faces[0]->unique_name};
  }

  ResolvedFont FromFamily(const std::string& family, const std::string& style) {
    const std::vector<const HostFont*>& faces = families_[FoldedName(family)];
    if (faces.size() == 1 && style.empty()) return {faces[0], ""};
    for (const HostFont* f : faces)
      if (!style.empty() && FoldedName(f->style) == FoldedName(style)) return {f, ""};
    Pattern pattern(FcPatternCreate());
    FcPatternAddString(pattern.p, FC_FAMILY, reinterpret_cast<const FcChar8*>(faces[0]->family.c_str()));
    if (!style.empty()) AddStyle(pattern.p, style);
    const HostFont* chosen = Face(Match(pattern.p));
    if (!chosen || FoldedName(chosen->family) != FoldedName(family)) chosen = Regular(faces);
    const std::string asked = style.empty() ? family : family + " " + style;
    return {chosen, "'" + asked + "' is one of " + std::to_string(faces.size()) + " faces of " + faces[0]->family +
                        "; using " + Describe(*chosen) + ", as fc-match does"};
  }

  // A fontconfig pattern when the text has a ':'; otherwise the whole text is a family name
  // (fontconfig would read "Name-Bold" as a family and a size).
  ResolvedFont FromPattern() {
    Pattern pattern(typed_.find(':') != std::string::npos
                        ? FcNameParse(reinterpret_cast<const FcChar8*>(typed_.c_str()))
                        : FcPatternCreate());
    if (pattern.p && typed_.find(':') == std::string::npos)
      FcPatternAddString(pattern.p, FC_FAMILY, reinterpret_cast<const FcChar8*>(typed_.c_str()));
    FcChar8* family = nullptr;
    if (!pattern.p || FcPatternGetString(pattern.p, FC_FAMILY, 0, &family) != FcResultMatch) Unknown();
    const std::string asked = reinterpret_cast<const char*>(family);
    if (!style_.empty()) AddStyle(pattern.p, style_);
    if (families_.count(FoldedName(asked))) {
      const HostFont* chosen = Face(Match(pattern.p));
      if (chosen && FoldedName(chosen->family) == FoldedName(asked))
        return {chosen, "'" + typed_ + "' is " + Describe(*chosen) + ", as fc-match gives it"};
    }
    // A name fontconfig does not know falls back to its default font; a name it substitutes
    // (an alias or a generic family) gives another face than an unknown family would.
    const std::optional<Matched> matched = Match(pattern.p);
    FcPatternDel(pattern.p, FC_FAMILY);
    FcPatternAddString(pattern.p, FC_FAMILY, reinterpret_cast<const FcChar8*>("fontrix-no-such-family"));
    const std::optional<Matched> fallback = Match(pattern.p);
    const HostFont* chosen = Face(matched);
    if (!chosen || (!IsGenericFamily(asked) && matched == fallback)) Unknown();
    return {chosen, "no installed family is named '" + asked + "'; fontconfig substitutes " + Describe(*chosen)};
  }

  // Our face for fontconfig's match: by file and index, else (a copy in another file) by name.
  const HostFont* Face(const std::optional<Matched>& matched) const {
    if (!matched) return nullptr;
    for (const HostFont* f : fonts_)
      if (f->file == matched->file && f->face_index == matched->index) return f;
    for (const HostFont* f : fonts_)
      if (!matched->postscript.empty() && f->unique_name == matched->postscript) return f;
    return nullptr;
  }

  static const HostFont* Regular(const std::vector<const HostFont*>& faces) {
    for (const char* style : {"regular", "roman", "book", "normal", "medium"})
      for (const HostFont* f : faces)
        if (FoldedName(f->style) == style) return f;
    return faces[0];
  }

  static std::string Describe(const HostFont& f) { return f.unique_name + " (" + f.family + " " + f.style + ")"; }

  [[noreturn]] void Unknown() const {
    std::vector<std::string> names, families;
    std::map<std::string, const HostFont*> regular;  // family -> its regular face
    for (const HostFont* f : fonts_) {
      names.push_back(f->unique_name);
      if (!regular.count(f->family)) {
        families.push_back(f->family);
        regular[f->family] = Regular(families_.at(FoldedName(f->family)));
      }
    }
    std::vector<std::string> close;
    for (const std::string& family : CloseNames(families, typed_, 3)) close.push_back(regular[family]->unique_name);
    for (const std::string& name : CloseNames(names, typed_, 5))
      if (std::find(close.begin(), close.end(), name) == close.end()) close.push_back(name);
    std::string list;
    for (size_t i = 0; i < close.size() && i < 6; ++i) list += (i ? ", " : "") + close[i];
    throw UnknownFont("no installed font is named '" + typed_ + "'" +
                      (list.empty() ? " (fontrix fonts lists them)" : "; close names: " + list));
  }

  const std::vector<const HostFont*>& fonts_;
  const std::string typed_, style_;
  std::unordered_map<std::string, std::vector<const HostFont*>> families_;  // by folded family name
};

}  // namespace

ResolvedFont ResolveFont(const std::vector<const HostFont*>& fonts, const std::string& typed,
                         const std::string& style) {
  return Resolver(fonts, typed, style).Resolve();
}

FontFilter::FontFilter(const std::string& pattern) {
  if (pattern.find(':') == std::string::npos) text_ = LowerCase(pattern);
  Pattern parsed(FcNameParse(reinterpret_cast<const FcChar8*>(pattern.c_str())));
  if (!parsed.p) return;
  FcObjectSet* objects = FcObjectSetBuild(FC_FILE, FC_INDEX, nullptr);
  FcFontSet* set = objects ? FcFontList(nullptr, parsed.p, objects) : nullptr;
  if (objects) FcObjectSetDestroy(objects);
  if (!set) return;
  for (int i = 0; i < set->nfont; ++i) {
    FcChar8* file = nullptr;
    int index = 0;
    if (FcPatternGetString(set->fonts[i], FC_FILE, 0, &file) != FcResultMatch) continue;
    FcPatternGetInteger(set->fonts[i], FC_INDEX, 0, &index);
    listed_.emplace(reinterpret_cast<const char*>(file), index);
  }
  FcFontSetDestroy(set);
}

bool FontFilter::operator()(const HostFont& font) const {
  if (listed_.count({font.file, font.face_index})) return true;
  return !text_.empty() && (LowerCase(font.unique_name).find(text_) != std::string::npos ||
                            LowerCase(font.family).find(text_) != std::string::npos);
}

}  // namespace fontrix::host
