#pragma once
// What the fontconfig source reads from files it does not control: one face of a font file, and
// the listing of faces that earlier runs read (internal header of the host, shared with the
// fuzz targets that feed these readers any bytes).
#include <ft2build.h>
#include FT_FREETYPE_H

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <unordered_map>

#include "host/host.h"

namespace fontrix::host {

/// Face `index` (FreeType's: named instance << 16 | index in the file) of `file`, read as the
/// host lists it: names (a variable font's default face takes its default named instance's),
/// bitmap-only, symbol, usable and outline print; the fontconfig fields keep their defaults.
/// nullopt when FreeType cannot open the face, when it has no name, or when it is fontconfig's
/// whole-font pattern (`variable`) of a font whose named instances are listed on their own.
std::optional<HostFont> ReadFace(FT_Library library, const std::string& file, int index, bool variable);

/// A face file's modification time and size when the face was read.
struct FileStamp {
  int64_t seconds = -1, nanoseconds = -1, size = -1;
  bool operator==(const FileStamp& o) const {
    return seconds == o.seconds && nanoseconds == o.nanoseconds && size == o.size;
  }
};

/// What one read of a face gave, and the stamp of its file then.
struct ListedFaceResult {
  FileStamp stamp;
  std::optional<HostFont> result;
};

/// Listed faces by file and face index, keyed file + '\n' + index.
using FontListing = std::unordered_map<std::string, ListedFaceResult>;

/// The listing file as WriteFontListing writes it: a header line, one line of 13 tab-separated
/// fields per face, with backslash, tab and line feed escaped in names and files, and an end
/// line with the FNV-1a sum of the lines before it. Another header, a line of another field
/// count, a number that does not parse, a missing end line or a sum that differs (the listing
/// was cut short or edited) give an empty listing: every face is read again.
FontListing ReadFontListing(std::istream& in);
void WriteFontListing(std::ostream& out, const FontListing& listing);

}  // namespace fontrix::host
