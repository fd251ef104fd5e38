#pragma once
// Recognition of installed fonts that no class of the recognition network names (the user's own
// and commercial fonts, faces packaged after the network was trained). When the module indexes
// the fonts it draws a line of text in each installed font through the host's glue, reads it
// with the recognition network as it reads a picture, and keeps what the network's trunk saw
// ("pool4", mean over the crops, unit length) in "FontRecognitionLines.bin" in the user's cache
// folder. A picture's reading is then compared with every kept line; a font no class names is put
// among the network's answer before the first answer whose line the picture matches less well.
// The network's answer itself is unchanged: its order among the fonts it names stays.
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "hostglue/font_access.h"
#include "recognition/line_scoring.h"

namespace fontrix {

constexpr const char* kInstalledLinesFileName = "FontRecognitionLines.bin";

/// The text drawn for each font: lower case with some capitals and figures, in no picture
/// we measure with.
constexpr const char* kInstalledLineText = "Handgloves quietly fix 27 jumbo Rivets";
/// Pixels to the em it is drawn at; the reading brings every line to 109 rows anyway.
constexpr double kInstalledLineSize = 64;

/// Draws the line of `font`, black on white with margins of a quarter of an em; false when the
/// font lacks one of its letters or cannot draw it (no ink, an engine failure).
bool DrawInstalledLine(hostglue::FontAccess& fonts, QVFontHandle font, GreyRaster& line);

/// The kept reading of one font's line.
struct InstalledLine {
  std::string name;
  std::vector<float> features;  // unit length; empty for a font that cannot draw its line
};

struct InstalledLinesFileError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What names the network the lines were read with, so that lines another network read are read
/// again: the check sum of its file (shell/check_sum.h), and for files of the older version 2 the
/// FNV-1a hash of its bytes, worked out only when such a file is read. 0 (and no hash) when the
/// file cannot be read.
struct NetworkPrint {
  uint64_t sum = 0;
  std::function<uint64_t()> fnv;
};
NetworkPrint NetworkFingerprint(const std::string& path);

/// The lines kept in `path` for `network` (all of one size: the network's). A missing file, or
/// one written for another network, holds none; a damaged one (not ours, cut short, a name twice,
/// values that are not a unit vector, a line that does not match its check sum) or one that cannot
/// be read (a folder in its place) throws InstalledLinesFileError. `older`, when given, says the
/// lines came from a file of the older version, to be written anew.
std::vector<InstalledLine> ReadInstalledLines(const std::string& path, const NetworkPrint& network,
                                              bool* older = nullptr);
/// Same, from bytes (the fuzzer).
std::vector<InstalledLine> ParseInstalledLines(std::string_view bytes, const NetworkPrint& network,
                                               bool* older = nullptr);
/// Writes the lines through a temporary file renamed over `path`; throws std::runtime_error.
void WriteInstalledLines(const std::string& path, uint64_t fingerprint, const std::vector<InstalledLine>& lines);

/// The answer with fonts no class names merged in. `answer`: the network's answer, installed
/// font indices in order; `likeness`: per installed font, the dot product of the picture's
/// reading with the font's kept line (below 0 when none is kept); `named`: per installed font,
/// whether a class of the network names it. Each unnamed font with a line goes before the first
/// answer from which on it exceeds every answer's likeness by more than `margin` (an answer
/// without a line counts as 0), those of one place by likeness; an unnamed font already in the
/// answer moves up, never down.
/// The rest of the unnamed fonts with lines follow the answer by likeness. At most `most` fonts.
std::vector<int32_t> MergeInstalledLines(const std::vector<int32_t>& answer, const std::vector<float>& likeness,
                                         const std::vector<bool>& named, float margin, size_t most);

/// One place of an answer with known faces merged in: answer `index` (known false) or known
/// face `index` (known true).
struct MergedPlace {
  bool known = false;
  size_t index = 0;
};
/// The answer with faces that are known but not installed merged in, at most `most` places.
/// `answerBar`: per answer, in order, the likeness a known face must exceed to go before it (its
/// line's likeness and a margin); `knownLikeness`: per known face, its line's. A known face goes
/// before the first answer from which on it exceeds every answer's bar, those of one place by
/// likeness; the answers keep their order. Known faces that go before none follow the answer.
std::vector<MergedPlace> MergeKnownFaces(const std::vector<double>& answerBar, const std::vector<float>& knownLikeness,
                                         size_t most);

}  // namespace fontrix
