#pragma once
// The tool's command line: its options, its commands with their arguments, and its help.
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "host/tool/serve.h"

namespace fontrix::host {

/// One line saying how to call the tool, printed after a usage error.
extern const char* const kUsage;
/// What --help prints.
extern const char* const kHelp;

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
  bool known = false;                    // fonts: --known
  bool largest_line = false;             // recognize: --largest-line
  int weight = 400;                      // substitute: --weight, CSS
  bool italic = false;                   // substitute: --italic
  bool installed_only = false;           // recognize: --installed-only
  ServeOptions serve;                    // serve: --port, --listen, --open
  bool limit_given = false;
  std::string command;
  std::vector<std::string> args;
};

// What specimen draws is bounded, so no text makes it run long or take much memory: at most
// this size and this many characters (and, in DrawSpecimen, 64 megapixels).
constexpr double kDefaultSpecimenSize = 200, kLargestSpecimenSize = 2000;
constexpr size_t kLongestSpecimenText = 1000;

/// Reads the command line; anything it cannot take is a UsageError (host/tool/queries.h).
Options Parse(int argc, char** argv);

}  // namespace fontrix::host
