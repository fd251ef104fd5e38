#include <unistd.h>

#include <cstdio>
#include <string>

#include "host/tool/commands.h"
#include "host/tool/json.h"
#include "host/tool/queries.h"

namespace fontrix::host {

// What the module's background work did, per service, as its progress suite tells it; the
// seconds taken go to standard error in text mode, so the columns stay columns.
void Index(const FontrixProgressSuite& progress, const Options& options, double seconds) {
  std::string out = options.json                 ? "{\"services\": ["
                    : isatty(STDOUT_FILENO) == 1 ? "SERVICE\tFONTS\tCACHED\tCOMPUTED\tUNUSABLE\tNOTE\n"
                                                 : "";
  for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
    FontrixServiceProgress p{};
    Check(progress.GetServiceProgress(service, &p), "reading the module's progress");
    // A service that keeps nothing per font has nothing to compute: it says so rather than
    // showing a row of zeros.
    const char* note = !p.enabled ? "off"
                       : p.fontsTotal && !p.fontsMatched && !p.fontsComputed && !p.fontsUnusable
                           ? "nothing to compute per font: installed fonts are looked up by name in its table"
                           : "";
    char line[512];
    if (options.json) {
      std::snprintf(line, sizeof line,
                    "%s{\"service\": \"%s\", \"enabled\": %s, \"fonts\": %u, \"matched\": %u, "
                    "\"computed\": %u, \"unusable\": %u, \"note\": %s}",
                    service ? ", " : "", ServiceName(service), p.enabled ? "true" : "false", p.fontsTotal,
                    p.fontsMatched, p.fontsComputed, p.fontsUnusable, JsonString(note).c_str());
    } else {
      std::snprintf(line, sizeof line, "%s\t%u\t%u\t%u\t%u\t%s\n", ServiceName(service), p.fontsTotal, p.fontsMatched,
                    p.fontsComputed, p.fontsUnusable, note);
    }
    out += line;
  }
  if (options.json) {
    char tail[96];
    std::snprintf(tail, sizeof tail, "], \"seconds\": %.2f}\n", seconds);
    out += tail;
  } else {
    std::fprintf(stderr, "fontrix: index took %.2f s\n", seconds);
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

}  // namespace fontrix::host
