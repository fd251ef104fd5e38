// font-features: the 96 classification features of installed fonts, measured through the same
// host font engine the module binds, for the training scripts.
//
//   font-features [--json] NAME...     (NAME: unique name; "--all" measures every installed font)
//
// Prints one line per font: its name and the 96 values, tab-separated (a header line names the
// features); with --json, {"features": [...names], "fonts": [{"name": NAME, "values": [...]}]}.
// A font that cannot be measured gets null values and is reported on stderr; a name that is not
// installed fails with exit status 1.
#include "classification/font_features.h"

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "host/host.h"
#include "host/tool/json.h"
#include "hostglue/font_access.h"
#include "plugin/dispatch.h"
#include "sdk/qv_font_suites.h"

namespace {

std::string Number(double v) {
  if (!std::isfinite(v)) return "null";
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

int Run(int argc, char** argv) {
  bool json = false, all = false;
  std::vector<std::string> names;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--json")
      json = true;
    else if (arg == "--all")
      all = true;
    else if (!arg.empty() && arg[0] == '-') {
      std::fprintf(stderr, "font-features: unknown option '%s'\nusage: font-features [--json] (--all | NAME...)\n",
                   argv[i]);
      return 2;
    } else
      names.push_back(arg);
  }
  if (names.empty() && !all) {
    std::fprintf(stderr, "usage: font-features [--json] (--all | NAME...)\n");
    return 2;
  }
  fontrix::host::Host host({});
  host.UseModuleEntry(FontrixPluginMain);  // start-up binds the engine procedures, as in the module
  if (host.Startup() != kQVNoErr) {
    std::fprintf(stderr, "font-features: the module could not bind the host's font engine\n");
    return 1;
  }
  const auto* fonts = static_cast<const QVFontSuite*>(host.AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  if (all)
    for (const auto& f : host.Fonts())
      if (!f.bitmap_only) names.push_back(f.unique_name);
  int status = 0;
  std::string out;
  if (json) {
    out = "{\"features\": [";
    for (int i = 0; i < fontrix::kFeatureCount; ++i)
      out += std::string(i ? ", " : "") + fontrix::host::JsonString(fontrix::FeatureName(i));
    out += "], \"fonts\": [";
  } else {
    out = "name";
    for (int i = 0; i < fontrix::kFeatureCount; ++i) out += "\t" + fontrix::FeatureName(i);
    out += "\n";
  }
  bool first = true;
  for (const std::string& name : names) {
    QVFontHandle font = nullptr;
    if (fonts->FindFontByName(name.c_str(), &font) != kQVNoErr) {
      std::fprintf(stderr, "font-features: no installed font is named '%s'\n", name.c_str());
      status = 1;
      continue;
    }
    std::array<double, fontrix::kFeatureCount> values{};
    const bool ok = fontrix::ComputeFontFeatures(fontrix::hostglue::HostFontAccess(), font, values);
    if (!ok)
      std::fprintf(stderr, "font-features: %s cannot be measured (a letter or the glyph \"one\" is missing)\n",
                   name.c_str());
    if (json) {
      out += std::string(first ? "" : ", ") + "{\"name\": " + fontrix::host::JsonString(name) + ", \"values\": ";
      if (!ok) {
        out += "null}";
      } else {
        out += "[";
        for (int i = 0; i < fontrix::kFeatureCount; ++i) out += std::string(i ? ", " : "") + Number(values[size_t(i)]);
        out += "]}";
      }
    } else {
      out += name;
      for (int i = 0; i < fontrix::kFeatureCount; ++i)
        out += "\t" + (ok ? Number(values[size_t(i)]) : std::string("null"));
      out += "\n";
    }
    first = false;
  }
  if (json) out += "]}\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
  host.ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
  host.Shutdown();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "font-features: %s\n", e.what());
    return 1;
  }
}
