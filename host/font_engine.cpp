// The font engine's font procedures over FreeType: usability, metrics, style, glyph lookup,
// boxes, advances, outlines and 1-bit glyph bitmaps; and the table of every engine procedure.
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_ADVANCES_H
#include FT_BBOX_H
#include FT_MULTIPLE_MASTERS_H
#include FT_OUTLINE_H
#include FT_TRUETYPE_TABLES_H
#include FT_TRUETYPE_TAGS_H
#include FT_TYPE1_TABLES_H

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "host/engine.h"

namespace fontrix::host {

double OutlineScale(FT_Face face) {
  if (!FT_IS_SCALABLE(face) || face->units_per_EM == 0) throw EngineError{kQVBadParameterErr};
  return 1000.0 / face->units_per_EM;
}

namespace {

// Unscaled outlines in font units; FT_LOAD_NO_SCALE also means no hinting.
constexpr FT_Int32 kUnscaled = FT_LOAD_NO_SCALE | FT_LOAD_NO_BITMAP;

void Require(bool ok, QVErr code = kQVBadParameterErr) {
  if (!ok) throw EngineError{code};
}

// Loads the unscaled outline of `glyph` into the face's glyph slot.
void LoadOutline(FT_Face face, uint32_t glyph) {
  OutlineScale(face);
  Require(glyph < uint32_t(face->num_glyphs), kQVNotFoundErr);
  Require(FT_Load_Glyph(face, glyph, kUnscaled) == 0 && face->glyph->format == FT_GLYPH_FORMAT_OUTLINE);
}

// The glyph of a Unicode character; 0 when none. FreeType picks a Unicode cmap when it opens a
// face, one made from the glyph names for Type 1 fonts.
FT_UInt CharIndex(FT_Face face, FT_ULong code) {
  if ((!face->charmap || face->charmap->encoding != FT_ENCODING_UNICODE) &&
      FT_Select_Charmap(face, FT_ENCODING_UNICODE) != 0)
    return 0;
  return FT_Get_Char_Index(face, code);
}

bool MapsLatinLetters(FT_Face face) {
  for (char c = 'a'; c <= 'z'; ++c)
    if (!CharIndex(face, FT_ULong(c)) || !CharIndex(face, FT_ULong(c - 'a' + 'A'))) return false;
  return true;
}

FT_BBox ExactBox(FT_Face face) {
  FT_BBox box{};
  FT_Outline_Get_BBox(&face->glyph->outline, &box);
  return box;
}

const TT_OS2* Os2(FT_Face face) { return static_cast<const TT_OS2*>(FT_Get_Sfnt_Table(face, FT_SFNT_OS2)); }
const TT_Postscript* Post(FT_Face face) {
  return static_cast<const TT_Postscript*>(FT_Get_Sfnt_Table(face, FT_SFNT_POST));
}

// The current design coordinates of a variable font's weight, slant and italic axes.
struct Axes {
  std::optional<double> wght, slnt, ital;
};

Axes AxesOf(FT_Face face) {
  Axes axes;
  FT_MM_Var* mm = nullptr;
  if (!FT_HAS_MULTIPLE_MASTERS(face) || FT_Get_MM_Var(face, &mm) != 0) return axes;
  std::vector<FT_Fixed> coords(mm->num_axis);
  if (FT_Get_Var_Design_Coordinates(face, mm->num_axis, coords.data()) == 0) {
    for (FT_UInt i = 0; i < mm->num_axis; ++i) {
      const double value = coords[i] / 65536.0;
      if (mm->axis[i].tag == FT_MAKE_TAG('w', 'g', 'h', 't')) axes.wght = value;
      if (mm->axis[i].tag == FT_MAKE_TAG('s', 'l', 'n', 't')) axes.slnt = value;
      if (mm->axis[i].tag == FT_MAKE_TAG('i', 't', 'a', 'l')) axes.ital = value;
    }
  }
  FT_Done_MM_Var(face->glyph->library, mm);
  return axes;
}

// Degrees counter-clockwise from vertical: the slant axis of a variable font (whose values
// are exactly that), else the post table, else Type 1 FontInfo.
double ItalicAngle(FT_Face face) {
  if (const auto slnt = AxesOf(face).slnt) return *slnt;
  if (const TT_Postscript* post = Post(face)) return post->italicAngle / 65536.0;
  PS_FontInfoRec info{};
  if (FT_Get_PS_Font_Info(face, &info) == 0) return double(info.italic_angle);
  return 0;
}

// ---- StdVW of a CFF font's Private DICT, which FreeType does not expose

// One CFF DICT, read until `wanted` operator: its operands, or nothing.
std::optional<std::vector<double>> DictOperands(const uint8_t* p, const uint8_t* end, int wanted) {
  std::vector<double> operands;
  while (p < end) {
    const int b0 = *p++;
    if (b0 <= 21) {
      int op = b0;
      if (b0 == 12) {
        if (p >= end) return std::nullopt;
        op = 1200 + *p++;
      }
      if (op == wanted) return operands;
      operands.clear();
    } else if (b0 == 28 || b0 == 29) {
      const int bytes = b0 == 28 ? 2 : 4;
      if (end - p < bytes) return std::nullopt;
      int32_t v = 0;
      for (int i = 0; i < bytes; ++i) v = int32_t(uint32_t(v) << 8 | p[i]);
      operands.push_back(b0 == 28 ? int16_t(v) : v);
      p += bytes;
    } else if (b0 == 30) {  // real number: nibbles up to 0xf
      std::string text;
      for (bool done = false; !done && p < end; ++p) {
        for (const int nibble : {*p >> 4, *p & 15}) {
          if (nibble <= 9) text += char('0' + nibble);
          if (nibble == 10) text += '.';
          if (nibble == 11) text += 'E';
          if (nibble == 12) text += "E-";
          if (nibble == 14) text += '-';
          if (nibble == 15) {
            done = true;
            break;
          }
        }
      }
      operands.push_back(std::strtod(text.c_str(), nullptr));
    } else if (b0 >= 32 && b0 <= 246) {
      operands.push_back(b0 - 139);
    } else if (b0 >= 247 && b0 <= 254) {
      if (p >= end) return std::nullopt;
      const int magnitude = (b0 - (b0 <= 250 ? 247 : 251)) * 256 + *p++ + 108;
      operands.push_back(b0 <= 250 ? magnitude : -magnitude);
    } else {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

// The first element of the CFF INDEX at `pos`, as [begin, end) offsets into the table.
std::optional<std::pair<size_t, size_t>> FirstIndexElement(const std::vector<uint8_t>& cff, size_t pos, size_t* after) {
  if (pos + 3 > cff.size()) return std::nullopt;
  const size_t count = size_t(cff[pos]) << 8 | cff[pos + 1];
  if (count == 0) return std::nullopt;
  const size_t off_size = cff[pos + 2];
  if (off_size < 1 || off_size > 4 || pos + 3 + (count + 1) * off_size > cff.size()) return std::nullopt;
  auto offset = [&](size_t i) {
    size_t v = 0;
    for (size_t k = 0; k < off_size; ++k) v = v << 8 | cff[pos + 3 + i * off_size + k];
    return v;
  };
  const size_t data = pos + 3 + (count + 1) * off_size - 1;  // offsets count from 1
  const size_t begin = data + offset(0), end = data + offset(1), last = data + offset(count);
  if (begin > end || end > cff.size() || last > cff.size()) return std::nullopt;
  *after = last;
  return std::make_pair(begin, end);
}

std::optional<double> CffStdVW(FT_Face face) {
  FT_ULong length = 0;
  if (FT_Load_Sfnt_Table(face, TTAG_CFF, 0, nullptr, &length) != 0 || length < 4) return std::nullopt;
  std::vector<uint8_t> cff(length);
  if (FT_Load_Sfnt_Table(face, TTAG_CFF, 0, cff.data(), &length) != 0) return std::nullopt;
  size_t after_names = 0, unused = 0;
  if (!FirstIndexElement(cff, cff[2], &after_names)) return std::nullopt;  // Name INDEX after the header
  const auto top = FirstIndexElement(cff, after_names, &unused);
  if (!top) return std::nullopt;
  const auto priv = DictOperands(cff.data() + top->first, cff.data() + top->second, 18);  // Private: size offset
  if (!priv || priv->size() != 2 || (*priv)[0] < 0 || (*priv)[1] < 0 || (*priv)[0] + (*priv)[1] > double(length))
    return std::nullopt;
  const uint8_t* begin = cff.data() + size_t((*priv)[1]);
  const auto stdvw = DictOperands(begin, begin + size_t((*priv)[0]), 11);
  if (!stdvw || stdvw->size() != 1 || stdvw->front() <= 0) return std::nullopt;
  return stdvw->front();
}

// ---- the estimate from a glyph: the first run of ink a horizontal line at half the glyph's
// height crosses, on the outline flattened to straight segments

struct Crossings {
  double y = 0;
  double last_x = 0, last_y = 0;
  std::vector<double> xs;
  void Segment(double x0, double y0, double x1, double y1) {
    if ((y0 <= y) != (y1 <= y)) xs.push_back(x0 + (y - y0) * (x1 - x0) / (y1 - y0));
  }
  void To(double x, double y1) {
    Segment(last_x, last_y, x, y1);
    last_x = x;
    last_y = y1;
  }
};

std::optional<double> MeasuredStem(FT_Face face) {
  for (const FT_ULong code : {FT_ULong('l'), FT_ULong('I')}) {
    const FT_UInt glyph = CharIndex(face, code);
    if (!glyph || FT_Load_Glyph(face, glyph, kUnscaled) != 0 || face->glyph->format != FT_GLYPH_FORMAT_OUTLINE)
      continue;
    const FT_BBox box = ExactBox(face);
    Crossings c;
    c.y = (box.yMin + box.yMax) / 2.0 + 0.25;  // off the integer grid of the points
    FT_Outline_Funcs funcs{};
    funcs.move_to = [](const FT_Vector* to, void* user) {
      auto* c = static_cast<Crossings*>(user);
      c->last_x = double(to->x);
      c->last_y = double(to->y);
      return 0;
    };
    funcs.line_to = [](const FT_Vector* to, void* user) {
      static_cast<Crossings*>(user)->To(double(to->x), double(to->y));
      return 0;
    };
    funcs.conic_to = [](const FT_Vector* q, const FT_Vector* to, void* user) {
      auto* c = static_cast<Crossings*>(user);
      const double x0 = c->last_x, y0 = c->last_y;
      for (int i = 1; i <= 16; ++i) {
        const double t = i / 16.0, u = 1 - t;
        c->To(u * u * x0 + 2 * u * t * q->x + t * t * to->x, u * u * y0 + 2 * u * t * q->y + t * t * to->y);
      }
      return 0;
    };
    funcs.cubic_to = [](const FT_Vector* p1, const FT_Vector* p2, const FT_Vector* to, void* user) {
      auto* c = static_cast<Crossings*>(user);
      const double x0 = c->last_x, y0 = c->last_y;
      for (int i = 1; i <= 16; ++i) {
        const double t = i / 16.0, u = 1 - t;
        c->To(u * u * u * x0 + 3 * u * u * t * p1->x + 3 * u * t * t * p2->x + t * t * t * to->x,
              u * u * u * y0 + 3 * u * u * t * p1->y + 3 * u * t * t * p2->y + t * t * t * to->y);
      }
      return 0;
    };
    // FT_Outline_Decompose closes every contour with a segment back to its start.
    if (FT_Outline_Decompose(&face->glyph->outline, &funcs, &c) != 0 || c.xs.size() < 2) continue;
    std::sort(c.xs.begin(), c.xs.end());
    return c.xs[1] - c.xs[0];
  }
  return std::nullopt;
}

// The dominant vertical stem in font units: StdVW of a Type 1 or CFF Private DICT when there
// is one; otherwise (TrueType, CFF2, no StdVW) the horizontal thickness of 'l' (else 'I') at
// half its height, which for an italic is the stem's width along the baseline; 0 without both.
double StemV(FT_Face face) {
  FT_UShort stdvw = 0;
  if (FT_Get_PS_Font_Value(face, PS_DICT_STD_VW, 0, &stdvw, sizeof stdvw) > 0 && stdvw > 0) return stdvw;
  if (const auto cff = CffStdVW(face)) return *cff;
  return MeasuredStem(face).value_or(0);
}

// ---- the names of glyphs: what fonts without glyph names are asked for, by Unicode

// The standard glyph names of printable ASCII, U+0020 to U+007E, in order.
constexpr const char kAsciiNames[] =
    "space exclam quotedbl numbersign dollar percent ampersand quotesingle parenleft parenright asterisk plus "
    "comma hyphen period slash zero one two three four five six seven eight nine colon semicolon less equal "
    "greater question at A B C D E F G H I J K L M N O P Q R S T U V W X Y Z bracketleft backslash "
    "bracketright asciicircum underscore grave a b c d e f g h i j k l m n o p q r s t u v w x y z braceleft "
    "bar braceright asciitilde";

// The character a glyph name stands for: an ASCII name above, "uniXXXX" or "uXXXX[XX]".
std::optional<FT_ULong> NameToUnicode(const std::string& name) {
  FT_ULong code = 0x20;
  for (const char* p = kAsciiNames; *p; ++code) {
    const size_t length = std::strcspn(p, " ");
    if (name.size() == length && name.compare(0, length, p, length) == 0) return code;
    p += length + (p[length] == ' ');
  }
  auto hex = [](const std::string& digits) -> std::optional<FT_ULong> {
    if (digits.empty() || digits.find_first_not_of("0123456789ABCDEF") != std::string::npos) return std::nullopt;
    const FT_ULong value = std::strtoul(digits.c_str(), nullptr, 16);
    if (value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return std::nullopt;
    return value;
  };
  if (name.size() == 7 && name.compare(0, 3, "uni") == 0) return hex(name.substr(3));
  if (name.size() >= 5 && name.size() <= 7 && name[0] == 'u') return hex(name.substr(1));
  return std::nullopt;
}

// ---- outlines

struct PathWriter {
  QVPathSink* sink;
  double a, b, c, d;  // the matrix divided by units per em: font units to output
  bool open = false;
  double x = 0, y = 0;  // current point, font units

  void Emit(void (*proc)(void*, double, double), double px, double py) const {
    proc(sink->context, a * px + c * py, b * px + d * py);
  }
  void Close() {
    if (open) sink->closePath(sink->context);
    open = false;
  }
  void MoveTo(double px, double py) {
    Close();
    Emit(sink->moveTo, px, py);
    open = true;
    x = px;
    y = py;
  }
  void LineTo(double px, double py) {
    if (px == x && py == y) return;  // FreeType's closing segment of a contour that already ends at its start
    Emit(sink->lineTo, px, py);
    x = px;
    y = py;
  }
  void CubicTo(double x1, double y1, double x2, double y2, double px, double py) {
    sink->cubicTo(sink->context, a * x1 + c * y1, b * x1 + d * y1, a * x2 + c * y2, b * x2 + d * y2, a * px + c * py,
                  b * px + d * py);
    x = px;
    y = py;
  }
};

bool FiniteMatrix(const double* m) {
  return m && std::isfinite(m[0]) && std::isfinite(m[1]) && std::isfinite(m[2]) && std::isfinite(m[3]);
}

// ---- 1-bit bitmaps: the host owns their bits until ReleaseGlyphBitmap

std::mutex bitmaps_mu;
std::unordered_set<void*> bitmaps;

// ---- the procedures

QVErr IsFontUsable(QVFontHandle font, QVBool* usable) {
  if (!usable) return kQVBadParameterErr;
  *usable = 0;
  return Guarded([&](Host::Impl& h) {
    const HostFont* record = h.FontOf(font);
    if (!record) return kQVBadParameterErr;
    if (record->usable >= 0) {
      *usable = record->usable == 1;
      return kQVNoErr;
    }
    {
      std::lock_guard<std::mutex> lock(h.usable_mu);
      if (auto it = h.usable.find(record); it != h.usable.end()) {
        *usable = it->second;
        return kQVNoErr;
      }
    }
    FaceCache::Lease lease = h.faces->Borrow(record->file, record->face_index);
    FT_Face face = lease.face();
    bool answer = false;
    if (face && FT_IS_SCALABLE(face) && face->units_per_EM != 0 && face->num_glyphs >= 1) {
      FT_UInt glyph = CharIndex(face, 'a');
      if (!glyph && face->num_glyphs > 1) glyph = 1;
      answer = FT_Load_Glyph(face, glyph, kUnscaled) == 0 && face->glyph->format == FT_GLYPH_FORMAT_OUTLINE;
    }
    std::lock_guard<std::mutex> lock(h.usable_mu);
    h.usable[record] = answer;
    *usable = answer;
    return kQVNoErr;
  });
}

// Ascent and descent: OS/2 typographic values when the font sets them, else FreeType's
// (hhea for TrueType and OpenType, the font box for Type 1).
QVErr GetFontMetrics(QVFontHandle font, QVFontMetrics* metrics) {
  if (!metrics) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    FT_Face face = lease.face();
    const double scale = OutlineScale(face);
    QVFontMetrics m{};
    const TT_OS2* os2 = Os2(face);
    const bool typo = os2 && (os2->sTypoAscender != 0 || os2->sTypoDescender != 0);
    m.ascent = (typo ? os2->sTypoAscender : face->ascender) * scale;
    m.descent = (typo ? os2->sTypoDescender : face->descender) * scale;
    m.italicAngle = ItalicAngle(face);
    if (os2 && os2->version >= 2 && os2->version != 0xFFFF && os2->sxHeight > 0) {
      m.xHeight = os2->sxHeight * scale;
    } else if (const FT_UInt x = CharIndex(face, 'x')) {
      LoadOutline(face, x);
      m.xHeight = ExactBox(face).yMax * scale;
    }
    m.stemV = StemV(face) * scale;
    *metrics = m;
    return kQVNoErr;
  });
}

// The post table's values: the top of the underline and its thickness. Type 1 FontInfo gives
// the underline's centre, moved up by half the thickness to match.
QVErr GetUnderline(QVFontHandle font, double* position, double* thickness) {
  if (!position || !thickness) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    FT_Face face = lease.face();
    const double scale = OutlineScale(face);
    double top = face->underline_position + face->underline_thickness / 2.0, thick = face->underline_thickness;
    PS_FontInfoRec info{};
    if (const TT_Postscript* post = Post(face)) {
      top = post->underlinePosition;
      thick = post->underlineThickness;
    } else if (FT_Get_PS_Font_Info(face, &info) == 0) {
      top = info.underline_position + info.underline_thickness / 2.0;
      thick = info.underline_thickness;
    }
    *position = top * scale;
    *thickness = thick * scale;
    return kQVNoErr;
  });
}

// Serif and script from OS/2 sFamilyClass, else from PANOSE (Latin text: serif styles 2-10;
// Latin hand written: script); Type 1 fonts have neither. Italic and bold from FreeType's style
// flags, from the weight, slant and italic axes of a variable font, and from the italic angle.
QVErr GetFontStyle(QVFontHandle font, QVFontStyle* style) {
  if (!style) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    FT_Face face = lease.face();
    uint32_t flags = 0;
    const TT_OS2* os2 = Os2(face);
    const TT_Postscript* post = Post(face);
    if (FT_IS_FIXED_WIDTH(face) || (post && post->isFixedPitch)) flags |= kQVFontFlagFixedPitch;
    if (os2) {
      const int family_class = os2->sFamilyClass >> 8;
      const bool classified = family_class != 0;
      if ((family_class >= 1 && family_class <= 5) || family_class == 7) flags |= kQVFontFlagSerif;
      if (family_class == 10) flags |= kQVFontFlagScript;
      if (!classified && os2->panose[0] == 2 && os2->panose[1] >= 2 && os2->panose[1] <= 10) flags |= kQVFontFlagSerif;
      if (!classified && os2->panose[0] == 3) flags |= kQVFontFlagScript;
    }
    flags |= MapsLatinLetters(face) ? kQVFontFlagNonsymbolic : kQVFontFlagSymbolic;

    bool bold = face->style_flags & FT_STYLE_FLAG_BOLD;
    bool italic = (face->style_flags & FT_STYLE_FLAG_ITALIC) || (os2 && (os2->fsSelection & (1 << 9)));
    const Axes axes = AxesOf(face);
    if (axes.wght) bold = *axes.wght >= 600;
    if (axes.slnt || axes.ital) italic = (axes.slnt && *axes.slnt != 0) || (axes.ital && *axes.ital >= 0.5);
    if (ItalicAngle(face) != 0) italic = true;
    if (italic) flags |= kQVFontFlagItalic;
    style->flags = flags;
    style->style = (bold ? kQVFontStyleBold : 0) | (italic ? kQVFontStyleItalic : 0);
    return kQVNoErr;
  });
}

QVErr GetGlyphByCode(QVFontHandle font, uint32_t unicode, uint32_t* glyph) {
  if (!glyph) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    const FT_UInt index = CharIndex(lease.face(), unicode);
    if (!index) return kQVNotFoundErr;
    *glyph = index;
    return kQVNoErr;
  });
}

// The font's own glyph names first. Fonts without them (TrueType with a version 3 post table,
// CID fonts), or without that name, are looked up by the character the name stands for in
// the standard glyph list (printable ASCII names and uniXXXX / uXXXXXX), through the Unicode cmap.
QVErr GetGlyphByName(QVFontHandle font, const char* name, uint32_t* glyph) {
  if (!name || !glyph) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    FT_Face face = lease.face();
    FT_UInt index = FT_HAS_GLYPH_NAMES(face) ? FT_Get_Name_Index(face, name) : 0;
    if (!index) {
      if (const auto code = NameToUnicode(name)) index = CharIndex(face, *code);
    }
    if (!index) return kQVNotFoundErr;
    *glyph = index;
    return kQVNoErr;
  });
}

// The exact box of the outline, curve extremes included (not the control points' box).
QVErr GetGlyphBox(QVFontHandle font, uint32_t glyph, QVGlyphBox* box) {
  if (!box) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    FT_Face face = lease.face();
    const double scale = OutlineScale(face);
    LoadOutline(face, glyph);
    const FT_BBox b = ExactBox(face);
    *box = {b.xMin * scale, b.yMin * scale, b.xMax * scale, b.yMax * scale};
    return kQVNoErr;
  });
}

QVErr GetAdvanceWidth(QVFontHandle font, uint32_t glyph, double* advance) {
  if (!advance) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    FT_Face face = lease.face();
    const double scale = OutlineScale(face);
    Require(glyph < uint32_t(face->num_glyphs), kQVNotFoundErr);
    FT_Fixed units = 0;  // font units when unscaled
    Require(FT_Get_Advance(face, glyph, kUnscaled, &units) == 0);
    *advance = double(units) * scale;
    return kQVNoErr;
  });
}

QVErr GetGlyphOutline(QVFontHandle font, uint32_t glyph, const double matrix[4], QVPathSink* sink) {
  if (!FiniteMatrix(matrix) || !sink || !sink->moveTo || !sink->lineTo || !sink->cubicTo || !sink->closePath)
    return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    FT_Face face = lease.face();
    const double em = OutlineScale(face) / 1000.0;
    LoadOutline(face, glyph);
    PathWriter writer{sink, matrix[0] * em, matrix[1] * em, matrix[2] * em, matrix[3] * em};
    FT_Outline_Funcs funcs{};
    funcs.move_to = [](const FT_Vector* to, void* user) {
      static_cast<PathWriter*>(user)->MoveTo(double(to->x), double(to->y));
      return 0;
    };
    funcs.line_to = [](const FT_Vector* to, void* user) {
      static_cast<PathWriter*>(user)->LineTo(double(to->x), double(to->y));
      return 0;
    };
    // A quadratic from p0 over q to p2 is exactly the cubic with controls p0 + 2/3 (q - p0)
    // and p2 + 2/3 (q - p2).
    funcs.conic_to = [](const FT_Vector* q, const FT_Vector* to, void* user) {
      auto* w = static_cast<PathWriter*>(user);
      const double qx = double(q->x), qy = double(q->y), x2 = double(to->x), y2 = double(to->y);
      w->CubicTo(w->x + 2.0 / 3.0 * (qx - w->x), w->y + 2.0 / 3.0 * (qy - w->y), x2 + 2.0 / 3.0 * (qx - x2),
                 y2 + 2.0 / 3.0 * (qy - y2), x2, y2);
      return 0;
    };
    funcs.cubic_to = [](const FT_Vector* c1, const FT_Vector* c2, const FT_Vector* to, void* user) {
      static_cast<PathWriter*>(user)->CubicTo(double(c1->x), double(c1->y), double(c2->x), double(c2->y), double(to->x),
                                              double(to->y));
      return 0;
    };
    Require(FT_Outline_Decompose(&face->glyph->outline, &funcs, &writer) == 0);
    writer.Close();
    return kQVNoErr;
  });
}

// The unscaled outline is mapped to 26.6 pixels here, in doubles, rather than by FT_Set_Char_Size
// and FT_Set_Transform: any matrix, one rounding, and no state left on the face.
QVErr RenderGlyphBitmap(QVFontHandle font, uint32_t glyph, const double matrix[4], QVGlyphBitmap* bitmap) {
  if (!FiniteMatrix(matrix) || !bitmap) return kQVBadParameterErr;
  *bitmap = QVGlyphBitmap{};
  return WithFace(font, [&](FaceCache::Lease& lease) {
    FT_Face face = lease.face();
    const double em = OutlineScale(face) / 1000.0 * 64.0;
    LoadOutline(face, glyph);
    FT_Outline& outline = face->glyph->outline;
    for (int i = 0; i < outline.n_points; ++i) {
      const double x = double(outline.points[i].x), y = double(outline.points[i].y);
      const double px = (matrix[0] * x + matrix[2] * y) * em, py = (matrix[1] * x + matrix[3] * y) * em;
      // Within ±32768 pixels: 26.6 values far from overflowing FreeType's rasters.
      Require(std::fabs(px) < 64.0 * 32768 && std::fabs(py) < 64.0 * 32768);
      outline.points[i].x = FT_Pos(std::lround(px));
      outline.points[i].y = FT_Pos(std::lround(py));
    }
    FT_BBox cbox{};
    FT_Outline_Get_CBox(&outline, &cbox);
    Require((cbox.xMax - cbox.xMin) / 64 < 16384 && (cbox.yMax - cbox.yMin) / 64 < 16384);
    Require(FT_Render_Glyph(face->glyph, FT_RENDER_MODE_MONO) == 0);

    const FT_Bitmap& src = face->glyph->bitmap;
    QVGlyphBitmap out{};
    out.width = int32_t(src.width);
    out.height = int32_t(src.rows);
    out.stride = (out.width + 7) / 8;
    out.left = face->glyph->bitmap_left;
    out.top = face->glyph->bitmap_top;
    const size_t bytes = size_t(out.stride) * size_t(out.height);
    if (bytes > 0) {
      out.bits = static_cast<uint8_t*>(std::malloc(bytes));
      if (!out.bits) return kQVOutOfMemoryErr;
      const size_t pitch = size_t(std::abs(src.pitch));
      for (int32_t row = 0; row < out.height; ++row) {
        // A negative pitch stores the rows bottom first.
        const size_t from = src.pitch >= 0 ? size_t(row) : size_t(out.height - 1 - row);
        std::memcpy(out.bits + size_t(row) * size_t(out.stride), src.buffer + from * pitch, size_t(out.stride));
      }
      try {
        std::lock_guard lock(bitmaps_mu);
        bitmaps.insert(out.bits);
      } catch (...) {
        std::free(out.bits);
        throw;
      }
    }
    *bitmap = out;
    return kQVNoErr;
  });
}

QVErr ReleaseGlyphBitmap(QVGlyphBitmap* bitmap) {
  return EngineCall([&] {
    if (!bitmap) return kQVBadParameterErr;
    if (bitmap->bits) {
      std::lock_guard lock(bitmaps_mu);
      if (!bitmaps.erase(bitmap->bits)) return kQVBadParameterErr;
      std::free(bitmap->bits);
    }
    *bitmap = QVGlyphBitmap{};
    return kQVNoErr;
  });
}

template <typename Proc>
void* Address(Proc proc) {
  return reinterpret_cast<void*>(proc);
}

struct Procedure {
  const char* name;
  void* address;
};

// Each entry converts the function to the header's pointer type first, so a signature that
// drifts from the header fails to compile.
const Procedure kProcedures[] = {
    {kQVProcIsFontUsable, Address<QVIsFontUsableProc>(IsFontUsable)},
    {kQVProcGetFontMetrics, Address<QVGetFontMetricsProc>(GetFontMetrics)},
    {kQVProcGetUnderline, Address<QVGetUnderlineProc>(GetUnderline)},
    {kQVProcGetFontStyle, Address<QVGetFontStyleProc>(GetFontStyle)},
    {kQVProcGetGlyphByCode, Address<QVGetGlyphByCodeProc>(GetGlyphByCode)},
    {kQVProcGetGlyphByName, Address<QVGetGlyphByNameProc>(GetGlyphByName)},
    {kQVProcGetGlyphBox, Address<QVGetGlyphBoxProc>(GetGlyphBox)},
    {kQVProcGetAdvanceWidth, Address<QVGetAdvanceWidthProc>(GetAdvanceWidth)},
    {kQVProcGetGlyphOutline, Address<QVGetGlyphOutlineProc>(GetGlyphOutline)},
    {kQVProcRenderGlyphBitmap, Address<QVRenderGlyphBitmapProc>(RenderGlyphBitmap)},
    {kQVProcReleaseGlyphBitmap, Address<QVReleaseGlyphBitmapProc>(ReleaseGlyphBitmap)},
    {kQVProcMeasureText, Address<QVMeasureTextProc>(EngineMeasureText)},
    {kQVProcNewRasterPort, Address<QVNewRasterPortProc>(EngineNewRasterPort)},
    {kQVProcDrawText, Address<QVDrawTextProc>(EngineDrawText)},
    {kQVProcGetRasterPortPixels, Address<QVGetRasterPortPixelsProc>(EngineGetRasterPortPixels)},
    {kQVProcDisposeRasterPort, Address<QVDisposeRasterPortProc>(EngineDisposeRasterPort)},
    {kQVProcGetRasterPixels, Address<QVGetRasterPixelsProc>(EngineGetRasterPixels)},
};

}  // namespace

void* EngineProcedure(const char* name) {
  for (const Procedure& p : kProcedures)
    if (std::strcmp(p.name, name) == 0) return p.address;
  return nullptr;
}

}  // namespace fontrix::host
