// Fuzz target for the known faces' data: "NQ_known_faces.tsv" (the first byte even) and a file of
// packed vectors (odd), the two halves of what the module reads for faces that are not installed.
// Any bytes must end in faces or vectors, or in the file's error, never a crash, an out-of-bounds
// access or undefined behaviour; what reads must hold only what its reader promises.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "shell/packed_vectors.h"
#include "similarity/known_faces.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  if (data[0] % 2 == 0) {
    const uint32_t rows = data[1];
    std::vector<fontrix::KnownFace> faces;
    try {
      faces = fontrix::ParseKnownFaces(bytes, "fuzz", rows);
    } catch (const fontrix::KnownFacesFileError&) {
      return 0;
    }
    std::set<std::string> names;
    std::set<int32_t> used;
    for (const fontrix::KnownFace& face : faces) {
      FUZZ_CHECK(!face.name.empty() && !face.family.empty() && !face.source.empty());
      FUZZ_CHECK(face.weight >= 1 && face.weight <= 1000);
      FUZZ_CHECK(names.insert(face.name).second);
      FUZZ_CHECK(face.vectorRow == fontrix::KnownFace::kShipped || face.vectorRow == fontrix::KnownFace::kNone ||
                 (face.vectorRow >= 0 && uint32_t(face.vectorRow) < rows && used.insert(face.vectorRow).second));
    }
    FUZZ_CHECK(fontrix::KnownFacesByName(faces).size() == faces.size());
    return 0;
  }
  // The network's check sum as the file gives it, so that inputs get past that check to the rest.
  uint64_t network = 0;
  if (bytes.size() >= 24) std::memcpy(&network, bytes.data() + 16, sizeof network);
  const std::string path = fontrix::fuzz::ScratchPath("vectors.bin");
  fontrix::fuzz::WriteFile(path, bytes);
  try {
    const fontrix::PackedVectors packed = fontrix::PackedVectors::Read(path, data[1] % 2 ? 0 : 4, network);
    FUZZ_CHECK(packed.Rows() == 0 || packed.Dim() > 0 || bytes.size() == fontrix::kPackedVectorsHeaderBytes);
    std::vector<float> row(packed.Dim()), query(packed.Dim(), 1.0f);
    for (size_t i = 0; i < packed.Rows() && i < 64; ++i) {
      packed.Unpack(i, row.data());
      for (float v : row) FUZZ_CHECK(v >= -1.0001f && v <= 1.0001f);
      FUZZ_CHECK(std::isfinite(packed.Dot(i, query.data())));
      (void)packed.IsZero(i);
    }
  } catch (const fontrix::PackedVectorsFileError&) {
  }
  return 0;
}
