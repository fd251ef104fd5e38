#pragma once
// The rows the command-line tool answers with, and the three ways they print: tab-separated
// columns, a --format of fields as fc-list's -f takes them, and JSON objects.
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace fontrix::host {

/// The style classes: label strings in bit order, and the short forms people type.
inline constexpr const char* kClassLabels[] = {"fs_blackletter", "fs_decorative", "fs_handmade", "fs_monospace",
                                               "fs_sans_serif",  "fs_script",     "fs_serif",    "fs_slab_serif"};
inline constexpr const char* kClassShortNames[] = {"blackletter", "decorative", "handmade", "monospace",
                                                   "sans-serif",  "script",     "serif",    "slab-serif"};

/// One font of an answer. Score, classes and status are printed only when the command has them.
struct OutputRow {
  std::string name, family, style, file;
  int index = 0, weight = 80, width = 100, slant = 0;  ///< fontconfig's weight, width and slant
  std::optional<double> score;
  std::optional<double> confidence, likeness;  ///< recognize: the chance the answer is right, the line's likeness
  std::optional<uint32_t> classes;             ///< bit i: kClassLabels[i]
  std::optional<std::string> status;           ///< "used", or why the services leave the face out
  std::vector<std::string> same_outlines;      ///< answers folded into this one: the same outlines under other names
  /// recognize: whether the answer is installed (unsaid when only installed fonts were asked
  /// about); for a known face that is not: where to get it, its licence and the installed fonts
  /// most like it.
  std::optional<bool> installed;
  std::string source, licence;
  std::vector<std::string> closest_installed;
  std::optional<std::string> look_alike;  ///< similar: "clone", "revival" or "look-alike" of the family asked about
  uint64_t outline_print = 0;             ///< not printed: what tells faces with the same outlines
};

/// A format error: an unknown field or an unclosed %{.
struct FormatError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Folds answers with the same outlines as a better one under other names (STIX and STIXGeneral:
/// the same outline print and the same score) into that answer's row, which names them.
void FoldSameOutlines(std::vector<OutputRow>& rows);

/// The fields a format may name, in the order --help lists them.
const std::vector<std::string>& FormatFields();
/// Throws FormatError when `format` names a field FormatFields() lacks.
void CheckFormat(const std::string& format);
/// The row through `format`: %{field} is replaced by its value ("" when the row lacks it), \t,
/// \n and \\ are escapes, %% is a percent sign. No line end is added.
std::string FormatRow(const std::string& format, const OutputRow& row);
/// The header line of a format: each field's name in capitals, the text between fields kept.
std::string FormatHeader(const std::string& format);
/// The row as a JSON object: name, family, style, file, index, weight, width, slant, then score,
/// classes (label strings), status, same_outlines (names), installed, source, licence,
/// closest_installed and look_alike where the row has them.
std::string JsonRow(const OutputRow& row);

}  // namespace fontrix::host
