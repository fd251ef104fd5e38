// fontrix: starts the module in the reference host, lets it bring its caches up to date with
// the installed fonts, answers one command through the module's suites as another plug-in
// would, then shuts the module down in order. `specimen` draws through the host's font engine
// instead, the procedures the module binds, and needs none of the module's caches.
#include "host/cli.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "host/host.h"
#include "host/image.h"
#include "host/json.h"
#include "host/specimen.h"
#include "sdk/fontrix_suites.h"
#include "sdk/qv_font_suites.h"

namespace fontrix::host {
namespace {

const char* const kUsage = "usage: fontrix [OPTIONS] COMMAND   (fontrix --help lists them)";

const char* const kHelp =
    "usage: fontrix [OPTIONS] COMMAND\n"
    "\n"
    "Commands:\n"
    "  fonts               the installed fonts the module uses: unique name, family, style\n"
    "  classes [CLASS ...] [--not CLASS ...]\n"
    "                      every installed font with its style classes; with classes, the fonts\n"
    "                      that have all of them and none of the --not ones (blackletter,\n"
    "                      decorative, handmade, monospace, sans-serif, script, serif,\n"
    "                      slab-serif, or label strings such as fs_slab_serif)\n"
    "  similar NAME [--sheet FILE]\n"
    "                      the installed fonts most like font NAME, best first, with scores;\n"
    "                      --sheet writes a PNG contact sheet of their specimens\n"
    "  recognize IMAGE [--sheet FILE]\n"
    "                      the installed fonts most likely shown in a picture of one line of text\n"
    "                      (PNG or JPEG), best first, with scores; --sheet draws a sample in each\n"
    "  index               brings the module's caches up to date and reports what it did\n"
    "  specimen NAME TEXT -o FILE [--size N]\n"
    "                      draws TEXT in the installed font NAME (its unique name) into the PNG\n"
    "                      FILE, N pixels to the em (default 200), as the module draws text\n"
    "\n"
    "Options (before or after the command):\n"
    "  --module PATH       the module (default: $FONTRIX_MODULE, then libfontrix.so in ../lib or\n"
    "                      beside this program)\n"
    "  --data-dir DIR      the module's read-only data (default: $FONTRIX_DATA_DIR, then the\n"
    "                      installed share/fontrix, then the source tree's data/)\n"
    "  --cache-dir DIR     the module's caches (default: $FONTRIX_CACHE_DIR, then\n"
    "                      $XDG_CACHE_HOME/fontrix or ~/.cache/fontrix)\n"
    "  --disable SERVICE   turn off classification, similarity or recognition (repeatable or\n"
    "                      comma-separated; also $FONTRIX_DISABLE)\n"
    "  --debug-log         let the module write its debug information\n"
    "  --json              JSON output\n"
    "  --limit N           at most N results\n"
    "  --help, --version\n";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string module, data_dir, cache_dir;
  std::vector<std::string> disabled;  // switch keys
  bool debug_log = false, json = false, help = false, version = false;
  size_t limit = std::numeric_limits<size_t>::max();
  std::string output;  // specimen: -o
  std::string sheet;   // similar: --sheet
  double size = 0;     // specimen: --size; 0 until given
  std::vector<std::string> not_classes;  // classes: --not
  std::string command;
  std::vector<std::string> args;
};

// The style classes: label strings in bit order, and the short forms people type.
const char* const kClassLabels[] = {"fs_blackletter", "fs_decorative", "fs_handmade", "fs_monospace",
                                    "fs_sans_serif",  "fs_script",     "fs_serif",    "fs_slab_serif"};
const char* const kClassShortNames[] = {"blackletter", "decorative", "handmade", "monospace",
                                        "sans-serif",  "script",     "serif",    "slab-serif"};

// The bit of a class given as its label string or short form ("-" and "_" alike); throws a
// usage error listing the classes.
int32_t ClassIndex(const std::string& text) {
  std::string wanted = text.rfind("fs_", 0) == 0 ? text.substr(3) : text;
  std::replace(wanted.begin(), wanted.end(), '_', '-');
  for (int32_t i = 0; i < 8; ++i)
    if (wanted == kClassShortNames[i]) return i;
  std::string names;
  for (const char* c : kClassShortNames) names += std::string(names.empty() ? "" : ", ") + c;
  throw UsageError("no style class is named '" + text + "'; the classes are " + names +
                   " (or their label strings, such as fs_slab_serif)");
}

constexpr double kDefaultSpecimenSize = 200;

// Each command and the number of arguments it takes.
const std::pair<const char*, size_t> kCommands[] = {{"fonts", 0},     {"classes", 0}, {"similar", 1},
                                                    {"recognize", 1}, {"index", 0},   {"specimen", 2}};

double ParseSize(const std::string& text) {
  char* end = nullptr;
  const double size = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(size >= 1 && size <= 10000))
    throw UsageError("--size needs a number of pixels from 1 to 10000, not '" + text + "'");
  return size;
}

size_t ParseLimit(const std::string& text) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(text) == 0)
    throw UsageError("--limit needs a whole number of at least 1, not '" + text + "'");
  return std::stoul(text);
}

Options Parse(int argc, char** argv) {
  Options options;
  std::vector<std::string> positional;
  bool options_end = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (options_end || arg.empty() || arg[0] != '-' || arg == "-") {
      positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_end = true;
      continue;
    }
    const size_t equals = arg.find('=');
    const std::string name = arg.substr(0, equals);
    const bool inline_value = equals != std::string::npos;
    if (name == "--module" || name == "--data-dir" || name == "--cache-dir" || name == "--disable" ||
        name == "--limit" || name == "-o" || name == "--output" || name == "--size" || name == "--sheet" ||
        name == "--not") {
      std::string value;
      if (inline_value)
        value = arg.substr(equals + 1);
      else if (i + 1 < argc)
        value = argv[++i];
      if (value.empty()) throw UsageError(name + " needs a value");
      if (name == "--module") options.module = value;
      if (name == "--data-dir") options.data_dir = value;
      if (name == "--cache-dir") options.cache_dir = value;
      if (name == "--disable") {
        try {
          for (const std::string& key : ServiceSwitches(value)) options.disabled.push_back(key);
        } catch (const std::runtime_error& e) {
          throw UsageError("--disable: " + std::string(e.what()));
        }
      }
      if (name == "--limit") options.limit = ParseLimit(value);
      if (name == "-o" || name == "--output") options.output = value;
      if (name == "--size") options.size = ParseSize(value);
      if (name == "--sheet") options.sheet = value;
      if (name == "--not") options.not_classes.push_back(value);
      continue;
    }
    bool* flag = name == "--debug-log" ? &options.debug_log
                 : name == "--json"    ? &options.json
                 : name == "--help"    ? &options.help
                 : name == "-h"        ? &options.help
                 : name == "--version" ? &options.version
                                       : nullptr;
    if (!flag) throw UsageError("unknown option '" + arg + "'");
    if (inline_value) throw UsageError(name + " takes no value");
    *flag = true;
  }
  if (options.help || options.version) return options;
  if (positional.empty()) throw UsageError("no command given");
  options.command = positional.front();
  options.args.assign(positional.begin() + 1, positional.end());
  const auto* command = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&](const auto& c) { return options.command == c.first; });
  if (command == std::end(kCommands)) throw UsageError("unknown command '" + options.command + "'");
  const bool optional_argument = options.command == "classes";  // any number of classes
  if (command->second == 0 && !options.args.empty() && !optional_argument)
    throw UsageError(options.command + " takes no argument, not '" + options.args[0] + "'");
  if (options.args.size() != command->second && !optional_argument)
    throw UsageError(options.command + " takes " + std::to_string(command->second) + " arguments, not " +
                     std::to_string(options.args.size()));
  const bool specimen = options.command == "specimen";
  if (specimen && options.output.empty()) throw UsageError("specimen needs the PNG file to write: -o FILE");
  if (!specimen && (!options.output.empty() || options.size))
    throw UsageError(std::string(options.output.empty() ? "--size" : "-o") + " is for specimen only");
  if (specimen && !options.size) options.size = kDefaultSpecimenSize;
  if (!options.sheet.empty() && options.command != "similar" && options.command != "recognize")
    throw UsageError("--sheet is for similar and recognize only");
  if (!options.not_classes.empty() && options.command != "classes") throw UsageError("--not is for classes only");
  if (options.command == "classes")
    for (const auto* list : {&options.args, &options.not_classes})
      for (const std::string& c : *list) ClassIndex(c);
  return options;
}

std::string FindModule(const std::string& option) {
  if (!option.empty()) return option;
  if (const char* env = std::getenv("FONTRIX_MODULE"); env && *env) return env;
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::path bin = ExecutableDir();
  const fs::path candidates[] = {bin / ".." / "lib" / "libfontrix.so", bin / "libfontrix.so"};
  for (const fs::path& candidate : candidates)
    if (fs::exists(candidate, ec)) return candidate.lexically_normal().string();
  throw std::runtime_error("cannot find the Fontrix module (looked for " + candidates[0].lexically_normal().string() +
                           " and " + candidates[1].string() + "); give its path with --module or FONTRIX_MODULE");
}

volatile std::sig_atomic_t interrupted = 0;

// The first Ctrl-C asks for an orderly shutdown; a second one ends the process at once.
extern "C" void OnInterrupt(int) {
  interrupted = 1;
  std::signal(SIGINT, SIG_DFL);
}

double Seconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

// A one-line bar on standard error, redrawn in place; only on a terminal, and only once the
// wait has lasted a second, so quick runs and pipes see nothing.
class ProgressBar {
 public:
  ProgressBar() : enabled_(isatty(STDERR_FILENO) == 1), start_(Seconds()) {}
  ~ProgressBar() {
    if (shown_) std::fputs("\r\033[K", stderr);
  }
  void Show(uint64_t done, uint64_t total) {
    const double now = Seconds();
    if (!enabled_ || now - start_ < 1.0 || now - drawn_ < 0.1 || (shown_ && done == done_ && total == total_)) return;
    drawn_ = now;
    done_ = done;
    total_ = total;
    shown_ = true;
    constexpr int kWidth = 30;
    const int filled = total ? int(kWidth * std::min(done, total) / total) : 0;
    std::fprintf(stderr, "\rfontrix: updating caches [%s%s] %llu/%llu fonts\033[K",
                 std::string(size_t(filled), '#').c_str(), std::string(size_t(kWidth - filled), '.').c_str(),
                 static_cast<unsigned long long>(done), static_cast<unsigned long long>(total));
    std::fflush(stderr);
  }

 private:
  bool enabled_, shown_ = false;
  double start_, drawn_ = 0;
  uint64_t done_ = 0, total_ = 0;
};

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void Check(QVErr err, const std::string& what) {
  if (err) throw Failure(what + " failed (error " + ErrorText(err) + ")");
}

// Idle ticks until every enabled service is idle; false when interrupted.
bool WaitForServices(Host& host, const FontrixProgressSuite& progress) {
  ProgressBar bar;
  bool idle = false;
  auto check = [&] {
    uint64_t done = 0, total = 0;
    idle = true;
    for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
      FontrixServiceProgress p{};
      Check(progress.GetServiceProgress(service, &p), "reading the module's progress");
      if (!p.enabled) continue;
      idle = idle && p.idle;
      done += p.fontsDone;
      total += p.fontsTotal;
    }
    bar.Show(done, total);
  };
  check();
  host.RunUntil([&] { return idle || interrupted; }, std::numeric_limits<double>::infinity(), check);
  return !interrupted;
}

struct FontRow {
  std::string name, family, style, file;
};

size_t DisplayWidth(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text) width += (c & 0xC0) != 0x80;  // code points, not bytes
  return width;
}

void PrintFonts(const std::vector<FontRow>& rows, bool json) {
  std::string out;
  if (json) {
    out = "{\"fonts\": [";
    for (size_t i = 0; i < rows.size(); ++i) {
      const FontRow& r = rows[i];
      out += (i ? ",\n  " : "\n  ");
      out += "{\"name\": " + JsonString(r.name) + ", \"family\": " + JsonString(r.family) +
             ", \"style\": " + JsonString(r.style) + ", \"file\": " + JsonString(r.file) + "}";
    }
    out += rows.empty() ? "]}\n" : "\n]}\n";
  } else {
    size_t name_width = DisplayWidth("UNIQUE_NAME"), family_width = DisplayWidth("FAMILY");
    for (const FontRow& r : rows) {
      name_width = std::max(name_width, DisplayWidth(r.name));
      family_width = std::max(family_width, DisplayWidth(r.family));
    }
    auto line = [&](const std::string& name, const std::string& family, const std::string& style) {
      out += name + std::string(name_width - DisplayWidth(name) + 2, ' ');
      out += family + std::string(family_width - DisplayWidth(family) + 2, ' ');
      out += style + "\n";
    };
    line("UNIQUE_NAME", "FAMILY", "STYLE");
    for (const FontRow& r : rows) line(r.name, r.family, r.style);
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

void Fonts(Host& host, const FontrixProgressSuite& progress, const Options& options) {
  std::vector<QVFontHandle> handles;
  FontrixFontHandleList list{&handles, [](void* context, QVFontHandle font) {
                               static_cast<std::vector<QVFontHandle>*>(context)->push_back(font);
                             }};
  uint32_t generation = 0;
  Check(progress.GetFontList(&list, &generation), "listing the module's fonts");
  auto* fonts = static_cast<const QVFontSuite*>(host.AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  std::vector<FontRow> rows;
  for (size_t i = 0; i < handles.size() && i < options.limit; ++i) {
    const char *name = nullptr, *family = nullptr, *style = nullptr, *file = nullptr;
    int32_t face_index = 0;
    if (fonts->GetFontNames(handles[i], &name, &family, &style) || fonts->GetFontFile(handles[i], &file, &face_index)) {
      host.ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
      throw Failure("the module listed a font handle the host does not know");
    }
    rows.push_back({name, family, style, file});
  }
  host.ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
  PrintFonts(rows, options.json);
}

// A suite of the host or the module, released when it goes.
template <typename Suite>
class HeldSuite {
 public:
  HeldSuite(Host& host, const char* name, int32_t version)
      : host_(host),
        name_(name),
        version_(version),
        suite_(static_cast<const Suite*>(host.AcquireSuite(name, version))) {
    if (!suite_) throw Failure(std::string("there is no suite \"") + name + "\"");
  }
  ~HeldSuite() { host_.ReleaseSuite(name_, version_); }
  HeldSuite(const HeldSuite&) = delete;
  HeldSuite& operator=(const HeldSuite&) = delete;
  const Suite& operator*() const { return *suite_; }
  const Suite* operator->() const { return suite_; }

 private:
  Host& host_;
  const char* name_;
  int32_t version_;
  const Suite* suite_;
};

// The installed font named `name`; a name that is not installed fails, listing the installed
// names most like it.
QVFontHandle FindInstalledFont(Host& host, const std::string& name) {
  HeldSuite<QVFontSuite> fonts(host, kQVFontSuite, kQVFontSuiteVersion);
  QVFontHandle font = nullptr;
  if (const QVErr err = fonts->FindFontByName(name.c_str(), &font)) {
    if (err != kQVNotFoundErr) Check(err, "finding the font");
    std::vector<std::string> names;
    for (const HostFont& f : host.Fonts()) names.push_back(f.unique_name);
    std::string close;
    for (const std::string& n : CloseNames(names, name)) close += (close.empty() ? "" : ", ") + n;
    throw Failure("no installed font is named '" + name + "'" +
                  (close.empty() ? " (fontrix fonts lists them)" : "; close names: " + close));
  }
  return font;
}

// The font is found, and the text drawn, through the suites and engine procedures the module
// uses.
void DrawSpecimenFile(Host& host, const Options& options) {
  const std::string& name = options.args[0];
  const std::string& text = options.args[1];
  HeldSuite<QVFontGlueSuite> glue(host, kQVFontGlueSuite, kQVFontGlueSuiteVersion);
  const QVFontHandle font = FindInstalledFont(host, name);
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

struct SimilarRow {
  std::string name, family, style;
  double score;
};

// Family and style of each result, through the host's font suite.
std::vector<SimilarRow> ResultRows(const QVFontSuite& fonts, const std::vector<std::pair<std::string, double>>& found,
                                   size_t limit) {
  std::vector<SimilarRow> rows;
  for (const auto& [result, score] : found) {
    if (rows.size() >= limit) break;
    QVFontHandle font = nullptr;
    const char *unique = nullptr, *family = nullptr, *style = nullptr;
    if (fonts.FindFontByName(result.c_str(), &font) || fonts.GetFontNames(font, &unique, &family, &style))
      family = style = "";
    rows.push_back({result, family ? family : "", style ? style : "", score});
  }
  return rows;
}

// Results as JSON (`key` names what was asked) or as an aligned table.
std::string FormatResults(const std::string& key, const std::string& asked, const std::vector<SimilarRow>& rows,
                          bool json, const std::string& none) {
  std::string out;
  if (json) {
    out = "{" + JsonString(key) + ": " + JsonString(asked) + ", \"results\": [";
    for (size_t i = 0; i < rows.size(); ++i) {
      char score[32];
      std::snprintf(score, sizeof score, "%.6f", rows[i].score);
      out += std::string(i ? ", " : "") + "{\"name\": " + JsonString(rows[i].name) +
             ", \"family\": " + JsonString(rows[i].family) + ", \"style\": " + JsonString(rows[i].style) +
             ", \"score\": " + score + "}";
    }
    return out + "]}\n";
  }
  if (rows.empty()) return none + "\n";
  size_t w = 4;
  for (const auto& r : rows) w = std::max(w, DisplayWidth(r.name));
  for (const auto& r : rows) {
    char score[32];
    std::snprintf(score, sizeof score, "%.4f", r.score);
    out += std::string(score) + "  " + r.name + std::string(w - DisplayWidth(r.name) + 2, ' ') + r.family + "  " +
           r.style + "\n";
  }
  return out;
}

// Writes a contact sheet: the rows already in `sheet`, then `first` (a label and a font, when it
// has a font), then a labelled sample of every result font.
void WriteResultSheet(Host& host, const QVFontSuite& fonts, const std::string& path, std::vector<Specimen>& sheet,
                      const std::vector<SimilarRow>& rows, const std::pair<std::string, QVFontHandle>& first) {
  HeldSuite<QVFontGlueSuite> glue(host, kQVFontGlueSuite, kQVFontGlueSuiteVersion);
  QVFontHandle label = nullptr;
  if (fonts.FindFontByName("DejaVuSans", &label)) label = nullptr;
  if (first.second) AddSheetRow(sheet, *glue, label, first.first, first.second);
  for (const auto& r : rows) {
    QVFontHandle font = nullptr;
    char score[32];
    std::snprintf(score, sizeof score, "%.4f", r.score);
    if (!fonts.FindFontByName(r.name.c_str(), &font)) AddSheetRow(sheet, *glue, label, r.name + "  " + score, font);
  }
  try {
    WriteSheet(path, sheet);
  } catch (const std::runtime_error& e) {
    throw Failure(std::string("cannot write the sheet: ") + e.what());
  }
}

FontrixFontList Collector(std::vector<std::pair<std::string, double>>& found) {
  return {&found, [](void* c) { static_cast<std::vector<std::pair<std::string, double>>*>(c)->clear(); },
          [](void* c, const FontrixFontResult* f) {
            static_cast<std::vector<std::pair<std::string, double>>*>(c)->emplace_back(f->name, f->score);
          }};
}

// Asks the module's similar-font suite, exactly as another plug-in would.
void Similar(Host& host, const Options& options) {
  const std::string& name = options.args[0];
  const QVFontHandle query = FindInstalledFont(host, name);
  HeldSuite<FontrixSimilarSuite> similar(host, kFontrixSimilarSuite, kFontrixSimilarSuiteVersion);
  std::vector<std::pair<std::string, double>> found;
  FontrixFontList list = Collector(found);
  const QVErr err = similar->GetSimilarFontNames(name.c_str(), &list);
  if (err == kQVNotInitialisedErr)
    throw Failure("the similarity service is not running (switched off, or its data is missing)");
  Check(err, "the similar-font query");
  // A font the service could not image answers with itself alone: nothing is like it.
  if (found.size() == 1 && found[0].first == name) found.clear();
  HeldSuite<QVFontSuite> fonts(host, kQVFontSuite, kQVFontSuiteVersion);
  const std::vector<SimilarRow> rows = ResultRows(*fonts, found, options.limit);
  const std::string out =
      FormatResults("query", name, rows, options.json,
                    "no font is known to be like " + name + " (the similarity service could not image it)");
  std::fwrite(out.data(), 1, out.size(), stdout);
  if (!options.sheet.empty()) {
    std::vector<Specimen> sheet;
    WriteResultSheet(host, *fonts, options.sheet, sheet, rows, {name + " (query)", query});
  }
  std::fflush(stdout);
}

// Asks the module's recognition suite about a picture, exactly as another plug-in would.
void Recognize(Host& host, const Options& options) {
  const std::string& path = options.args[0];
  std::unique_ptr<ImageRaster> image;
  try {
    image = LoadImageRaster(path);
  } catch (const std::runtime_error& e) {
    throw Failure(e.what());
  }
  HeldSuite<FontrixRecognitionSuite> recognition(host, kFontrixRecognitionSuite, kFontrixRecognitionSuiteVersion);
  std::vector<std::pair<std::string, double>> found;
  FontrixFontList list = Collector(found);
  const QVErr err = recognition->GetRecognizedFonts(image->handle(), &list);
  if (err == kQVNotInitialisedErr)
    throw Failure("the recognition service is not running (switched off, or its data is missing)");
  Check(err, "the recognition query");
  HeldSuite<QVFontSuite> fonts(host, kQVFontSuite, kQVFontSuiteVersion);
  const std::vector<SimilarRow> rows = ResultRows(*fonts, found, options.limit);
  const std::string out =
      FormatResults("image", path, rows, options.json,
                    "no installed font recognised (a picture needs at least 20 x 20 pixels of one line of text)");
  std::fwrite(out.data(), 1, out.size(), stdout);
  if (!options.sheet.empty()) {
    std::vector<Specimen> sheet(1);  // the picture itself on top
    sheet[0].width = image->width();
    sheet[0].height = image->height();
    for (int32_t y = 0; y < image->height(); ++y)
      sheet[0].pixels.insert(sheet[0].pixels.end(), image->row(y), image->row(y) + image->width());
    WriteResultSheet(host, *fonts, options.sheet, sheet, rows, {"", nullptr});
  }
  std::fflush(stdout);
}

// The style classes as the module's feature suite answers them, exactly as another plug-in asks:
// with no class, every installed font with its classes; with classes, the fonts that have all of
// them and none of the --not ones.
void Classes(Host& host, const Options& options) {
  HeldSuite<FontrixFeatureSuite> feature(host, kFontrixFeatureSuite, kFontrixFeatureSuiteVersion);
  std::map<std::string, uint32_t> masks;
  for (int32_t i = 0; i < 8; ++i) {
    std::vector<std::pair<std::string, double>> found;
    FontrixFontList list = Collector(found);
    const QVErr err = feature->GetFontsWithLabel(&i, &list);
    if (err == kQVNotInitialisedErr) throw Failure("the classification service is not running (switched off)");
    Check(err, "the class query");
    for (const auto& f : found) masks[f.first] |= 1u << i;
  }
  uint32_t all = 0, none = 0;
  for (const std::string& c : options.args) all |= 1u << ClassIndex(c);
  for (const std::string& c : options.not_classes) none |= 1u << ClassIndex(c);

  std::string out = options.json ? "{\"fonts\": [" : "";
  size_t shown = 0;
  for (const HostFont& font : host.Fonts()) {
    const auto found = masks.find(font.unique_name);
    const uint32_t mask = found == masks.end() ? 0 : found->second;
    if ((mask & all) != all || (mask & none) || shown >= options.limit) continue;
    std::vector<int32_t> bits;
    for (int32_t i = 0; i < 8; ++i)
      if (mask & (1u << i)) bits.push_back(i);
    if (options.json) {
      out += std::string(shown ? ",\n  " : "\n  ") + "{\"name\": " + JsonString(font.unique_name) +
             ", \"family\": " + JsonString(font.family) + ", \"style\": " + JsonString(font.style) + ", \"classes\": [";
      for (size_t k = 0; k < bits.size(); ++k) out += std::string(k ? ", " : "") + JsonString(kClassLabels[bits[k]]);
      out += "]}";
    } else if (!options.args.empty() || !options.not_classes.empty()) {
      out += font.unique_name + "\n";
    } else {
      out += font.unique_name + "\t";
      for (size_t k = 0; k < bits.size(); ++k) out += std::string(k ? ", " : "") + kClassShortNames[bits[k]];
      out += "\n";
    }
    ++shown;
  }
  if (options.json) out += "\n]}\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

// What the module's background work did, per service, as its progress suite tells it.
void Index(const FontrixProgressSuite& progress, const Options& options, double seconds) {
  static const char* const kNames[] = {"classification", "similarity", "recognition"};
  std::string out = options.json ? "{\"services\": [" : "";
  for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
    FontrixServiceProgress p{};
    Check(progress.GetServiceProgress(service, &p), "reading the module's progress");
    char line[256];
    if (options.json) {
      std::snprintf(line, sizeof line,
                    "%s{\"service\": \"%s\", \"enabled\": %s, \"fonts\": %u, \"matched\": %u, "
                    "\"computed\": %u, \"unusable\": %u}",
                    service ? ", " : "", kNames[service], p.enabled ? "true" : "false", p.fontsTotal, p.fontsMatched,
                    p.fontsComputed, p.fontsUnusable);
    } else if (!p.enabled) {
      std::snprintf(line, sizeof line, "%-15s off\n", kNames[service]);
    } else {
      std::snprintf(line, sizeof line, "%-15s %u fonts: %u already cached, %u computed, %u unusable\n", kNames[service],
                    p.fontsTotal, p.fontsMatched, p.fontsComputed, p.fontsUnusable);
    }
    out += line;
  }
  char tail[96];
  std::snprintf(tail, sizeof tail, options.json ? "], \"seconds\": %.2f}\n" : "took %.2f s\n", seconds);
  out += tail;
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

int RunCommand(const Options& options) {
  HostOptions host_options;
  host_options.data_dir = options.data_dir;
  host_options.cache_dir = options.cache_dir;
  for (const std::string& key : options.disabled) host_options.switches[key] = false;
  if (options.debug_log) host_options.switches[kSwitchDumpDebugInfo] = true;
  const double started = Seconds();
  Host host(std::move(host_options));
  host.LoadModule(FindModule(options.module));

  if (QVErr err = host.Startup()) throw Failure("the Fontrix module failed to start (error " + ErrorText(err) + ")");
  interrupted = 0;
  std::signal(SIGINT, OnInterrupt);

  int status = 0;
  try {
    Check(host.ApplicationStarted(), "the module's start-up notification");
    Check(host.FontListChanged(), "the module's font list notification");
    if (options.command == "specimen") {
      DrawSpecimenFile(host, options);
    } else {
      HeldSuite<FontrixProgressSuite> progress(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion);
      if (!WaitForServices(host, *progress)) {
        std::fprintf(stderr, "fontrix: interrupted\n");
        status = 130;
      } else if (options.command == "fonts") {
        Fonts(host, *progress, options);
      } else if (options.command == "similar") {
        Similar(host, options);
      } else if (options.command == "classes") {
        Classes(host, options);
      } else if (options.command == "recognize") {
        Recognize(host, options);
      } else if (options.command == "index") {
        Index(*progress, options, Seconds() - started);
      }
    }
  } catch (const Failure& e) {
    std::fprintf(stderr, "fontrix: %s\n", e.what());
    status = 1;
  }

  // The module finishes what the shutdown notification starts during a few more ticks.
  const QVErr notified = host.ApplicationShutdown();
  for (int tick = 0; tick < 3; ++tick) host.Idle();
  const QVErr shut = host.Shutdown();
  std::signal(SIGINT, SIG_DFL);
  if ((notified || shut) && status == 0) {
    std::fprintf(stderr, "fontrix: the Fontrix module did not shut down cleanly (error %s)\n",
                 ErrorText(notified ? notified : shut).c_str());
    status = 1;
  }
  return status;
}

}  // namespace

int RunCli(int argc, char** argv) {
  Options options;
  try {
    options = Parse(argc, argv);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "fontrix: %s\n%s\n", e.what(), kUsage);
    return 2;
  }
  if (options.help) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  if (options.version) {
    std::printf("fontrix %s\n", FONTRIX_VERSION);
    return 0;
  }
  try {
    return RunCommand(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "fontrix: %s\n", e.what());
    return 1;
  }
}

}  // namespace fontrix::host
