#include <cstdio>
#include <stdexcept>
#include <string>

#include "host/image.h"
#include "host/specimen.h"
#include "host/tool/commands.h"
#include "host/tool/json.h"
#include "host/tool/output.h"
#include "host/tool/queries.h"
#include "sdk/qv_font_suites.h"

namespace fontrix::host {

// The font is found, and the text drawn, through the suites and engine procedures the module
// uses.
void DrawSpecimenFile(Host& host, const Options& options) {
  const std::string& text = options.args[1];
  HeldSuite<QVFontGlueSuite> glue(host, kQVFontGlueSuite, kQVFontGlueSuiteVersion);
  HeldSuite<QVFontSuite> fonts(host, kQVFontSuite, kQVFontSuiteVersion);
  const std::string name = ResolveUsedFont(host, options.args[0], options.style).unique_name;
  QVFontHandle font = nullptr;
  Check(fonts->FindFontByName(name.c_str(), &font), "finding the font");
  Specimen specimen;
  try {
    specimen = DrawSpecimen(*glue, font, text, options.size);
    WritePng(options.output, specimen.Pixels());
  } catch (const std::runtime_error& e) {
    throw Failure("cannot draw the specimen of " + name + ": " + e.what());
  }
  const QVIntRect& b = specimen.box;
  char size[32];
  std::snprintf(size, sizeof size, "%g", options.size);
  std::string out;
  if (options.json) {
    out = "{\"file\": " + JsonString(options.output) + ", \"font\": " + JsonString(name) + ", \"size\": " + size +
          ", \"width\": " + std::to_string(specimen.width) + ", \"height\": " + std::to_string(specimen.height) +
          ", \"box\": {\"left\": " + std::to_string(b.left) + ", \"top\": " + std::to_string(b.top) +
          ", \"right\": " + std::to_string(b.right) + ", \"bottom\": " + std::to_string(b.bottom) + "}}\n";
  } else {
    out = options.output + ": " + std::to_string(specimen.width) + " x " + std::to_string(specimen.height) +
          " pixels, " + name + " at " + size + " pixels to the em, ink box left " + std::to_string(b.left) + " top " +
          std::to_string(b.top) + " right " + std::to_string(b.right) + " bottom " + std::to_string(b.bottom) +
          " (baseline origin at 0, 0; y down)\n";
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

}  // namespace fontrix::host
