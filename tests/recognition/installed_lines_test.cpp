// Fonts the network has no class for: how their lines join the network's answer, and the file
// that keeps the lines.
#include "recognition/installed_lines.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tests/support/fake_font_access.h"

namespace fontrix {
namespace {

// Installed fonts 0..5: 0, 1 and 2 are named by classes, 3, 4 and 5 are not.
const std::vector<bool> kNamed = {true, true, true, false, false, false};

TEST(MergeInstalledLines, AnUnnamedFontPassesOnlyAnswersItOutmatchesForGood) {
  // The answer ranks 0, 1, 2; font 2's line matches the picture best of the named ones.
  const std::vector<int32_t> answer = {0, 1, 2};
  // Font 3 beats every answer: first. Font 4 beats answers 0 and 1 but not 2, which comes
  // later: it must not pass 0 and 1 only to sit above a font it matches less well than.
  EXPECT_EQ(MergeInstalledLines(answer, {0.5f, 0.4f, 0.8f, 0.9f, 0.6f, 0.1f}, kNamed, 0.0f, 40),
            (std::vector<int32_t>{3, 0, 1, 2, 4, 5}));
  // By the margin's width it does not pass: 3 goes after the answer, before 4 and 5 by likeness.
  EXPECT_EQ(MergeInstalledLines(answer, {0.5f, 0.4f, 0.8f, 0.85f, 0.6f, 0.1f}, kNamed, 0.1f, 40),
            (std::vector<int32_t>{0, 1, 2, 3, 4, 5}));
  // An answer without a line counts as matching nothing: both unnamed fonts with lines pass it,
  // and font 4 passes answer 1 as well.
  EXPECT_EQ(MergeInstalledLines(answer, {0.5f, 0.4f, -1.0f, 0.2f, 0.45f, -1.0f}, kNamed, 0.0f, 40),
            (std::vector<int32_t>{0, 4, 1, 3, 2}));
  // Fonts of one place keep their likeness order; the list is cut at `most`.
  EXPECT_EQ(MergeInstalledLines(answer, {0.1f, 0.1f, 0.1f, 0.7f, 0.9f, 0.8f}, kNamed, 0.0f, 4),
            (std::vector<int32_t>{4, 5, 3, 0}));
}

// Places of a merged answer, written short: answer i as i, known face k as -(k + 1).
std::vector<int> Places(const std::vector<MergedPlace>& merged) {
  std::vector<int> places;
  for (const MergedPlace& p : merged) places.push_back(p.known ? -int(p.index) - 1 : int(p.index));
  return places;
}

TEST(MergeKnownFaces, AKnownFacePassesOnlyAnswersItOutmatchesForGoodAndTheAnswerKeepsItsOrder) {
  // Answer bars 0.5, 0.4, 0.8. Known face 0 clears all of them: first. Known face 1 clears
  // answers 0 and 1 but not 2, which comes later: it goes after the answer. Known face 2 clears
  // none.
  EXPECT_EQ(Places(MergeKnownFaces({0.5, 0.4, 0.8}, {0.9f, 0.6f, 0.1f}, 40)), (std::vector<int>{-1, 0, 1, 2, -2, -3}));
  // A bar it only reaches is not cleared.
  EXPECT_EQ(Places(MergeKnownFaces({0.5, 0.4, 0.8}, {0.8f}, 40)), (std::vector<int>{0, 1, 2, -1}));
  // Known faces of one place in likeness order.
  EXPECT_EQ(Places(MergeKnownFaces({0.5, 0.0}, {0.3f, 0.6f, 0.55f}, 40)), (std::vector<int>{-2, -3, 0, -1, 1}));
  // At most `most` places: the known faces that would go last are the ones left out, and only
  // the best known faces are considered at all.
  EXPECT_EQ(Places(MergeKnownFaces({0.5, 0.4, 0.3}, {0.1f, 0.95f, 0.2f, 0.9f}, 3)), (std::vector<int>{-2, -4, 0}));
  EXPECT_EQ(Places(MergeKnownFaces({}, {0.1f, 0.3f}, 40)), (std::vector<int>{-2, -1}));
  EXPECT_EQ(Places(MergeKnownFaces({0.2, 0.1}, {}, 40)), (std::vector<int>{0, 1}));
}

TEST(MergeInstalledLines, UnnamedFontsInTheAnswerMoveUpNeverDownAndSetNoBar) {
  // The similarity query put unnamed font 4 in the answer, last, with the best line of all: its
  // own likeness is no bar to passing, so it comes first, once.
  EXPECT_EQ(MergeInstalledLines({0, 1, 4}, {0.5f, 0.4f, 0.1f, 0.2f, 0.9f, -1.0f}, kNamed, 0.0f, 40),
            (std::vector<int32_t>{4, 0, 1, 3}));
  // Unnamed font 3 ranked first by the similarity query stays first even with a poor line.
  EXPECT_EQ(MergeInstalledLines({3, 0, 1}, {0.5f, 0.4f, 0.1f, 0.2f, -1.0f, -1.0f}, kNamed, 0.0f, 40),
            (std::vector<int32_t>{3, 0, 1}));
  // No lines at all: the answer as it was.
  EXPECT_EQ(MergeInstalledLines({2, 0, 1}, std::vector<float>(6, -1.0f), kNamed, 0.0f, 40),
            (std::vector<int32_t>{2, 0, 1}));
}

std::vector<float> Unit(size_t size, float seed) {
  std::vector<float> v(size);
  double norm = 0;
  for (size_t i = 0; i < size; ++i) norm += double(v[i] = float(i % 7) + seed) * v[i];
  for (float& x : v) x = float(x / std::sqrt(norm));
  return v;
}

// The network named by check sum `sum` and, for files of the older version, by hash `fnv`.
NetworkPrint Print(uint64_t sum, uint64_t fnv = 0) {
  return {sum, [fnv] { return fnv; }};
}

std::string Bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(InstalledLinesFile, KeepsLinesAndFontsWithoutOneForTheNetworkThatReadThem) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "fontrix-installed-lines";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  const std::string path = (dir / kInstalledLinesFileName).string();
  EXPECT_TRUE(ReadInstalledLines(path, Print(7)).empty());  // no file yet
  const std::vector<InstalledLine> lines = {{"Alpha-Regular", Unit(768, 1)}, {"Symbols", {}}, {"Beta", Unit(768, 2)}};
  WriteInstalledLines(path, 7, lines);
  const auto read = ReadInstalledLines(path, Print(7));
  ASSERT_EQ(read.size(), 3u);
  EXPECT_EQ(read[0].features, lines[0].features);
  EXPECT_TRUE(read[1].features.empty());
  EXPECT_EQ(read[2].name, "Beta");
  EXPECT_TRUE(ReadInstalledLines(path, Print(8)).empty());  // another network read them: read again
  WriteInstalledLines(path, 7, {lines[1]});                 // fonts without lines only
  EXPECT_EQ(ReadInstalledLines(path, Print(7)).size(), 1u);
  WriteInstalledLines(path, 7, lines);
  EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
  // A file that cannot be written says so and leaves the old one.
  EXPECT_THROW(WriteInstalledLines((dir / "absent" / "lines.bin").string(), 7, lines), std::runtime_error);

  // Damage of every kind is said, never read as lines: cut short anywhere, a name twice, values
  // no network gives, bytes after the end, another file.
  const std::string good = Bytes(path);
  for (size_t cut = 0; cut < good.size(); cut += 97)
    EXPECT_THROW(ParseInstalledLines(good.substr(0, cut), Print(7)), InstalledLinesFileError) << cut;
  EXPECT_THROW(ParseInstalledLines(good + "x", Print(7)), InstalledLinesFileError);
  EXPECT_THROW(ParseInstalledLines("PNG\x89" + good.substr(4), Print(7)), InstalledLinesFileError);
  WriteInstalledLines(path, 7, {lines[0], lines[0]});
  EXPECT_THROW(ReadInstalledLines(path, Print(7)), InstalledLinesFileError);
  for (float wrong : {NAN, -0.5f, 3.0f}) {
    std::vector<float> v = Unit(768, 1);
    v[5] = wrong;
    WriteInstalledLines(path, 7, {{"Alpha-Regular", v}});
    EXPECT_THROW(ReadInstalledLines(path, Print(7)), InstalledLinesFileError) << wrong;
  }
  // Two fonts' values exchanged: each still a unit vector, but no longer under its own name.
  std::string swapped = good;
  const size_t alpha = swapped.find("Alpha-Regular") + 13 + 1, beta = swapped.find("Beta") + 4 + 1;
  std::swap_ranges(swapped.begin() + std::ptrdiff_t(alpha), swapped.begin() + std::ptrdiff_t(alpha + 768 * 4),
                   swapped.begin() + std::ptrdiff_t(beta));
  EXPECT_THROW(ParseInstalledLines(swapped, Print(7)), InstalledLinesFileError);
  // A folder where the file should be is damage in words, not an exception of the stream library.
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_THROW(ReadInstalledLines(path, Print(7)), InstalledLinesFileError);
  std::filesystem::remove_all(dir);
}

// Lines an older module kept (version 2, FNV-1a sums, the network named by its FNV-1a hash)
// stay good: drawing every font's line again would cost minutes. They are said to be older, so
// the next update writes them in the current version.
TEST(InstalledLinesFile, AnOlderVersionOfTheSameNetworkIsReadAndSaidOlder) {
  auto fnv = [](uint64_t hash, const void* bytes, size_t n) {
    for (size_t i = 0; i < n; ++i) hash = (hash ^ static_cast<const uint8_t*>(bytes)[i]) * 1099511628211ull;
    return hash;
  };
  const std::vector<InstalledLine> lines = {{"Alpha-Regular", Unit(768, 1)}, {"Symbols", {}}};
  std::string older = "FXRL";
  auto put = [&](const auto& value) { older.append(reinterpret_cast<const char*>(&value), sizeof value); };
  put(uint32_t(2));
  put(uint64_t(99));  // the network's FNV-1a hash
  put(uint32_t(768));
  put(uint32_t(lines.size()));
  for (const InstalledLine& line : lines) {
    const uint8_t drawn = !line.features.empty();
    put(uint32_t(line.name.size()));
    older += line.name;
    put(drawn);
    older.append(reinterpret_cast<const char*>(line.features.data()), line.features.size() * sizeof(float));
    put(fnv(fnv(fnv(14695981039346656037ull, line.name.data(), line.name.size()), &drawn, 1), line.features.data(),
            line.features.size() * sizeof(float)));
  }
  bool isOlder = false;
  const auto read = ParseInstalledLines(older, Print(7, 99), &isOlder);
  ASSERT_EQ(read.size(), 2u);
  EXPECT_TRUE(isOlder);
  EXPECT_EQ(read[0].features, lines[0].features);
  EXPECT_TRUE(ParseInstalledLines(older, Print(7, 98), &isOlder).empty());  // read by another network
  EXPECT_TRUE(ParseInstalledLines(older, Print(99, 0)).empty());            // the current version's print is no hash
  // The older sums are checked as strictly: a value changed under its sum is damage.
  older[older.find("Alpha-Regular") + 13 + 1 + 40] ^= 1;
  EXPECT_THROW(ParseInstalledLines(older, Print(7, 99)), InstalledLinesFileError);

  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "fontrix-installed-lines-older";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / kInstalledLinesFileName).string();
  WriteInstalledLines(path, 7, lines);
  EXPECT_EQ(ReadInstalledLines(path, Print(7, 99), &isOlder).size(), 2u);
  EXPECT_FALSE(isOlder);
  std::filesystem::remove_all(dir);
}

TEST(InstalledLines, AFontWithoutTheLettersHasNoLine) {
  hostglue::FakeFontAccess fonts;
  const QVFontHandle latin = fonts.Add(hostglue::FakeFontAccess::LatinFont("Alpha-Regular"));
  auto digitsOnly = hostglue::FakeFontAccess::LatinFont("Digits");
  for (char c = 'A'; c <= 'z'; ++c) digitsOnly.codes.erase(uint32_t(c));
  const QVFontHandle digits = fonts.Add(digitsOnly);
  GreyRaster line;
  ASSERT_TRUE(DrawInstalledLine(fonts, latin, line));
  EXPECT_GT(line.height, 0);
  EXPECT_EQ(line.pixels.size(), size_t(line.width) * size_t(line.height));
  EXPECT_FALSE(DrawInstalledLine(fonts, digits, line));
}

}  // namespace
}  // namespace fontrix
