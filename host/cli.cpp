// fontrix: starts the module in the reference host, lets it bring its caches up to date with
// the installed fonts, answers one command through the module's suites as another plug-in
// would, then shuts the module down in order. `specimen` draws through the host's font engine
// instead, the procedures the module binds, and needs none of the module's caches.
#include "host/cli.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "host/cli_rows.h"
#include "host/font_names.h"
#include "host/host.h"
#include "host/image.h"
#include "host/json.h"
#include "host/serve.h"
#include "host/specimen.h"
#include "host/table_names.h"
#include "host/tool.h"
#include "sdk/fontrix_suites.h"
#include "sdk/qv_font_suites.h"
#include "sdk/qv_host_suites.h"

namespace fontrix::host {
namespace {

const char* const kUsage = "usage: fontrix [OPTIONS] COMMAND   (fontrix --help lists them)";

const char* const kHelp =
    "usage: fontrix [OPTIONS] COMMAND\n"
    "\n"
    "Commands:\n"
    "  fonts [PATTERN] [--class CLASS ...] [--all]\n"
    "                      the installed fonts the module uses, by family, weight, width and\n"
    "                      slant: unique name, family, style. PATTERN: a fontconfig pattern as\n"
    "                      fc-list takes it (\"Open Sans\", :weight=bold, \"DejaVu Sans:italic\"),\n"
    "                      or text in the name or family; --class keeps fonts of those classes;\n"
    "                      --all lists every face fontconfig lists, with why one is left out\n"
    "  classes [CLASS ...] [--not CLASS ...] [--sheet FILE]\n"
    "                      every installed font with its style classes; with classes, the fonts\n"
    "                      that have all of them and none of the --not ones (blackletter,\n"
    "                      decorative, handmade, monospace, sans-serif, script, serif,\n"
    "                      slab-serif, or label strings such as fs_slab_serif); --sheet writes a\n"
    "                      PNG contact sheet of them, labelled with family and style\n"
    "  similar NAME [--other-families] [--class CLASS ...] [--sheet FILE]\n"
    "                      the installed fonts most like font NAME (at most 80), best first, with\n"
    "                      scores; --other-families leaves out NAME's own family, --class keeps\n"
    "                      fonts of those classes (--limit counts the fonts kept); --sheet writes\n"
    "                      a PNG contact sheet of their specimens. A NAME that is not installed\n"
    "                      but is a face of the module's similarity table is answered from the\n"
    "                      table, as said on standard error\n"
    "  recognize IMAGE [--largest-line] [--sheet FILE]\n"
    "                      the installed fonts most likely shown in a picture of text (PNG or\n"
    "                      JPEG of at most 64 megapixels, a file or - for standard input; at\n"
    "                      most 40 fonts), best first, with scores and confidences (the chance\n"
    "                      each is right; \"not sure\" is said when the first is unlikely);\n"
    "                      --sheet draws a sample in each. The text is found by its ink,\n"
    "                      whatever the margins, and sloping text is levelled; of several\n"
    "                      lines the four largest are read and their scores combined, or only\n"
    "                      the largest with --largest-line. A line is read up to 128 times as\n"
    "                      wide as high: the rest of a longer one is left out. A picture\n"
    "                      without text fails\n"
    "  index               brings the module's caches up to date and reports what it did\n"
    "  specimen NAME TEXT -o FILE [--size N]\n"
    "                      draws TEXT in the installed font NAME into the PNG FILE, N pixels to\n"
    "                      the em (1 to 2000, default 200), as the module draws text; at most\n"
    "                      1000 characters and a picture of 64 megapixels\n"
    "  serve [--port N] [--listen ADDR] [--open]\n"
    "                      a web page over the same services: identify the font of a picture,\n"
    "                      alternatives to a font, fonts by style, and the JSON API it uses;\n"
    "                      on 127.0.0.1 port N (default 8470; 0: a free port), or on ADDR\n"
    "                      (then open to others); --open shows it in the desktop's browser.\n"
    "                      Prints the page's address; Ctrl-C stops it\n"
    "\n"
    "NAME is what you would give fc-match: a PostScript name (any case), a family (\"Open Sans\"),\n"
    "a family and style (\"Open Sans Bold\", \"Open Sans:bold\"), a fontconfig pattern or a font\n"
    "file. When it leaves a choice, the face fc-match picks is used and named on standard error.\n"
    "\n"
    "Options (before or after the command):\n"
    "  --module PATH       the module (default: $FONTRIX_MODULE, then libfontrix.so in ../lib or\n"
    "                      beside this program)\n"
    "  --data-dir DIR      the module's read-only data (default: $FONTRIX_DATA_DIR, then the\n"
    "                      installed share/fontrix, then the source tree's data/)\n"
    "  --cache-dir DIR     the module's caches (default: $FONTRIX_CACHE_DIR, then\n"
    "                      $XDG_CACHE_HOME/fontrix or ~/.cache/fontrix)\n"
    "  --disable SERVICE   turn off classification, similarity or recognition (repeatable or\n"
    "                      comma-separated; also $FONTRIX_DISABLE); class-vote: style classes\n"
    "                      from the linear rows alone, without the vote of look-alike faces;\n"
    "                      installed-lines: recognition from the network's classes alone,\n"
    "                      without the lines drawn in each installed font; width-cuts: the\n"
    "                      network's order between a face and its condensed or expanded cut\n"
    "  --debug-log         let the module write its debug information\n"
    "  -s, --style STYLE   the style of NAME's family to use (\"italic\", \"Semi Bold\")\n"
    "  --json              JSON output\n"
    "  --format FORMAT     one line per font, with fields as fc-list -f takes them: %{name},\n"
    "                      %{family}, %{style}, %{file}, %{index}, %{weight}, %{width},\n"
    "                      %{slant} (fontconfig's values), %{score}, %{classes}, %{status},\n"
    "                      %{same_outlines} (similar: answers with the same outlines),\n"
    "                      %{confidence}, %{likeness} (recognize: the chance it is right, how\n"
    "                      alike the picture is to a line drawn in the font);\n"
    "                      \\t and \\n. Without it, text output is tab-separated columns, with a\n"
    "                      header line on a terminal\n"
    "  --limit N           at most N results\n"
    "  --help, --version\n";

struct Options {
  std::string module, data_dir, cache_dir;
  std::vector<std::string> disabled;  // switch keys
  bool debug_log = false, json = false, help = false, version = false;
  size_t limit = std::numeric_limits<size_t>::max();
  std::string output;                    // specimen: -o
  std::string sheet;                     // similar: --sheet
  double size = 0;                       // specimen: --size; 0 until given
  std::vector<std::string> not_classes;  // classes: --not
  std::vector<std::string> classes;      // fonts, similar: --class
  bool other_families = false;           // similar: --other-families
  std::string style;                     // -s, --style: of the font NAME
  std::string format;                    // --format
  bool all = false;                      // fonts: --all
  bool largest_line = false;             // recognize: --largest-line
  ServeOptions serve;                    // serve: --port, --listen, --open
  bool limit_given = false;
  std::string command;
  std::vector<std::string> args;
};

// What specimen draws is bounded, so no text makes it run long or take much memory: at most
// this size and this many characters (and, in DrawSpecimen, 64 megapixels).
constexpr double kDefaultSpecimenSize = 200, kLargestSpecimenSize = 2000;
constexpr size_t kLongestSpecimenText = 1000;

// Each command, the fewest and the most arguments it takes, and the most results it gives.
struct Command {
  const char* name;
  size_t fewest, most, results;
};
constexpr size_t kAny = std::numeric_limits<size_t>::max();
const Command kCommands[] = {{"fonts", 0, 1, kAny},   {"classes", 0, kAny, kAny}, {"similar", 1, 1, 80},
                             {"recognize", 1, 1, 40}, {"index", 0, 0, kAny},      {"specimen", 2, 2, kAny},
                             {"serve", 0, 0, kAny}};

size_t CodePoints(const std::string& text) {
  size_t count = 0;
  for (unsigned char c : text) count += (c & 0xC0) != 0x80;
  return count;
}

double ParseSize(const std::string& text) {
  char* end = nullptr;
  const double size = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(size >= 1 && size <= kLargestSpecimenSize))
    throw UsageError("--size needs a number of pixels from 1 to " + std::to_string(int(kLargestSpecimenSize)) +
                     ", not '" + text + "'");
  return size;
}

int ParsePort(const std::string& text) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(text) > 65535)
    throw UsageError("--port needs a port number from 0 to 65535, not '" + text + "'");
  return int(std::stoul(text));
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
        name == "--not" || name == "--class" || name == "-s" || name == "--style" || name == "--format" ||
        name == "--port" || name == "--listen") {
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
      if (name == "--limit") options.limit = ParseLimit(value), options.limit_given = true;
      if (name == "--class") options.classes.push_back(value);
      if (name == "-s" || name == "--style") options.style = value;
      if (name == "--format") options.format = value;
      if (name == "--port") options.serve.port = ParsePort(value);
      if (name == "--listen") options.serve.listen = value, options.serve.listen_given = true;
      if (name == "-o" || name == "--output") options.output = value;
      if (name == "--size") options.size = ParseSize(value);
      if (name == "--sheet") options.sheet = value;
      if (name == "--not") options.not_classes.push_back(value);
      continue;
    }
    bool* flag = name == "--debug-log"        ? &options.debug_log
                 : name == "--json"           ? &options.json
                 : name == "--help"           ? &options.help
                 : name == "-h"               ? &options.help
                 : name == "--version"        ? &options.version
                 : name == "--all"            ? &options.all
                 : name == "--other-families" ? &options.other_families
                 : name == "--largest-line"   ? &options.largest_line
                 : name == "--open"           ? &options.serve.open
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
                                     [&](const Command& c) { return options.command == c.name; });
  if (command == std::end(kCommands)) {
    std::vector<std::string> names;
    for (const Command& c : kCommands) names.push_back(c.name);
    const std::vector<std::string> close = CloseNames(names, options.command, 1);
    throw UsageError("unknown command '" + options.command + "'" +
                     (close.empty() ? "" : " (did you mean '" + close[0] + "'?)"));
  }
  if (command->most == 0 && !options.args.empty())
    throw UsageError(options.command + " takes no argument, not '" + options.args[0] + "'");
  if (options.args.size() < command->fewest || options.args.size() > command->most)
    throw UsageError(options.command + " takes " +
                     (command->fewest == command->most ? std::to_string(command->fewest)
                                                       : "at most " + std::to_string(command->most)) +
                     " arguments, not " + std::to_string(options.args.size()));
  if (options.limit_given && options.limit > command->results)
    std::fprintf(stderr, "fontrix: %s answers at most %zu fonts, so --limit %zu shows at most %zu\n", command->name,
                 command->results, options.limit, command->results);
  const bool specimen = options.command == "specimen";
  if (specimen && options.output.empty()) throw UsageError("specimen needs the PNG file to write: -o FILE");
  if (!specimen && (!options.output.empty() || options.size))
    throw UsageError(std::string(options.output.empty() ? "--size" : "-o") + " is for specimen only");
  if (specimen && !options.size) options.size = kDefaultSpecimenSize;
  if (specimen && CodePoints(options.args[1]) > kLongestSpecimenText)
    throw UsageError("specimen draws at most " + std::to_string(kLongestSpecimenText) + " characters, not " +
                     std::to_string(CodePoints(options.args[1])));
  if (!options.sheet.empty() && options.command != "similar" && options.command != "recognize" &&
      options.command != "classes")
    throw UsageError("--sheet is for similar, recognize and classes only");
  if (!options.not_classes.empty() && options.command != "classes") throw UsageError("--not is for classes only");
  if (!options.classes.empty() && options.command != "fonts" && options.command != "similar")
    throw UsageError("--class is for fonts and similar only");
  if (options.other_families && options.command != "similar") throw UsageError("--other-families is for similar only");
  if (options.all && options.command != "fonts") throw UsageError("--all is for fonts only");
  if (options.largest_line && options.command != "recognize") throw UsageError("--largest-line is for recognize only");
  if ((options.serve.port != ServeOptions().port || options.serve.listen_given || options.serve.open) &&
      options.command != "serve")
    throw UsageError("--port, --listen and --open are for serve only");
  if (!options.style.empty() && options.command != "similar" && options.command != "specimen")
    throw UsageError("--style is for similar and specimen only");
  const bool rows = options.command == "fonts" || options.command == "classes" || options.command == "similar" ||
                    options.command == "recognize";
  if (!options.format.empty() && (!rows || options.json))
    throw UsageError(options.json ? "--format and --json exclude each other"
                                  : "--format is for fonts, classes, similar and recognize");
  try {
    CheckFormat(options.format);
  } catch (const FormatError& e) {
    throw UsageError(e.what());
  }
  if (options.command == "classes" || options.command == "fonts" || options.command == "similar")
    for (const auto* list : {&options.args, &options.not_classes, &options.classes})
      if (options.command == "classes" || list == &options.classes)
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

// What the services report, on stderr, each sentence once: a wait for another process while it
// lasts (also while the module shuts down and saves), warnings, failures and saves not made.
// Safe to call from a watching thread beside the host's.
class ServiceReports {
 public:
  explicit ServiceReports(const FontrixProgressSuite& progress) : progress_(progress) {}

  /// Says a wait going on now that was not said yet.
  void SayWaits() { Say(true); }
  /// Says every report not said yet; returns the services that cannot answer, bit per
  /// kFontrixService value.
  uint32_t SayNew() { return Say(false); }
  /// Whether a service said that what it computed was not kept.
  bool NotSaved() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return not_saved_;
  }

 private:
  uint32_t Say(bool waits_only) {
    std::lock_guard<std::mutex> lock(mutex_);
    uint32_t failed = 0;
    for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
      FontrixServiceProgress p{};
      int32_t severity = kFontrixReportNothing;
      char text[1024] = "";
      if (progress_.GetServiceProgress(service, &p) || !p.enabled ||
          progress_.GetServiceReport(service, &severity, text, sizeof text) || severity == kFontrixReportNothing)
        continue;
      if (severity == kFontrixReportFailure) failed |= 1u << service;
      if (severity == kFontrixReportNotSaved) not_saved_ = true;
      if ((severity == kFontrixReportWaiting) != waits_only || !said_.insert(text).second) continue;
      // A line of its own, over the progress bar if one is drawn.
      std::fprintf(stderr, "%sfontrix: %s%s\n", isatty(STDERR_FILENO) == 1 ? "\r\033[K" : "",
                   severity == kFontrixReportWarning || severity == kFontrixReportNotSaved ? "warning: " : "", text);
    }
    return failed;
  }

  const FontrixProgressSuite& progress_;
  mutable std::mutex mutex_;
  std::set<std::string> said_;
  bool not_saved_ = false;
};

// Idle ticks until every enabled service is idle; false when interrupted. The bar counts fonts:
// a font is done when every enabled service is done with it.
bool WaitForServices(Host& host, const FontrixProgressSuite& progress, ServiceReports& reports) {
  ProgressBar bar;
  bool idle = false;
  auto check = [&] {
    reports.SayWaits();
    uint64_t done = std::numeric_limits<uint64_t>::max(), total = 0;
    idle = true;
    for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
      FontrixServiceProgress p{};
      Check(progress.GetServiceProgress(service, &p), "reading the module's progress");
      if (!p.enabled) continue;
      idle = idle && p.idle;
      total = std::max<uint64_t>(total, p.fontsTotal);
      done = std::min<uint64_t>(done, p.idle ? p.fontsTotal : p.fontsDone);
    }
    bar.Show(std::min(done, total), total);
  };
  check();
  host.RunUntil([&] { return idle || interrupted; }, std::numeric_limits<double>::infinity(), check);
  return !interrupted;
}

// What the user typed, resolved among the faces the services use (the host's, so that
// specimen needs nothing of the module); a choice is said on stderr.
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

// Writes rows in the tool's one convention: JSON (`head` opens the object, "results" or
// "fonts" holds the rows), --format lines, or tab-separated columns of `columns` with a header
// line when standard output is a terminal.
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

// The fonts the module uses (or, with --all, every face the host lists, with why one is left
// out), by family, kept by PATTERN and --class.
void Fonts(Host& host, const Options& options) {
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
    }
    rows.push_back(std::move(row));
  }
  PrintRows(options, "", "fonts", rows,
            std::string("%{name}\\t%{family}\\t%{style}") + (wanted ? "\\t%{classes}" : "") +
                (options.all ? "\\t%{status}" : ""));
}

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

constexpr const char* kResultColumns = "%{score}\\t%{name}\\t%{family}\\t%{style}";
constexpr const char* kRecognitionColumns = "%{score}\\t%{confidence}\\t%{name}\\t%{family}\\t%{style}";

// Writes a contact sheet: the rows already in `sheet`, then `first` (a label and a font, when it
// has a font), then a labelled sample of every result font.
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
  const RecognizeAnswer answer = RecognizeRaster(host, *image, options.limit);
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
  PrintRows(options,
            "\"image\": " + JsonString(path) + (sure ? std::string(", \"sure\": ") + (*sure ? "true" : "false") : ""),
            "results", rows, sure ? kRecognitionColumns : kResultColumns);
  if (!options.sheet.empty()) {
    std::vector<Specimen> sheet(1);  // the picture itself on top
    sheet[0].width = image->width();
    sheet[0].height = image->height();
    for (int32_t y = 0; y < image->height(); ++y)
      sheet[0].pixels.insert(sheet[0].pixels.end(), image->row(y), image->row(y) + image->width());
    WriteResultSheet(host, options.sheet, sheet, rows, {"", nullptr});
  }
}

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

// What the module's background work did, per service, as its progress suite tells it; the
// seconds taken go to standard error in text mode, so the columns stay columns.
void Index(const FontrixProgressSuite& progress, const Options& options, double seconds) {
  static const char* const kNames[] = {"classification", "similarity", "recognition"};
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
                    service ? ", " : "", kNames[service], p.enabled ? "true" : "false", p.fontsTotal, p.fontsMatched,
                    p.fontsComputed, p.fontsUnusable, JsonString(note).c_str());
    } else {
      std::snprintf(line, sizeof line, "%s\t%u\t%u\t%u\t%u\t%s\n", kNames[service], p.fontsTotal, p.fontsMatched,
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

// The services a command cannot answer without, bit per kFontrixService value. Recognition is
// steered by the similarity vectors, so it needs both.
uint32_t ServicesNeeded(const Options& options) {
  const std::string& c = options.command;
  if (c == "classes" || (c == "fonts" && !options.classes.empty())) return 1u << kFontrixServiceClassification;
  if (c == "similar") return 1u << kFontrixServiceSimilarity;
  if (c == "recognize") return (1u << kFontrixServiceSimilarity) | (1u << kFontrixServiceRecognition);
  return 0;
}

int RunCommand(const Options& options) {
  HostOptions host_options;
  host_options.data_dir = options.data_dir;
  host_options.cache_dir = options.cache_dir;
  for (const std::string& key : options.disabled) host_options.switches[key] = false;
  if (options.debug_log) host_options.switches[kSwitchDumpDebugInfo] = true;
  if (options.largest_line) host_options.switches[kSwitchRecognitionLargestLine] = true;
  const double started = Seconds();
  Host host(std::move(host_options));
  host.LoadModule(FindModule(options.module));

  if (QVErr err = host.Startup()) throw Failure("the Fontrix module failed to start (error " + ErrorText(err) + ")");
  interrupted = 0;
  std::signal(SIGINT, OnInterrupt);
  if (options.command == "serve") std::signal(SIGTERM, OnInterrupt);

  // Without a cache folder the module still answers, but keeps nothing: every command computes
  // every font again.
  const std::string cache = host.FolderPath(kQVFolderUserCache);
  std::error_code no_cache;
  std::filesystem::create_directories(cache, no_cache);
  if (!no_cache && !std::filesystem::is_directory(cache, no_cache))
    no_cache = std::make_error_code(std::errc::not_a_directory);
  if (no_cache)
    std::fprintf(stderr, "fontrix: warning: cannot make the cache folder %s (%s): nothing is kept between runs\n",
                 cache.c_str(), no_cache.message().c_str());

  int status = 0;
  std::optional<HeldSuite<FontrixProgressSuite>> progress;
  std::optional<ServiceReports> reports;
  try {
    Check(host.ApplicationStarted(), "the module's start-up notification");
    Check(host.FontListChanged(), "the module's font list notification");
    if (options.command == "specimen") {
      DrawSpecimenFile(host, options);
    } else if (options.command == "serve") {
      // The page shows the module's progress itself while it takes in the fonts.
      status = Serve(host, options.serve, interrupted);
      progress.emplace(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion);
      reports.emplace(**progress);
    } else {
      progress.emplace(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion);
      reports.emplace(**progress);
      if (!WaitForServices(host, **progress, *reports)) {
        std::fprintf(stderr, "fontrix: interrupted\n");
        status = 130;
      } else if (const uint32_t failed = reports->SayNew(); failed & ServicesNeeded(options)) {
        status = 1;  // the reason is said: the command cannot do its job
      } else if (options.command == "fonts") {
        Fonts(host, options);
      } else if (options.command == "similar") {
        Similar(host, options);
      } else if (options.command == "classes") {
        Classes(host, options);
      } else if (options.command == "recognize") {
        Recognize(host, options);
      } else if (options.command == "index") {
        Index(**progress, options, Seconds() - started);
        if (failed) status = 1;
      }
    }
  } catch (const Failure& e) {
    std::fprintf(stderr, "fontrix: %s\n", e.what());
    status = 1;
  }

  // The module saves its caches while it shuts down: a wait for another process's hold on the
  // folder is said as it happens, and a save that failed after it.
  std::atomic<bool> shutting{true};
  std::thread watcher;
  if (reports)
    watcher = std::thread([&] {
      while (shutting.load()) {
        reports->SayWaits();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
    });
  // The module finishes what the shutdown notification starts during a few more ticks.
  const QVErr notified = host.ApplicationShutdown();
  for (int tick = 0; tick < 3; ++tick) host.Idle();
  shutting.store(false);
  if (watcher.joinable()) watcher.join();
  if (reports) {
    reports->SayNew();
    // What index computed is lost when a cache could not be written: the job was not done.
    if (options.command == "index" && status == 0 && (reports->NotSaved() || no_cache)) status = 1;
  }
  progress.reset();
  const QVErr shut = host.Shutdown();
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
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
