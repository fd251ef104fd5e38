#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "host/font_names.h"
#include "host/tool/commands.h"
#include "host/tool/known_fonts.h"
#include "host/tool/output.h"
#include "host/tool/queries.h"
#include "sdk/fontrix_suites.h"

namespace fontrix::host {
namespace {

// The open faces the module knows, installed or not, in its data's order: where each is, and
// what it is in fontconfig's terms, so that the rows read like the installed fonts'.
void KnownFontRows(Host& host, const Options& options) {
  KnownFonts known(host);
  const std::string text = options.args.empty() ? "" : LowerCase(options.args[0]);
  std::vector<OutputRow> rows;
  for (const KnownFace& f : known.Faces()) {
    if (rows.size() >= options.limit) break;
    if (!text.empty() && LowerCase(f.name).find(text) == std::string::npos &&
        LowerCase(f.family).find(text) == std::string::npos)
      continue;
    rows.push_back(RowOf(f));
  }
  PrintRows(options, "", "fonts", rows, "%{name}\\t%{family}\\t%{style}\\t%{where}");
}

}  // namespace

// The fonts the module uses (or, with --all, every face the host lists, with why one is left
// out), by family, kept by PATTERN and --class.
void Fonts(Host& host, const Options& options) {
  if (options.known) return KnownFontRows(host, options);
  const std::vector<const HostFont*> used = ModuleFonts(host);
  std::vector<const HostFont*> fonts = used;
  if (options.all) {
    fonts.clear();
    for (const HostFont& f : host.Fonts()) fonts.push_back(&f);
  }
  if (!options.args.empty()) {
    const FontFilter filter(options.args[0]);
    fonts.erase(std::remove_if(fonts.begin(), fonts.end(), [&](const HostFont* f) { return !filter(*f); }),
                fonts.end());
  }
  std::map<std::string, uint32_t> masks;
  uint32_t wanted = 0;
  for (const std::string& c : options.classes) wanted |= 1u << ClassIndex(c);
  if (wanted) masks = ClassMasks(host);
  SortByFamily(fonts);
  // Fonts a service could not use, by unique name: what each service said.
  std::map<std::string, std::string> not_used_by;
  if (options.all) {
    HeldSuite<FontrixProgressSuite> progress(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion);
    FontrixUnusableFontList list{&not_used_by, [](void* context, const char* name, const char* reason) {
                                   std::string& said =
                                       (*static_cast<std::map<std::string, std::string>*>(context))[name];
                                   said += (said.empty() ? "" : " and ") + std::string(reason);
                                 }};
    for (int32_t service = 0; service < kFontrixServiceCount; ++service)
      Check(progress->GetUnusableFonts(service, &list), "reading the fonts the module could not use");
  }
  std::vector<OutputRow> rows;
  for (const HostFont* f : fonts) {
    if (rows.size() >= options.limit) break;
    const bool is_used = std::find(used.begin(), used.end(), f) != used.end();
    const auto mask = masks.find(f->unique_name);
    if (wanted && (!is_used || mask == masks.end() || (mask->second & wanted) != wanted)) continue;
    OutputRow row = RowOf(*f);
    if (wanted) row.classes = mask->second;
    if (options.all) {
      const std::string reason = UnusedReason(*f);
      row.status = is_used ? "used" : reason.empty() ? "left out by the module" : reason;
      // A font the module uses that a service could not: which, and why.
      if (const auto it = not_used_by.find(f->unique_name); is_used && it != not_used_by.end())
        *row.status += "; but " + it->second;
    }
    rows.push_back(std::move(row));
  }
  PrintRows(options, "", "fonts", rows,
            std::string("%{name}\\t%{family}\\t%{style}") + (wanted ? "\\t%{classes}" : "") +
                (options.all ? "\\t%{status}" : ""));
}

}  // namespace fontrix::host
