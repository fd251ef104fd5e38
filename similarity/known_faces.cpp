#include "similarity/known_faces.h"

#include <charconv>
#include <unordered_set>

#include "shell/file_bytes.h"
#include "shell/tab_fields.h"

namespace fontrix {

namespace {

constexpr size_t kColumns = 8;

bool ParseInt(const std::string& text, long long low, long long high, long long& value) {
  const char* end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && at == end && value >= low && value <= high;
}

}  // namespace

std::vector<KnownFace> ParseKnownFaces(std::string_view text, const std::string& source, uint32_t vectorRows) {
  std::vector<KnownFace> faces;
  std::unordered_set<std::string_view> names;
  std::unordered_set<int32_t> rows;
  bool header = false;
  size_t number = 0;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string line(text.substr(start, end - start));
    start = end + 1;
    ++number;
    const auto fail = [&](const std::string& what) {
      throw KnownFacesFileError(source + " line " + std::to_string(number) + ": " + what);
    };
    if (line.empty() || line[0] == '#') continue;
    if (!header) {
      if (line != kKnownFacesHeader) fail("the header line of the known faces' columns is missing");
      header = true;
      continue;
    }
    const std::vector<std::string> fields = TabFields(line);
    if (fields.size() != kColumns)
      fail("a face needs " + std::to_string(kColumns) + " tab-separated fields, not " + std::to_string(fields.size()));
    KnownFace face;
    face.name = fields[0];
    face.family = fields[1];
    face.style = fields[2];
    face.source = fields[5];
    face.licence = fields[6];
    if (face.name.empty() || face.family.empty() || face.source.empty())
      fail("a face needs a unique name, a family and a source");
    long long weight = 0, italic = 0, row = 0;
    if (!ParseInt(fields[3], 1, 1000, weight)) fail("the weight '" + fields[3] + "' is not a number from 1 to 1000");
    if (!ParseInt(fields[4], 0, 1, italic)) fail("italic is '" + fields[4] + "', not 0 or 1");
    face.weight = int(weight);
    face.italic = italic == 1;
    if (fields[7] == "shipped") {
      face.vectorRow = KnownFace::kShipped;
    } else if (fields[7] == "none") {
      face.vectorRow = KnownFace::kNone;
    } else if (ParseInt(fields[7], 0, int64_t(vectorRows) - 1, row)) {
      face.vectorRow = int32_t(row);
      if (!rows.insert(face.vectorRow).second) fail("vector row " + fields[7] + " belongs to two faces");
    } else {
      fail("the vector '" + fields[7] + "' is not \"shipped\", \"none\" or a row of the " + std::to_string(vectorRows) +
           " known vectors");
    }
    faces.push_back(std::move(face));
  }
  if (!header) throw KnownFacesFileError(source + " holds no known faces");
  for (const KnownFace& face : faces)
    if (!names.insert(face.name).second)
      throw KnownFacesFileError(source + ": the face " + face.name + " is named twice");
  return faces;
}

std::vector<KnownFace> ReadKnownFaces(const std::string& path, uint32_t vectorRows) {
  return ParseKnownFaces(ReadDataFile<KnownFacesFileError>(path), path, vectorRows);
}

std::unordered_map<std::string, size_t> KnownFacesByName(const std::vector<KnownFace>& faces) {
  std::unordered_map<std::string, size_t> byName;
  byName.reserve(faces.size());
  for (size_t i = 0; i < faces.size(); ++i) byName.emplace(faces[i].name, i);
  return byName;
}

}  // namespace fontrix
