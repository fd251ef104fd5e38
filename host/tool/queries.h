#pragma once
// What the tool's commands and its web server share: the module's answers asked through its
// suites exactly as another plug-in asks them, as rows (host/cli_rows.h), without printing.
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/host.h"
#include "host/image.h"
#include "host/tool/known_fonts.h"
#include "host/tool/rows.h"
#include "host/tool/table_names.h"
#include "sdk/fontrix_suites.h"

namespace fontrix::host {

/// A request that is wrong as given (an unknown class, an option out of range): the tool exits
/// 2 with its usage line, the web server answers 400.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A command that cannot be answered (an unknown font, a picture without text): one sentence.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws Failure saying `what` failed with `err` unless it is 0.
void Check(QVErr err, const std::string& what);

/// A suite of the host or the module, released when it goes.
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

/// A service (a kFontrixService value) as the tool names it, as --disable takes it.
const char* ServiceName(int32_t service);
/// The feature switch that turns a service (a kFontrixService value) on or off.
const char* ServiceSwitch(int32_t service);

/// The bit of a class given as its label string or short form ("-" and "_" alike); throws a
/// UsageError listing the classes.
int32_t ClassIndex(const std::string& text);

/// The faces the module uses, in its order: its font list, through its progress suite.
std::vector<const HostFont*> ModuleFonts(Host& host);
/// What the host knows of a face, as a row.
OutputRow RowOf(const HostFont& f);
/// What the module's data knows of a face the machine may lack, as a row: fontconfig's weight and
/// slant for its CSS ones, whether it is installed, where it comes from and its licence.
OutputRow RowOf(const KnownFace& f);
/// By family (in any case), then weight, width and slant, as a type specimen book orders them.
void SortByFamily(std::vector<const HostFont*>& fonts);
/// The style classes of every font the module uses, as its feature suite answers them: by
/// unique name, bit i for kClassLabels[i].
std::map<std::string, uint32_t> ClassMasks(Host& host);
/// Rows of the fonts a suite answered, at most `limit`, with what the host knows of each.
std::vector<OutputRow> ResultRows(Host& host, const std::vector<std::pair<std::string, double>>& found, size_t limit);

/// The fonts the module uses, by family, whose classes include every bit of `all`, none of
/// `none` and, when `any` is not 0, at least one of `any`; each row with its classes.
std::vector<OutputRow> ClassRows(Host& host, uint32_t all, uint32_t none, uint32_t any, size_t limit);

/// The faces of the module's shipped similarity table, through its table suite; none when the
/// module publishes no such suite (an older module) or its similarity service is not running.
std::vector<TableFace> TableFaces(Host& host);

/// The face `similar` asks about: installed, or a face the machine lacks that the module knows:
/// a face of its shipped table, a known open face, or a well-known family that is not open.
struct SimilarQuery {
  std::string name, family, style;  ///< a well-known family: its name, twice, and the style asked
  bool installed = true;
  std::string known;            ///< "face": a known open face; "family": a well-known family; else ""
  std::string source, licence;  ///< a known face's
  /// A look-alike of a well-known family: the face of it nearest what was asked, installed or
  /// known to the module ("" when neither).
  struct LookAlike {
    std::string family, why, face, style;
    bool installed = false;
  };
  std::vector<LookAlike> look_alikes;  ///< best first
};

/// A similar-font question: NAME as people type it, and the filters over the module's answer.
struct SimilarRequest {
  std::string name, style;
  bool other_families = false;
  uint32_t classes = 0;  ///< keep fonts with all of these classes
  size_t limit = SIZE_MAX;
};

/// The module's answer: the face asked about, the rows kept, how many fonts the module named
/// before the filters, and what people should be told about how NAME was read.
struct SimilarAnswer {
  SimilarQuery query;
  std::vector<OutputRow> rows;
  size_t found = 0;
  std::vector<std::string> notes;
  /// What the query adds to the JSON object: "query", "query_family", "query_style",
  /// "query_installed"; for a font the module knows, "query_known" with "query_source" and
  /// "query_licence" (a face) or "look_alikes" (a family).
  std::string JsonHead() const;
  /// Why the answer holds no font ("" when it holds some), given the filters asked for.
  std::string EmptyReason(bool other_families, bool classes) const;
};

/// Asks the module's similar-font suite (its table suite for a face that is not installed).
/// Throws Failure for an unknown NAME or a service that is not running.
SimilarAnswer FindSimilar(Host& host, const SimilarRequest& request);

/// How many installed fonts most like a known face that is not installed recognize names.
constexpr size_t kClosestInstalled = 3;

/// The module's recognition of a picture, with how sure it is.
struct RecognizeAnswer {
  std::vector<OutputRow> rows;
  std::optional<bool> sure;  ///< unsaid when the module has no calibration or no answer
  double first_confidence = -1, sure_at = -1;
};

/// Asks the module's text suite about a picture. Throws Failure("no text found") for a picture
/// of 20 × 20 pixels or more without any line of text.
/// Over installed fonts and the known faces that are not installed (their rows marked, with where
/// to get them and the installed fonts most like them), unless `installed_only` or the module
/// has no known faces.
RecognizeAnswer RecognizeRaster(Host& host, const ImageRaster& image, size_t limit, bool installed_only = false);

/// The lines of text recognition finds in a picture, top to bottom.
std::vector<FontrixTextLine> TextLines(Host& host, const ImageRaster& image);

/// The tool's JSON object: `head` (members, or ""), then `key` holding the rows.
std::string JsonAnswer(const std::string& head, const std::string& key, const std::vector<OutputRow>& rows);

}  // namespace fontrix::host
