// Specimens through the font engine's procedures, and names close to a mistyped one.
#include "host/specimen.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include "host/host.h"

namespace fontrix::host {
namespace {

template <typename Proc>
Proc Bind(const QVFontGlueSuite& glue, void* engine, const char* name) {
  void* address = nullptr;
  if (glue.GetEngineProcedure(engine, name, &address) != kQVNoErr || !address)
    throw std::runtime_error(std::string("the font engine has no procedure ") + name);
  return reinterpret_cast<Proc>(address);
}

void Check(QVErr err, const char* step) {
  if (err) throw std::runtime_error(std::string(step) + " failed (error " + ErrorText(err) + ")");
}

std::string Lower(std::string text) {
  for (char& c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

Specimen DrawSpecimen(const QVFontGlueSuite& glue, QVFontHandle font, const std::string& text, double size) {
  void* engine = nullptr;
  Check(glue.GetEngineInterface(&engine), "GetEngineInterface");
  const auto measure = Bind<QVMeasureTextProc>(glue, engine, kQVProcMeasureText);
  const auto new_port = Bind<QVNewRasterPortProc>(glue, engine, kQVProcNewRasterPort);
  const auto draw = Bind<QVDrawTextProc>(glue, engine, kQVProcDrawText);
  const auto read = Bind<QVGetRasterPortPixelsProc>(glue, engine, kQVProcGetRasterPortPixels);
  const auto dispose = Bind<QVDisposeRasterPortProc>(glue, engine, kQVProcDisposeRasterPort);

  Specimen specimen;
  Check(measure(font, text.c_str(), size, &specimen.box), "MeasureText");
  if (specimen.box.right <= specimen.box.left || specimen.box.bottom <= specimen.box.top)
    throw std::runtime_error("the text has no ink in this font");
  const int64_t width = int64_t(specimen.box.right) - specimen.box.left,
                height = int64_t(specimen.box.bottom) - specimen.box.top;
  if (width * height > kLargestSpecimenPixels)
    throw std::runtime_error("the text would be " + std::to_string(width) + " x " + std::to_string(height) +
                             " pixels at this size; at most 64 megapixels are drawn");
  QVRasterPort port = nullptr;
  Check(new_port(&specimen.box, &port), "NewRasterPort");
  try {
    Check(draw(port, font, text.c_str(), size), "DrawText");
    QVGreyPixels pixels{};
    QVIntRect bounds{};
    Check(read(port, &bounds, &pixels), "GetRasterPortPixels");
    specimen.width = pixels.width;
    specimen.height = pixels.height;
    specimen.pixels.resize(size_t(pixels.width) * size_t(pixels.height));
    for (int32_t y = 0; y < pixels.height; ++y)
      std::memcpy(specimen.pixels.data() + size_t(y) * size_t(pixels.width),
                  pixels.pixels + size_t(y) * size_t(pixels.rowBytes), size_t(pixels.width));
  } catch (...) {
    dispose(port);
    throw;
  }
  Check(dispose(port), "DisposeRasterPort");
  return specimen;
}

std::vector<std::string> CloseNames(const std::vector<std::string>& names, const std::string& name, size_t limit) {
  const std::string wanted = Lower(name);
  const size_t max_edits = std::max<size_t>(2, wanted.size() / 3);
  std::vector<std::tuple<bool, size_t, std::string>> ranked;  // (not a substring match, edits, name)
  for (const std::string& candidate : names) {
    const std::string lower = Lower(candidate);
    const bool contains =
        !wanted.empty() && (lower.find(wanted) != std::string::npos || wanted.find(lower) != std::string::npos);
    const size_t edits = EditDistance(wanted, lower);
    if (contains || edits <= max_edits) ranked.emplace_back(!contains, edits, candidate);
  }
  std::sort(ranked.begin(), ranked.end());
  std::vector<std::string> close;
  for (const auto& [far, edits, candidate] : ranked) {
    if (close.size() == limit) break;
    if (std::find(close.begin(), close.end(), candidate) == close.end()) close.push_back(candidate);
  }
  return close;
}

}  // namespace fontrix::host
