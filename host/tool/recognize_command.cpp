#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/image.h"
#include "host/tool/commands.h"
#include "host/tool/json.h"
#include "host/tool/output.h"
#include "host/tool/queries.h"

namespace fontrix::host {

// Asks the module's recognition suite about a picture, exactly as another plug-in would.
void Recognize(Host& host, const Options& options) {
  const std::string& path = options.args[0];
  std::unique_ptr<ImageRaster> image;
  try {
    if (path != "-") {
      image = LoadImageRaster(path);
    } else if (isatty(STDIN_FILENO) == 1) {
      throw Failure("recognize - reads the image from standard input: pipe a PNG or JPEG image into it");
    } else {
      image = LoadImageRasterFromDescriptor(STDIN_FILENO, "from standard input");
    }
  } catch (const std::runtime_error& e) {
    throw Failure(e.what());
  }
  const RecognizeAnswer answer = RecognizeRaster(host, *image, options.limit, options.installed_only);
  const std::vector<OutputRow>& rows = answer.rows;
  const std::optional<bool>& sure = answer.sure;
  if (rows.empty() && !options.json)
    std::fprintf(stderr,
                 "fontrix: no installed font recognised: the picture shows no line of text the service can read (it "
                 "needs at least 20 x 20 pixels and a line wider than high)\n");
  if (sure && !*sure && !options.json)
    std::fprintf(stderr,
                 "fontrix: not sure: the first answer is right about %.0f %% of the time at this confidence (sure "
                 "from %.0f %%); the font may not be installed, or the picture too small or unclear\n",
                 100 * answer.first_confidence, 100 * answer.sure_at);
  if (!rows.empty() && rows[0].installed && !*rows[0].installed && !options.json)
    std::fprintf(stderr, "fontrix: Not installed: %s %s — %s\n", rows[0].family.c_str(), rows[0].style.c_str(),
                 FormatRow("%{where}", rows[0]).substr(std::string("not installed: ").size()).c_str());
  const bool absent = std::any_of(rows.begin(), rows.end(), [](const OutputRow& r) { return r.installed == false; });
  PrintRows(options,
            "\"image\": " + JsonString(path) + (sure ? std::string(", \"sure\": ") + (*sure ? "true" : "false") : ""),
            "results", rows, std::string(sure ? kRecognitionColumns : kResultColumns) + (absent ? "\\t%{where}" : ""));
  if (!options.sheet.empty()) {
    std::vector<Specimen> sheet(1);  // the picture itself on top
    sheet[0].width = image->width();
    sheet[0].height = image->height();
    for (int32_t y = 0; y < image->height(); ++y)
      sheet[0].pixels.insert(sheet[0].pixels.end(), image->row(y), image->row(y) + image->width());
    WriteResultSheet(host, options.sheet, sheet, rows, {"", nullptr});
  }
}

}  // namespace fontrix::host
