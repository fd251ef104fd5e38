#include <fontconfig/fontconfig.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "host/font_names.h"
#include "host/specimen.h"
#include "host/tool/commands.h"
#include "host/tool/json.h"
#include "host/tool/known_fonts.h"
#include "host/tool/queries.h"
#include "host/tool/substitute.h"

namespace fontrix::host {
namespace {

// A family name as a fontconfig pattern's family: the characters patterns give a meaning escaped.
std::string PatternFamily(const std::string& family) {
  std::string out;
  for (char c : family) {
    if (c == '\\' || c == '-' || c == ':' || c == ',') out += '\\';
    out += c;
  }
  return out;
}

// The facts substitute decides from: the host's fonts, fontconfig's matching, and the module's
// suites, each asked once.
class ToolWorld : public FontWorld {
 public:
  explicit ToolWorld(Host& host) : host_(host), known_(host) {
    for (const HostFont& f : host.Fonts())
      if (f.duplicate_of.empty()) installed_.push_back(&f);
  }

  const std::vector<const HostFont*>& Installed() override { return installed_; }

  std::vector<const HostFont*> ListedAs(const std::string& name) override {
    const FontFilter listed(PatternFamily(name) + ":");
    std::vector<const HostFont*> faces;
    for (const HostFont* f : installed_)
      if (listed(*f)) faces.push_back(f);
    return faces;
  }

  std::string DrawnWith(const std::string& name) override {
    try {
      const ResolvedFont resolved = ResolveFont(installed_, PatternFamily(name) + ":");
      return resolved.font->family;
    } catch (const UnknownFont&) {
      return "";
    }
  }

  const HostFont* Generic(const std::string& generic, const FaceTraits& wanted) override {
    const std::string pattern = PatternFamily(generic) +
                                ":weight=" + std::to_string(FcWeightFromOpenTypeDouble(wanted.weight)) +
                                ":slant=" + (wanted.italic ? "100" : "0");
    try {
      return ResolveFont(installed_, pattern).font;
    } catch (const UnknownFont&) {
      return nullptr;
    }
  }

  std::optional<WellKnownFamily> WellKnown(const std::string& name) override {
    const auto found = families_.find(FoldedName(name));
    if (found != families_.end()) return found->second;
    return families_[FoldedName(name)] = known_.Family(name);
  }

  const std::vector<KnownFace>& Known() override { return known_.Faces(); }

  std::vector<std::string> SimilarToKnown(const std::vector<std::string>& names) override {
    std::vector<std::string> found;
    for (const auto& [name, score] : known_.SimilarTo(names)) found.push_back(name);
    return found;
  }

  const std::vector<TableFace>& Table() override {
    if (!table_) table_ = TableFaces(host_);
    return *table_;
  }

  std::vector<std::string> SimilarToTable(const std::string& name) override {
    HeldSuite<FontrixTableSuite> table(host_, kFontrixTableSuite, kFontrixTableSuiteVersion);
    std::vector<std::string> found;
    FontrixFontList list{
        &found, [](void* c) { static_cast<std::vector<std::string>*>(c)->clear(); },
        [](void* c, const FontrixFontResult* f) { static_cast<std::vector<std::string>*>(c)->push_back(f->name); }};
    const QVErr err = table->GetSimilarToTableFont(name.c_str(), &list);
    if (err == kQVNotInitialisedErr)
      throw Failure("the similarity service is not running (switched off, or its data is missing)");
    Check(err, "the similar-font query");
    return found;
  }

  // Names close to `name` among the installed families and the known faces' families.
  std::string CloseNamesOf(const std::string& name) {
    std::vector<std::string> families;
    for (const HostFont* f : installed_) families.push_back(f->family);
    for (const KnownFace& f : known_.Faces()) families.push_back(f.family);
    std::string list;
    for (const std::string& close : CloseNames(families, name, 5)) list += (list.empty() ? "" : ", ") + close;
    return list;
  }

 private:
  Host& host_;
  KnownFonts known_;
  std::vector<const HostFont*> installed_;
  std::map<std::string, std::optional<WellKnownFamily>> families_;  // by folded name
  std::optional<std::vector<TableFace>> table_;
};

}  // namespace

// Decides for each font-family list, then prints the answers in the tool's one convention.
int SubstituteFamilies(Host& host, const Options& options) {
  ToolWorld world(host);
  const FaceTraits wanted{options.weight, options.italic, false};
  std::vector<Substitution> answers;
  int status = 0;
  for (const std::string& css : options.args) {
    answers.push_back(Substitute(world, css, wanted));
    if (answers.back().action != "none") continue;
    status = 1;
    if (answers.back().kind != "unknown") {
      std::fprintf(stderr, "fontrix: %s\n", answers.back().why.c_str());
      continue;
    }
    const std::string first = ParseFamilyList(css)[0];
    const std::string close = world.CloseNamesOf(first);
    std::fprintf(stderr, "fontrix: %s is not installed, and Fontrix knows no font of that name%s\n", first.c_str(),
                 close.empty() ? "" : ("; close names: " + close).c_str());
  }
  std::string out;
  if (options.json) {
    out = "{\"substitutions\": [";
    for (size_t i = 0; i < answers.size(); ++i) out += (i ? ",\n  " : "\n  ") + JsonSubstitution(answers[i]);
    out += "\n]}\n";
  } else {
    if (isatty(STDOUT_FILENO) == 1) out += "REQUESTED\tACTION\tFAMILY\tFACE\tWHY\n";
    for (const Substitution& s : answers)
      out += s.requested + "\t" + s.action + "\t" + (s.face ? s.face->family : "") + "\t" +
             (s.face ? s.face->unique_name : "") + "\t" + s.why + "\n";
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
  return status;
}

}  // namespace fontrix::host
