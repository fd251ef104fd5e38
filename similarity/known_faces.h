#pragma once
// The open faces the module knows whether or not they are installed: every face of the corpus the
// networks were trained on, with where to get it. Their similarity vectors and recognition lines
// were made on a machine where they were installed, through the module's own imaging, and ship
// in the data folder, so that a picture can be named in a font the user lacks and a face a
// document names can be replaced by the installed fonts most like it.
//
// "NQ_known_faces.tsv": "#" comment lines, then the header line kKnownFacesHeader, then one face
// a line, tab-separated: unique name, family, style, CSS weight (1..1000), italic ("0" or "1"),
// source ("debian:PACKAGE" or "npm:@fontsource/ID"), licence, and where its similarity vector is:
// "shipped" (the shipped pair holds a face of that name), a row of "NQ_sim_fea_known.bin", or
// "none". Row i of "NQ_rec_lines_known.bin" is face i's recognition line (zeros: none).
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace fontrix {

constexpr const char* kKnownFacesFileName = "NQ_known_faces.tsv";
constexpr const char* kKnownVectorsFileName = "NQ_sim_fea_known.bin";
constexpr const char* kKnownLinesFileName = "NQ_rec_lines_known.bin";
constexpr const char* kKnownFacesHeader = "unique_name\tfamily\tstyle\tweight\titalic\tsource\tlicence\tvector";

struct KnownFace {
  std::string name, family, style;
  int weight = 400;
  bool italic = false;
  std::string source, licence;
  static constexpr int32_t kShipped = -1, kNone = -2;
  int32_t vectorRow = kNone;  ///< a row of the known vectors, or kShipped, or kNone
};

struct KnownFacesFileError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The faces of the file's text; `source` names it in errors. Throws KnownFacesFileError naming
/// the line for a missing header, a line without its eight fields, an empty name, family or
/// source, a weight or italic out of range, a vector row that is not a number below `vectorRows`
/// or is given twice, and a name given twice.
std::vector<KnownFace> ParseKnownFaces(std::string_view text, const std::string& source, uint32_t vectorRows);
/// ParseKnownFaces on the file `path`; a missing or unreadable file is a KnownFacesFileError.
std::vector<KnownFace> ReadKnownFaces(const std::string& path, uint32_t vectorRows);

/// The faces by unique name.
std::unordered_map<std::string, size_t> KnownFacesByName(const std::vector<KnownFace>& faces);

}  // namespace fontrix
