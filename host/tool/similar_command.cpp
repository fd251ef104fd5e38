#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "host/tool/commands.h"
#include "host/tool/output.h"
#include "host/tool/queries.h"
#include "sdk/qv_font_suites.h"

namespace fontrix::host {

// Asks the module's similar-font suite, exactly as another plug-in would (its table suite for a
// face that is not installed).
void Similar(Host& host, const Options& options) {
  SimilarRequest request{options.args[0], options.style, options.other_families, 0, options.limit};
  for (const std::string& c : options.classes) request.classes |= 1u << ClassIndex(c);
  const SimilarAnswer answer = FindSimilar(host, request);
  for (const std::string& note : answer.notes) std::fprintf(stderr, "fontrix: %s\n", note.c_str());
  const std::vector<OutputRow>& rows = answer.rows;
  if (rows.empty() && !options.json)
    std::fprintf(stderr, "fontrix: %s\n", answer.EmptyReason(options.other_families, request.classes).c_str());
  PrintRows(options, answer.JsonHead(), "results", rows,
            std::string(kResultColumns) + (request.classes ? "\\t%{classes}" : "") +
                (std::any_of(rows.begin(), rows.end(), [](const OutputRow& r) { return !r.same_outlines.empty(); })
                     ? "\\t%{same_outlines}"
                     : ""));
  if (!options.sheet.empty()) {
    HeldSuite<QVFontSuite> fonts(host, kQVFontSuite, kQVFontSuiteVersion);
    QVFontHandle face = nullptr;
    const SimilarQuery& query = answer.query;
    if (query.installed) Check(fonts->FindFontByName(query.name.c_str(), &face), "finding the font");
    std::vector<Specimen> sheet;
    WriteResultSheet(host, options.sheet, sheet, rows, {query.family + " " + query.style + " (query)", face});
  }
}

}  // namespace fontrix::host
