#include "recognition/installed_lines.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>
#include <string_view>
#include <unordered_set>

#include "shell/byte_reader.h"
#include "shell/check_sum.h"
#include "shell/file_bytes.h"
#include "shell/packed_vectors.h"

namespace fontrix {

bool DrawInstalledLine(hostglue::FontAccess& fonts, QVFontHandle font, GreyRaster& line) {
  // A font without the letters (symbols, another script) would be drawn with empty boxes or
  // another font's letters: no picture of text looks like that.
  for (const char* c = kInstalledLineText; *c; ++c) {
    uint32_t glyph = 0;
    if (*c != ' ' && (!fonts.GlyphByCode(font, uint8_t(*c), glyph) || glyph == 0)) return false;
  }
  QVIntRect box{};
  if (!fonts.MeasureText(font, kInstalledLineText, kInstalledLineSize, box)) return false;
  if (box.right <= box.left || box.bottom <= box.top) return false;
  const int32_t margin = int32_t(kInstalledLineSize / 4);
  box = {box.left - margin, box.top - margin, box.right + margin, box.bottom + margin};
  hostglue::GreyImage image;
  if (!fonts.DrawText(font, kInstalledLineText, kInstalledLineSize, box, image)) return false;
  if (image.width != box.right - box.left || image.height != box.bottom - box.top) return false;
  line.width = image.width;
  line.height = image.height;
  line.pixels = std::move(image.pixels);
  return true;
}

namespace {

constexpr uint64_t kFnvStart = 14695981039346656037ull;

uint64_t Fnv(uint64_t hash, const void* bytes, size_t n) {
  for (size_t i = 0; i < n; ++i) hash = (hash ^ static_cast<const uint8_t*>(bytes)[i]) * 1099511628211ull;
  return hash;
}

}  // namespace

NetworkPrint NetworkFingerprint(const std::string& path) {
  NetworkPrint print;
  print.sum = NetworkCheckSum(path);  // the sum packed vectors of the network carry too
  if (print.sum == 0) return {};
  print.fnv = [path] {
    std::string again, whyNot;
    return ReadFileBytes(path, again, whyNot) == FileState::kRead ? Fnv(kFnvStart, again.data(), again.size()) : 0;
  };
  return print;
}

namespace {

constexpr char kMagic[4] = {'F', 'X', 'R', 'L'};
// Version 2 closes each line with the check sum of its name, mark and values, so that a name
// kept with another font's values is found; version 3 takes that sum, and the network's, from
// shell/check_sum.h instead of FNV-1a, which was most of the time a search spent reading them.
constexpr uint32_t kVersion = 3;
constexpr uint32_t kOlderVersion = 2;
constexpr uint32_t kLongestName = 1024;
constexpr uint32_t kMostValues = 1 << 16;

using Reader = ByteReader<InstalledLinesFileError>;

uint64_t LineSum(const InstalledLine& line, uint32_t version = kVersion) {
  const uint8_t drawn = !line.features.empty();
  const size_t valueBytes = line.features.size() * sizeof(float);
  if (version == kOlderVersion) {
    uint64_t hash = Fnv(kFnvStart, line.name.data(), line.name.size());
    hash = Fnv(hash, &drawn, 1);
    return Fnv(hash, line.features.data(), valueBytes);
  }
  return CheckSum(line.features.data(), valueBytes, CheckSum(&drawn, 1, CheckSum(line.name.data(), line.name.size())));
}

}  // namespace

std::vector<InstalledLine> ParseInstalledLines(std::string_view bytes, const NetworkPrint& network, bool* older) {
  if (older) *older = false;
  Reader in(bytes);
  char magic[4];
  in.Take(magic, sizeof magic, "the header");
  if (std::memcmp(magic, kMagic, sizeof magic) != 0) throw InstalledLinesFileError("not a file of kept lines");
  const uint32_t version = in.Get<uint32_t>("the header");
  const uint64_t print = in.Get<uint64_t>("the header");
  const uint32_t values = in.Get<uint32_t>("the header");
  const uint32_t count = in.Get<uint32_t>("the header");
  // Lines another network read, or another version wrote, are no damage: they are read again.
  // An older version's lines of the same network are kept, and written anew at the next save.
  if (version == kOlderVersion) {
    if (!network.fnv || print != network.fnv()) return {};
    if (older) *older = true;
  } else if (version != kVersion || print != network.sum) {
    return {};
  }
  if (values > kMostValues) throw InstalledLinesFileError("lines of " + std::to_string(values) + " values");
  const size_t size = values;
  std::vector<InstalledLine> lines;
  std::unordered_set<std::string> names;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t length = in.Get<uint32_t>("a name");
    if (length == 0 || length > kLongestName)
      throw InstalledLinesFileError("a name of " + std::to_string(length) + " bytes");
    InstalledLine line;
    line.name.resize(length);
    in.Take(line.name.data(), length, "a name");
    if (!names.insert(line.name).second) throw InstalledLinesFileError(line.name + " is kept twice");
    const uint8_t drawn = in.Get<uint8_t>("a line");
    if (drawn > 1) throw InstalledLinesFileError(line.name + ": neither drawn nor not");
    // A font that has no line is kept too, so that it is not tried again.
    if (drawn) {
      if (size == 0) throw InstalledLinesFileError(line.name + ": a line of no values");
      line.features.resize(size);
      in.Take(line.features.data(), size * sizeof(float), "the values of a line");
      double norm = 0;
      for (float v : line.features) {
        if (!std::isfinite(v) || v < 0) throw InstalledLinesFileError(line.name + ": a value the network cannot give");
        norm += double(v) * v;
      }
      if (std::fabs(norm - 1.0) > 1e-3) throw InstalledLinesFileError(line.name + ": not a unit vector");
    }
    if (in.Get<uint64_t>("a check sum") != LineSum(line, version))
      throw InstalledLinesFileError(line.name + ": the line does not match its check sum");
    lines.push_back(std::move(line));
  }
  if (!in.AtEnd()) throw InstalledLinesFileError("bytes after the last line");
  return lines;
}

std::vector<InstalledLine> ReadInstalledLines(const std::string& path, const NetworkPrint& network, bool* older) {
  if (older) *older = false;
  // Mapped, not copied: the lines of thousands of fonts are megabytes, read at every start.
  MappedFile file;
  std::string why;
  switch (file.Map(path, why)) {
    case FileState::kMissing:
      return {};
    case FileState::kUnreadable:
      throw InstalledLinesFileError(why);
    case FileState::kRead:
      break;
  }
  return ParseInstalledLines(std::string_view(static_cast<const char*>(file.Data()), file.Size()), network, older);
}

void WriteInstalledLines(const std::string& path, uint64_t fingerprint, const std::vector<InstalledLine>& lines) {
  std::ostringstream out;
  size_t size = 0;
  for (const InstalledLine& line : lines) size = std::max(size, line.features.size());
  auto put = [&out](const auto& value) { out.write(reinterpret_cast<const char*>(&value), sizeof value); };
  out.write(kMagic, sizeof kMagic);
  put(kVersion);
  put(fingerprint);
  put(uint32_t(size));
  put(uint32_t(lines.size()));
  for (const InstalledLine& line : lines) {
    if (!line.features.empty() && line.features.size() != size) throw std::runtime_error("lines of different sizes");
    put(uint32_t(line.name.size()));
    out.write(line.name.data(), std::streamsize(line.name.size()));
    put(uint8_t(!line.features.empty()));
    if (!line.features.empty())
      out.write(reinterpret_cast<const char*>(line.features.data()), std::streamsize(size * sizeof(float)));
    put(LineSum(line));
  }
  ReplaceFile(path, out.str());
}

std::vector<MergedPlace> MergeKnownFaces(const std::vector<double>& answerBar, const std::vector<float>& knownLikeness,
                                         size_t most) {
  const size_t answers = answerBar.size();
  // From each answer to the end of the answer, the highest bar a known face has to clear.
  std::vector<float> bestFrom(answers + 1, -std::numeric_limits<float>::infinity());
  for (size_t i = answers; i-- > 0;) bestFrom[i] = std::max(bestFrom[i + 1], float(answerBar[i]));
  // Only the best `most` can find a place.
  std::vector<size_t> order(knownLikeness.size());
  for (size_t k = 0; k < order.size(); ++k) order[k] = k;
  const size_t kept = std::min(order.size(), most);
  std::partial_sort(order.begin(), order.begin() + ptrdiff_t(kept), order.end(),
                    [&](size_t a, size_t b) { return knownLikeness[a] > knownLikeness[b]; });
  order.resize(kept);
  std::vector<std::pair<size_t, size_t>> placed;  // (the answer it goes before, the known face)
  for (size_t k : order) {
    size_t place = 0;
    while (place < answers && !(knownLikeness[k] > bestFrom[place])) ++place;
    placed.emplace_back(place, k);
  }
  std::stable_sort(placed.begin(), placed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<MergedPlace> merged;
  size_t next = 0;
  for (const auto& [place, k] : placed) {
    while (next < place && merged.size() < most) merged.push_back({false, next++});
    if (merged.size() >= most) break;
    merged.push_back({true, k});
  }
  while (next < answers && merged.size() < most) merged.push_back({false, next++});
  return merged;
}

std::vector<int32_t> MergeInstalledLines(const std::vector<int32_t>& answer, const std::vector<float>& likeness,
                                         const std::vector<bool>& named, float margin, size_t most) {
  const auto like = [&](int32_t f) {
    return f >= 0 && size_t(f) < likeness.size() && likeness[size_t(f)] >= 0 ? likeness[size_t(f)] : 0.0f;
  };
  std::vector<int32_t> unnamed;
  for (size_t f = 0; f < likeness.size() && f < named.size(); ++f)
    if (!named[f] && likeness[f] >= 0) unnamed.push_back(int32_t(f));
  std::stable_sort(unnamed.begin(), unnamed.end(),
                   [&](int32_t a, int32_t b) { return likeness[size_t(a)] > likeness[size_t(b)]; });

  // Where each unnamed font goes: before answer k, or after the answer (answer.size()). It must
  // match better than every answer from k on: an answer the network ranked high but whose line
  // matches poorly (a heavier cut of the right family) is no reason to pass it.
  // Unnamed fonts in the answer set no bar: they are placed like the others.
  const auto isNamed = [&](int32_t f) { return f < 0 || size_t(f) >= named.size() || named[size_t(f)]; };
  std::vector<float> best(answer.size() + 1, -1.0f);
  for (size_t k = answer.size(); k-- > 0;)
    best[k] = std::max(best[k + 1], isNamed(answer[k]) ? like(answer[k]) : -1.0f);
  std::vector<size_t> place(likeness.size(), answer.size());
  for (int32_t u : unnamed)
    for (size_t k = 0; k < answer.size(); ++k)
      if (answer[k] == u || likeness[size_t(u)] > best[k] + margin) {
        place[size_t(u)] = k;
        break;
      }
  std::vector<int32_t> merged;
  std::vector<bool> taken(likeness.size(), false);
  const auto put = [&](int32_t f) {
    if (merged.size() >= most) return;
    if (f >= 0 && size_t(f) < taken.size()) {
      if (taken[size_t(f)]) return;
      taken[size_t(f)] = true;
    }
    merged.push_back(f);
  };
  for (size_t k = 0; k <= answer.size(); ++k) {
    for (int32_t u : unnamed)
      if (place[size_t(u)] == k) put(u);
    if (k < answer.size()) put(answer[k]);
  }
  return merged;
}

}  // namespace fontrix
