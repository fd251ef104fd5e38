// Finding text by its ink: margins, pages, frames, grain and specks, several lines, the cut.
#include "recognition/text_lines.h"

#include <gtest/gtest.h>

#include <random>

namespace fontrix {
namespace {

// A page to draw on, with the box of everything drawn as ink since the last Box().
struct Page {
  GreyRaster g;
  int32_t top = 0, bottom = 0, left = 0, right = 0;
  Page(int32_t width, int32_t height, uint8_t paper = 255) : g{width, height, {}} {
    g.pixels.assign(size_t(width) * size_t(height), paper);
    Box();
  }
  void Box() { top = g.height, bottom = 0, left = g.width, right = 0; }
  void Fill(int32_t x0, int32_t y0, int32_t x1, int32_t y1, uint8_t ink, bool counts = true) {
    for (int32_t y = y0; y < y1; ++y)
      for (int32_t x = x0; x < x1; ++x) g.pixels[size_t(y) * size_t(g.width) + size_t(x)] = ink;
    if (counts)
      top = std::min(top, y0), bottom = std::max(bottom, y1), left = std::min(left, x0), right = std::max(right, x1);
  }
  // Letters of x-height `xh` from (x, baseline): a stem each, an arch over every other one, an
  // ascender on every third, a descender on every fifth, a dot over every seventh, a bowl
  // for every fourth, and a word space after every fifth letter.
  int32_t Words(int32_t x, int32_t baseline, int32_t xh, int letters, uint8_t ink = 0) {
    const int32_t stem = std::max(2, xh / 6);
    for (int i = 0; i < letters; ++i) {
      const int32_t up = i % 3 == 0 ? xh * 2 / 5 : 0, down = i % 5 == 4 ? xh * 2 / 5 : 0;
      if (i % 4 == 2) {
        Fill(x, baseline - xh, x + xh / 2, baseline, ink);  // an o
        Fill(x + stem, baseline - xh + stem, x + xh / 2 - stem, baseline - stem, 255 - ink);
      } else if (i % 7 == 6) {
        Fill(x, baseline - xh, x + stem, baseline, ink);
        Fill(x, baseline - xh - stem * 2, x + stem, baseline - xh - stem, ink);  // an i
      } else {
        Fill(x, baseline - xh - up, x + stem, baseline + down, ink);
        if (i % 2) Fill(x, baseline - xh, x + xh / 2, baseline - xh + stem, ink);
        if (i % 2) Fill(x + xh / 2 - stem, baseline - xh, x + xh / 2, baseline, ink);
      }
      x += xh * 3 / 4 + (i % 5 == 4 ? xh / 2 : 0);
    }
    return x;
  }
  void Frame(int32_t inset, int32_t thickness, uint8_t ink) {
    const int32_t a = inset, b = inset + thickness;
    Fill(a, a, g.width - a, b, ink, false);
    Fill(a, g.height - b, g.width - a, g.height - a, ink, false);
    Fill(a, a, b, g.height - a, ink, false);
    Fill(g.width - b, a, g.width - a, g.height - a, ink, false);
  }
  void Grain(double sigma, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> noise(0.0, sigma);
    for (uint8_t& p : g.pixels) p = uint8_t(std::clamp(p + noise(rng), 0.0, 255.0));
  }
  TextLayout Find() const { return FindTextLines(g.pixels.data(), g.width, g.height); }
};

void ExpectBox(const TextLine& line, const Page& page, int32_t slack, const std::string& what) {
  EXPECT_NEAR(line.top, page.top, slack) << what;
  EXPECT_NEAR(line.bottom, page.bottom, slack) << what;
  EXPECT_NEAR(line.left, page.left, slack) << what;
  EXPECT_NEAR(line.right, page.right, slack) << what;
}

TEST(TextLines, ALineIsFoundByItsInkWhateverItsMarginsPageAndFrame) {
  Page tight(420, 50);
  tight.Words(3, 38, 22, 20);
  auto layout = tight.Find();
  ASSERT_EQ(layout.lines.size(), 1u);
  ExpectBox(layout.lines[0], tight, 0, "tight");
  EXPECT_TRUE(layout.darkInk);
  EXPECT_EQ(layout.paper, 255);

  // The same words somewhere on a 1600 x 1000 page; then on a tinted, grainy page in a frame.
  for (int rough = 0; rough < 2; ++rough) {
    Page page(1600, 1000, rough ? 228 : 255);
    page.Words(610, 700, 22, 20, rough ? 40 : 0);
    if (rough) {
      page.Frame(6, 3, 30);
      page.Grain(6.0, 3);
    }
    layout = page.Find();
    ASSERT_EQ(layout.lines.size(), 1u) << rough;
    ExpectBox(layout.lines[0], page, rough, rough ? "rough page" : "clean page");
    EXPECT_NEAR(layout.paper, rough ? 228 : 255, 2);
    // The frame is rules on all four sides, and nothing else is.
    EXPECT_EQ(layout.ruleRows[7], rough) << "top side";
    EXPECT_EQ(layout.ruleRows[992], rough) << "bottom side";
    EXPECT_EQ(layout.ruleColumns[7], rough) << "left side";
    EXPECT_EQ(layout.ruleColumns[1592], rough) << "right side";
    EXPECT_EQ(std::count(layout.ruleColumns.begin(), layout.ruleColumns.end(), 1), rough ? 6 : 0);
  }

  // Light letters on a dark page.
  Page dark(800, 300, 20);
  dark.Words(100, 150, 30, 12, 235);
  layout = dark.Find();
  ASSERT_EQ(layout.lines.size(), 1u);
  ExpectBox(layout.lines[0], dark, 0, "dark page");
  EXPECT_FALSE(layout.darkInk);
}

TEST(TextLines, ATightLinesLongStrokesAreNoRule) {
  // Capitals' stems at both ends of a line cut to its ink reach as high as the ascenders, and
  // down to the baseline: letters, not a frame.
  Page page(160, 40);
  page.Fill(0, 2, 6, 30, 0);
  page.Words(14, 30, 20, 8);
  page.Fill(154, 2, 160, 30, 0);
  auto layout = page.Find();
  ASSERT_EQ(layout.lines.size(), 1u);
  ExpectBox(layout.lines[0], page, 0, "stems and letters");
  EXPECT_EQ(std::count(layout.ruleColumns.begin(), layout.ruleColumns.end(), 1), 0);
  // Nothing but stems ("Ill").
  Page stems(60, 40);
  for (int32_t x : {0, 25, 50}) stems.Fill(x, 0, x + 8, 40, 0);
  layout = stems.Find();
  ASSERT_EQ(layout.lines.size(), 1u);
  ExpectBox(layout.lines[0], stems, 0, "stems only");
}

TEST(TextLines, ParagraphLinesAreSplitEvenWhenTheyTouchWithTheirDotsAndTheSmallestLeftOut) {
  Page page(1600, 1000);
  std::vector<Page> boxes;
  for (int i = 0; i < 3; ++i) {
    page.Box();
    page.Words(200, 300 + 52 * i, 24, i == 2 ? 9 : 30);  // leading: about 1.3 lines
    boxes.push_back(page);
  }
  page.Fill(900, 800, 903, 803, 0, false);  // a speck far below
  page.Words(200, 900, 4, 30);              // a line under a quarter of the others' height
  auto layout = page.Find();
  ASSERT_EQ(layout.lines.size(), 3u);
  for (int i = 0; i < 3; ++i) ExpectBox(layout.lines[size_t(i)], boxes[size_t(i)], 0, "line " + std::to_string(i));

  // Set so close that the second line's ascenders reach past the first one's descenders: no row
  // is empty, and still two lines.
  Page solid(1200, 400);
  solid.Words(100, 150, 24, 30);
  const Page first = solid;
  solid.Box();
  solid.Words(100, 186, 24, 30);
  ASSERT_LT(solid.top, first.bottom);
  layout = solid.Find();
  ASSERT_EQ(layout.lines.size(), 2u);
  EXPECT_EQ(layout.lines[0].top, first.top);
  EXPECT_EQ(layout.lines[1].bottom, solid.bottom);
  EXPECT_LE(layout.lines[0].bottom, layout.lines[1].top);
}

TEST(TextLines, TheLargestLinesAreReadAndNoCaption) {
  TextLayout layout;
  // Rows of a paragraph (the fourth a short last line), a heading, and a caption.
  for (int32_t i = 0; i < 6; ++i) layout.lines.push_back({100 + 40 * i, 130 + 40 * i, 50, i == 3 ? 300 : 900, 1000});
  layout.lines.push_back({20, 70, 50, 1050, 1000});    // heading: 50 x 1000
  layout.lines.push_back({400, 414, 50, 1500, 1000});  // caption: under half the heading's height
  EXPECT_EQ(LinesToRead(layout, 1), (std::vector<size_t>{6}));
  EXPECT_EQ(LinesToRead(layout, 4), (std::vector<size_t>{6, 0, 1, 2}));
  EXPECT_EQ(LinesToRead(layout, 9).size(), 7u);
  // A line's area counts only up to 128 heights of width, as far as it is read.
  TextLayout two;
  two.lines = {{0, 10, 0, 5000, 100}, {20, 40, 0, 2600, 100}};
  EXPECT_EQ(LinesToRead(two, 1), (std::vector<size_t>{1}));
}

TEST(TextLines, PicturesWithoutTextHaveNoLines) {
  std::vector<std::pair<std::string, Page>> pages;
  pages.emplace_back("white", Page(640, 480));
  pages.emplace_back("tinted", Page(640, 480, 214));
  pages.emplace_back("grain", Page(640, 480, 200));
  pages.back().second.Grain(12.0, 5);
  pages.emplace_back("specks", Page(640, 480, 240));
  for (size_t i = 0; i < pages.back().second.g.pixels.size(); i += 331) pages.back().second.g.pixels[i] = 10;
  std::mt19937 rng(11);
  for (int i = 0; i < 40; ++i) {  // dust
    const int32_t x = int32_t(rng() % 636), y = int32_t(rng() % 476);
    pages.back().second.Fill(x, y, x + 3, y + 3, 30, false);
  }
  pages.emplace_back("frame", Page(640, 480));
  pages.back().second.Frame(0, 2, 0);
  pages.emplace_back("ruled", Page(640, 480));
  for (int32_t y = 40; y < 480; y += 40) pages.back().second.Fill(20, y, 620, y + 1, 120, false);
  for (const auto& [what, page] : pages) EXPECT_TRUE(page.Find().lines.empty()) << what;
}

TEST(TextLines, TheCutLineHasMarginsOfPaperAndOnlyItsOwnRows) {
  Page page(1600, 1000, 240);
  page.Frame(4, 2, 0);
  page.Words(30, 100, 40, 6);  // close to the frame's left side
  page.Box();
  page.Words(30, 190, 40, 6);
  const Page second = page;
  const auto layout = page.Find();
  ASSERT_EQ(layout.lines.size(), 2u);
  const TextLine& line = layout.lines[1];
  ExpectBox(line, second, 0, "");
  const GreyRaster cut = CutLine(page.g.pixels.data(), page.g.width, page.g.height, layout, 1);
  const int32_t h = line.Height();
  ASSERT_EQ(cut.height, h + 2 * (h / 5));
  ASSERT_EQ(cut.width, line.Width() + 2 * (h / 4));
  auto at = [&](int32_t x, int32_t y) { return cut.pixels[size_t(y) * size_t(cut.width) + size_t(x)]; };
  // The ink box is the picture's; what lies off the picture, on the frame or in the rows of the
  // line above is the page's paper.
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < line.Width(); ++x)
      ASSERT_EQ(at(h / 4 + x, h / 5 + y), page.g.pixels[size_t(line.top + y) * 1600 + size_t(line.left + x)]);
  for (int32_t y = 0; y < cut.height; ++y)
    for (int32_t x = 0; x < h / 4; ++x) EXPECT_EQ(at(x, y), 240) << x << "," << y;
  const int32_t gapMiddle = (layout.lines[0].bottom + line.top) / 2;
  for (int32_t y = 0; y < gapMiddle - (line.top - h / 5); ++y)
    for (int32_t x = 0; x < cut.width; ++x) EXPECT_EQ(at(x, y), 240);

  // A line of more than 128 times its height is cut to its leftmost part.
  Page longLine(6000, 30);
  longLine.Words(5, 22, 12, 560);
  const auto longLayout = longLine.Find();
  ASSERT_EQ(longLayout.lines.size(), 1u);
  const GreyRaster longCut = CutLine(longLine.g.pixels.data(), 6000, 30, longLayout, 0);
  EXPECT_EQ(longCut.width, kMaxLineAspect * longCut.height);
}

// Sloping text is found sloping and comes out level: the lines turned either way are measured
// to a few tenths of a degree, levelling them gives the lines the level picture has, and level
// text, one short word and a frame alone are left as they are.
TEST(TextLines, SlopingTextIsMeasuredAndLevelled) {
  Page level(1400, 600);
  level.Words(60, 220, 36, 30);
  level.Words(60, 330, 36, 24);
  EXPECT_EQ(TextSkew(level.g.pixels.data(), level.g.width, level.g.height), 0.0);
  for (double degrees : {-7.0, -2.5, 4.0, 9.0}) {
    // Levelled by minus the slope is the page turned clockwise: its text rises by `degrees`.
    const GreyRaster turned = Levelled(level.g.pixels.data(), level.g.width, level.g.height, -degrees, 255);
    const double skew = TextSkew(turned.pixels.data(), turned.width, turned.height);
    EXPECT_NEAR(skew, degrees, 0.3) << degrees;
    const GreyRaster back = Levelled(turned.pixels.data(), turned.width, turned.height, skew, 255);
    const TextLayout lines = FindTextLines(back.pixels.data(), back.width, back.height);
    ASSERT_EQ(lines.lines.size(), 2u) << degrees;
    EXPECT_NEAR(lines.lines[0].Height(), level.Find().lines[0].Height(), 4) << degrees;
    // Turned but not levelled, the two lines merge into one tall band or the rows fall apart.
    const TextLayout sloping = FindTextLines(turned.pixels.data(), turned.width, turned.height);
    EXPECT_TRUE(sloping.lines.size() != 2 || 2 * sloping.lines[0].Height() > 3 * lines.lines[0].Height()) << degrees;
  }
  Page word(400, 200);
  word.Words(40, 120, 30, 4);
  const GreyRaster turned = Levelled(word.g.pixels.data(), word.g.width, word.g.height, -0.6, 255);
  EXPECT_EQ(TextSkew(turned.pixels.data(), turned.width, turned.height), 0.0);  // under a degree
  // The page's grey level comes back with the slope, for the levelled picture's new corners.
  Page tinted(600, 300, 214);
  tinted.Words(40, 150, 30, 12, 20);
  uint8_t paper = 0;
  TextSkew(tinted.g.pixels.data(), tinted.g.width, tinted.g.height, &paper);
  EXPECT_EQ(paper, tinted.Find().paper);
  EXPECT_EQ(paper, 214);
  Page frame(640, 480);
  frame.Frame(5, 3, 0);
  EXPECT_EQ(TextSkew(frame.g.pixels.data(), frame.g.width, frame.g.height), 0.0);
  EXPECT_EQ(TextSkew(nullptr, 0, 0), 0.0);
}

}  // namespace
}  // namespace fontrix
