#include "host/tool/options.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "host/specimen.h"
#include "host/tool/queries.h"
#include "host/tool/rows.h"
#include "host/tool/substitute.h"

namespace fontrix::host {

extern const char* const kUsage = "usage: fontrix [OPTIONS] COMMAND   (fontrix --help lists them)";

extern const char* const kHelp =
    "usage: fontrix [OPTIONS] COMMAND\n"
    "\n"
    "Commands:\n"
    "  fonts [PATTERN] [--class CLASS ...] [--all | --known]\n"
    "                      the installed fonts the module uses, by family, weight, width and\n"
    "                      slant: unique name, family, style. PATTERN: a fontconfig pattern as\n"
    "                      fc-list takes it (\"Open Sans\", :weight=bold, \"DejaVu Sans:italic\"),\n"
    "                      or text in the name or family; --class keeps fonts of those classes;\n"
    "                      --all lists every face fontconfig lists, with why one is left out\n"
    "                      or which service could not use it; --known lists the open fonts the\n"
    "                      module knows, installed or not, with where to get them (PATTERN: text\n"
    "                      in the name or family)\n"
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
    "                      is answered from what the module knows of it, as said on standard\n"
    "                      error: a face of its similarity table, an open font of its data, or\n"
    "                      a well-known family that is not open (\"Gotham Light\") through its\n"
    "                      open look-alikes, the installed ones first (%{look_alike})\n"
    "  substitute FAMILY-LIST ... [--weight N] [--italic]\n"
    "                      for each CSS font-family list ('Helvetica Neue', Arial, sans-serif),\n"
    "                      whether this machine draws it, else the installed face to use\n"
    "                      instead: kept when its first family is installed, or a later one\n"
    "                      before a generic name, or a well-known family fontconfig draws with\n"
    "                      an installed clone (Arial with Liberation Sans); else its first family\n"
    "                      is replaced by an installed clone, revival or look-alike of a\n"
    "                      well-known family, else the installed font most like its look-alikes,\n"
    "                      an open font the module knows, or a face of its similarity table; at\n"
    "                      CSS weight N (1 to 1000, default 400), upright unless --italic. A line\n"
    "                      each: the list, keep, replace or none, family, face, why. Exits 1 when\n"
    "                      a list's first family is unknown\n"
    "  recognize IMAGE [--largest-line] [--installed-only] [--sheet FILE]\n"
    "                      the fonts most likely shown in a picture of text (PNG or JPEG of at\n"
    "                      most 64 megapixels, a file or - for standard input; at most 40\n"
    "                      fonts), best first, with scores and confidences (the chance each is\n"
    "                      right; \"not sure\" is said when the first is unlikely): installed\n"
    "                      fonts and the open fonts the module knows that are not installed,\n"
    "                      each of those with where to get it and the installed fonts most\n"
    "                      like it; --installed-only answers with installed fonts alone;\n"
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
    "                      class-head: style classes without the class head's reading of\n"
    "                      the similarity vectors;\n"
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
    "                      alike the picture is to a line drawn in the font), %{look_alike}\n"
    "                      (similar: clone, revival or look-alike of the family asked about);\n"
    "                      \\t and \\n. Without it, text output is tab-separated columns, with a\n"
    "                      header line on a terminal\n"
    "  --limit N           at most N results\n"
    "  --help, --version\n";

namespace {

// Each command, the fewest and the most arguments it takes, and the most results it gives.
struct Command {
  const char* name;
  size_t fewest, most, results;
};
constexpr size_t kAny = std::numeric_limits<size_t>::max();
const Command kCommands[] = {{"fonts", 0, 1, kAny},         {"classes", 0, kAny, kAny}, {"similar", 1, 1, 80},
                             {"substitute", 1, kAny, kAny}, {"recognize", 1, 1, 40},    {"index", 0, 0, kAny},
                             {"specimen", 2, 2, kAny},      {"serve", 0, 0, kAny}};

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

int ParseWeight(const std::string& text) {
  if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(text) < 1 || std::stoul(text) > 1000)
    throw UsageError("--weight needs a CSS weight from 1 to 1000, not '" + text + "'");
  return int(std::stoul(text));
}

size_t ParseLimit(const std::string& text) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(text) == 0)
    throw UsageError("--limit needs a whole number of at least 1, not '" + text + "'");
  return std::stoul(text);
}

}  // namespace

Options Parse(int argc, char** argv) {
  Options options;
  std::vector<std::string> positional;
  bool options_end = false, weight_given = false;
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
        name == "--port" || name == "--listen" || name == "--weight") {
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
      if (name == "--weight") options.weight = ParseWeight(value), weight_given = true;
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
                 : name == "--known"          ? &options.known
                 : name == "--other-families" ? &options.other_families
                 : name == "--largest-line"   ? &options.largest_line
                 : name == "--italic"         ? &options.italic
                 : name == "--installed-only" ? &options.installed_only
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
  if (options.known && (options.command != "fonts" || options.all || !options.classes.empty()))
    throw UsageError("--known is for fonts only, without --all and --class");
  if (options.largest_line && options.command != "recognize") throw UsageError("--largest-line is for recognize only");
  if (options.installed_only && options.command != "recognize")
    throw UsageError("--installed-only is for recognize only");
  if ((options.serve.port != ServeOptions().port || options.serve.listen_given || options.serve.open) &&
      options.command != "serve")
    throw UsageError("--port, --listen and --open are for serve only");
  if ((weight_given || options.italic) && options.command != "substitute")
    throw UsageError("--weight and --italic are for substitute only");
  if (options.command == "substitute") {
    for (const std::string& list : options.args) try {
        ParseFamilyList(list);
      } catch (const FamilyListError& e) {
        throw UsageError(std::string("substitute: ") + e.what());
      }
  }
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

}  // namespace fontrix::host
