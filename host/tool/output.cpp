#include "host/tool/output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "host/font_names.h"
#include "host/image.h"
#include "host/tool/queries.h"

namespace fontrix::host {

namespace {

// Appends a specimen row to a contact sheet: `label` (in the sheet's label font) above the
// specimen of `font`; rows are left-aligned on white.
void AddSheetRow(std::vector<Specimen>& rows, const QVFontGlueSuite& glue, QVFontHandle label_font,
                 const std::string& label, QVFontHandle font) {
  try {
    if (label_font) rows.push_back(DrawSpecimen(glue, label_font, label, 18));
    rows.push_back(DrawSpecimen(glue, font, "Handgloves abcdefghij ABCDEFGHIJ 0123456789", 48));
  } catch (const std::runtime_error&) {
    // A font that cannot draw the specimen leaves its label alone on the sheet.
  }
}

void WriteSheet(const std::string& path, const std::vector<Specimen>& rows) {
  constexpr int32_t kMargin = 12;
  int32_t width = 0, height = kMargin;
  for (const Specimen& r : rows) width = std::max(width, r.width), height += r.height + kMargin;
  width += 2 * kMargin;
  std::vector<uint8_t> sheet(size_t(width) * size_t(height), 255);
  int32_t y = kMargin;
  for (const Specimen& r : rows) {
    for (int32_t row = 0; row < r.height; ++row)
      std::copy_n(r.pixels.begin() + ptrdiff_t(row) * r.width, r.width,
                  sheet.begin() + ptrdiff_t(y + row) * width + kMargin);
    y += r.height + kMargin;
  }
  WritePng(path, QVGreyPixels{width, height, width, sheet.data()});
}

}  // namespace

const HostFont& ResolveUsedFont(Host& host, const std::string& typed, const std::string& style) {
  std::vector<const HostFont*> usable;
  for (const HostFont& f : host.Fonts())
    if (UnusedReason(f).empty()) usable.push_back(&f);
  try {
    const ResolvedFont resolved = ResolveFont(usable, typed, style);
    if (!resolved.note.empty()) std::fprintf(stderr, "fontrix: %s\n", resolved.note.c_str());
    return *resolved.font;
  } catch (const UnknownFont& e) {
    throw Failure(e.what());
  }
}

void PrintRows(const Options& options, const std::string& head, const std::string& key,
               const std::vector<OutputRow>& rows, const std::string& columns) {
  std::string out;
  if (options.json) {
    out = JsonAnswer(head, key, rows);
  } else {
    // A --format ends its lines itself, as fc-list -f does.
    const std::string format = options.format.empty() ? columns + "\\n" : options.format;
    if (options.format.empty() && isatty(STDOUT_FILENO) == 1) out += FormatHeader(format);
    for (const OutputRow& row : rows) out += FormatRow(format, row);
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

void WriteResultSheet(Host& host, const std::string& path, std::vector<Specimen>& sheet,
                      const std::vector<OutputRow>& rows, const std::pair<std::string, QVFontHandle>& first) {
  HeldSuite<QVFontSuite> fonts(host, kQVFontSuite, kQVFontSuiteVersion);
  HeldSuite<QVFontGlueSuite> glue(host, kQVFontGlueSuite, kQVFontGlueSuiteVersion);
  QVFontHandle label = nullptr;
  if (fonts->FindFontByName("DejaVuSans", &label)) label = nullptr;
  if (first.second) AddSheetRow(sheet, *glue, label, first.first, first.second);
  for (const OutputRow& r : rows) {
    QVFontHandle font = nullptr;
    char score[32] = "";
    if (r.score) std::snprintf(score, sizeof score, "  %.4f", *r.score);
    // Family and style, as a designer names a face.
    const std::string name = r.family.empty() ? r.name : r.family + " " + r.style;
    if (!fonts->FindFontByName(r.name.c_str(), &font)) AddSheetRow(sheet, *glue, label, name + score, font);
  }
  try {
    WriteSheet(path, sheet);
  } catch (const std::runtime_error& e) {
    throw Failure(std::string("cannot write the sheet: ") + e.what());
  }
}

}  // namespace fontrix::host
