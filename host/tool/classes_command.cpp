#include <cstdio>
#include <string>
#include <vector>

#include "host/tool/commands.h"
#include "host/tool/output.h"
#include "host/tool/queries.h"

namespace fontrix::host {

// The style classes as the module's feature suite answers them: with no class, every font the
// module uses with its classes; with classes, the fonts that have all of them and none of the
// --not ones.
void Classes(Host& host, const Options& options) {
  uint32_t all = 0, none = 0;
  for (const std::string& c : options.args) all |= 1u << ClassIndex(c);
  for (const std::string& c : options.not_classes) none |= 1u << ClassIndex(c);
  const std::vector<OutputRow> rows = ClassRows(host, all, none, 0, options.limit);
  PrintRows(options, "", "fonts", rows, "%{name}\\t%{family}\\t%{style}\\t%{classes}");
  if (rows.empty() && (all || none)) {
    // An empty answer is said in words, so it is not taken for a failure to answer.
    std::string which;
    for (const std::string& c : options.args) which += (which.empty() ? "" : " and ") + c;
    std::string but;
    for (const std::string& c : options.not_classes) but += (but.empty() ? "" : " or ") + c;
    std::fprintf(stderr, "fontrix: no installed font is classed %s%s%s\n", which.empty() ? "anything" : which.c_str(),
                 but.empty() ? "" : " and not ", but.c_str());
  }
  if (!options.sheet.empty()) {
    std::vector<Specimen> sheet;
    WriteResultSheet(host, options.sheet, sheet, rows, {"", nullptr});
  }
}

}  // namespace fontrix::host
