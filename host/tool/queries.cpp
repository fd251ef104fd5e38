// What the tool's commands and its web server share: the module's suites asked as another
// plug-in asks them, answers as rows.
#include "host/tool/queries.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <unordered_map>

#include "host/font_names.h"
#include "host/specimen.h"
#include "host/tool/json.h"
#include "host/tool/known_fonts.h"
#include "host/tool/substitute.h"
#include "host/tool/table_names.h"
#include "sdk/qv_font_suites.h"
#include "sdk/qv_host_suites.h"

namespace fontrix::host {
namespace {

// The face the module uses under `name`, if any.
const HostFont* UsedFont(const std::vector<const HostFont*>& used, const std::string& name) {
  for (const HostFont* f : used)
    if (f->unique_name == name) return f;
  return nullptr;
}

FontrixFontList Collector(std::vector<std::pair<std::string, double>>& found) {
  return {&found, [](void* c) { static_cast<std::vector<std::pair<std::string, double>>*>(c)->clear(); },
          [](void* c, const FontrixFontResult* f) {
            static_cast<std::vector<std::pair<std::string, double>>*>(c)->emplace_back(f->name, f->score);
          }};
}

using Answers = std::vector<std::pair<std::string, double>>;

// NAME as a well-known family that is not open, where no installed face answers or fontconfig
// would substitute another family (unless its substitute is one of the family's look-alikes, as
// Nimbus Sans is for Helvetica): answered through its look-alikes. The choice is said in
// `notes`; the answer, when the look-alikes' known faces give one, is put in `answered`.
std::optional<SimilarQuery> WellKnownQuery(KnownFonts& known, const std::vector<const HostFont*>& usable,
                                           const SimilarRequest& request, const std::optional<ResolvedFont>& installed,
                                           std::vector<std::string>& notes, std::optional<Answers>& answered) {
  const std::string& typed = request.name;
  const std::string substitute = installed ? FoldedName(installed->font->family) : "";
  const std::optional<WellKnownMatch> well_known =
      ResolveWellKnown([&](const std::string& name) { return known.Family(name); }, typed, request.style);
  if (!well_known) return std::nullopt;
  const WellKnownFamily& family = well_known->family;
  if (installed && FoldedName(family.family) == substitute) return std::nullopt;  // the family is installed
  for (const WellKnownFamily::LookAlike& a : family.look_alikes)
    if (FoldedName(a.family) == substitute) return std::nullopt;
  SimilarQuery query{family.family,
                     family.family,
                     well_known->style.empty() ? "Regular" : well_known->style,
                     false,
                     "family",
                     "",
                     "",
                     {}};
  // Each look-alike's known faces nearest what was asked, asked together, the nearest the data
  // has a vector of; an installed look-alike is shown at its installed face nearest it.
  std::vector<std::vector<const KnownFace*>> groups;
  for (const WellKnownFamily::LookAlike& a : family.look_alikes)
    groups.push_back(NearestFirst(FacesOfFamily(known.Faces(), a.family), well_known->wanted));
  size_t round = 0;
  answered = AskNearestFirst<std::vector<std::pair<std::string, double>>>(
      groups, [&](const std::vector<std::string>& names) { return known.SimilarTo(names); }, round);
  std::string said;
  bool any_installed = false;
  for (size_t k = 0; k < family.look_alikes.size(); ++k) {
    const WellKnownFamily::LookAlike& a = family.look_alikes[k];
    SimilarQuery::LookAlike look{a.family, a.why, "", "", false};
    std::vector<const HostFont*> here;
    for (const HostFont* f : usable)
      if (FoldedName(f->family) == FoldedName(a.family)) here.push_back(f);
    std::vector<FaceTraits> traits;
    for (const HostFont* f : here) traits.push_back(TraitsOf(*f));
    if (const size_t i = NearestFace(traits, well_known->wanted); i < here.size())
      look = {a.family, a.why, here[i]->unique_name, here[i]->style, true};
    else if (!answered->empty() && round < groups[k].size())
      look = {a.family, a.why, groups[k][round]->name, StyleOf(*groups[k][round]), false};
    any_installed = any_installed || look.installed;
    query.look_alikes.push_back(look);
    if (!look.face.empty())
      said += (said.empty() ? "" : ", ") + a.family + " " + look.style + " (" + a.why +
              (look.installed ? ", installed)" : ")");
  }
  if (answered->empty()) answered.reset();  // the first installed look-alike is asked instead
  if (!answered && !any_installed) {
    if (installed) return std::nullopt;  // fontconfig's substitute answers, as it did
    std::string names;
    for (const WellKnownFamily::LookAlike& a : family.look_alikes) names += (names.empty() ? "" : ", ") + a.family;
    throw Failure(family.family + " is not an open font, and none of its look-alikes (" + names +
                  ") is installed or known to the module");
  }
  notes.push_back(family.family + " is not an open font: answering through its look-alikes " + said);
  return query;
}

// Of the families of the known faces the machine lacks, those close to `typed`, as the end of
// the sentence that says no font has that name.
std::string KnownCloseNames(const std::vector<KnownFace>& faces, const std::string& typed) {
  std::vector<std::string> families;
  for (const KnownFace& f : faces)
    if (!f.installed) families.push_back(f.family);
  std::string list;
  for (const std::string& name : CloseNames(families, typed, 5)) list += (list.empty() ? "" : ", ") + name;
  return list.empty() ? "" : "; close names of open fonts the module knows: " + list;
}

// NAME as `similar` reads it. A face of the shipped table that is not installed answers when no
// installed face does, when fontconfig would substitute another family, or when the table has
// the style asked for and the installed family lacks it: its own vector says more than a
// stand-in's. The choice is added to `notes`.
SimilarQuery ResolveSimilarQuery(Host& host, const SimilarRequest& request, std::vector<std::string>& notes,
                                 std::optional<Answers>& answered) {
  const std::string& typed = request.name;
  std::vector<const HostFont*> usable;
  for (const HostFont& f : host.Fonts())
    if (UnusedReason(f).empty()) usable.push_back(&f);
  std::optional<ResolvedFont> installed;
  std::string unknown;
  try {
    installed = ResolveFont(usable, typed, request.style);
  } catch (const UnknownFont& e) {
    unknown = e.what();
  }
  // A generic family ("sans-serif", which a pattern reads as "sans") names no font the machine
  // lacks: fontconfig's font for it answers.
  const std::string asked_family = typed.find(':') != std::string::npos ? ParseFacePattern(typed, "").family : typed;
  const bool generic = IsGenericFamily(typed) || IsGenericFamily(asked_family);
  if (!generic && (!installed || !installed->note.empty())) {
    // A face the module knows though the machine lacks it, exactly as asked before one nearest
    // it, a face of the shipped table before a known open face.
    std::vector<TableFace> missing = TableFaces(host);
    missing.erase(std::remove_if(missing.begin(), missing.end(), [](const TableFace& f) { return f.installed; }),
                  missing.end());
    const std::string substitute = installed ? FoldedName(installed->font->family) : "";
    const TableMatch table = ResolveTableFace(missing, typed, request.style);
    const bool table_ok = table.face && (!installed || table.exact || substitute != FoldedName(table.face->family));
    KnownFonts known(host);
    std::vector<KnownFace> absent;
    for (const KnownFace& f : known.Faces())
      if (!f.installed) absent.push_back(f);
    const KnownMatch face = ResolveKnownFace(absent, typed, request.style);
    const bool face_ok = face.face && (!installed || face.exact || substitute != FoldedName(face.family));
    if (table_ok && (table.exact || !face_ok || !face.exact)) {
      notes.push_back("'" + typed + "' is not installed; answering for " + table.face->name + " (" +
                      table.face->family + " " + table.face->style + "), a face of the module's similarity table");
      return {table.face->name, table.face->family, table.face->style, false, "", "", "", {}};
    }
    if (face_ok) {
      const KnownFace& f = *face.face;
      notes.push_back(face.family + " " + StyleOf(f) + " is not installed (open font, " + f.source + ", " + f.licence +
                      "): answering for " + f.name + " from the module's data");
      return {f.name, face.family, StyleOf(f), false, "face", f.source, f.licence, {}};
    }
    if (std::optional<SimilarQuery> query = WellKnownQuery(known, usable, request, installed, notes, answered))
      return *query;
    if (!installed) throw Failure(unknown + KnownCloseNames(known.Faces(), typed));
  }
  if (!installed) throw Failure(unknown);
  if (!installed->note.empty()) notes.push_back(installed->note);
  return {installed->font->unique_name, installed->font->family, installed->font->style, true, "", "", "", {}};
}

}  // namespace

// The bit of a class given as its label string or short form ("-" and "_" alike); throws a
// UsageError listing the classes.
namespace {
// In kFontrixService order.
constexpr std::pair<const char*, const char*> kServices[kFontrixServiceCount] = {
    {"classification", kSwitchClassification}, {"similarity", kSwitchSimilarity}, {"recognition", kSwitchRecognition}};
}  // namespace

std::vector<TableFace> TableFaces(Host& host) {
  std::vector<TableFace> faces;
  const auto* table =
      static_cast<const FontrixTableSuite*>(host.AcquireSuite(kFontrixTableSuite, kFontrixTableSuiteVersion));
  if (!table) return faces;
  FontrixTableFontList list{
      &faces, [](void* c, const FontrixTableFont* f) {
        static_cast<std::vector<TableFace>*>(c)->push_back({f->name, f->family, f->style, f->installed != 0});
      }};
  const QVErr err = table->GetTableFonts(&list);
  host.ReleaseSuite(kFontrixTableSuite, kFontrixTableSuiteVersion);
  if (err) faces.clear();
  return faces;
}

const char* ServiceName(int32_t service) { return kServices[service].first; }
const char* ServiceSwitch(int32_t service) { return kServices[service].second; }

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

void Check(QVErr err, const std::string& what) {
  if (err) throw Failure(what + " failed (error " + ErrorText(err) + ")");
}

// The faces the module uses, in its order: its font list, through its progress suite.
std::vector<const HostFont*> ModuleFonts(Host& host) {
  HeldSuite<FontrixProgressSuite> progress(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion);
  std::vector<QVFontHandle> handles;
  FontrixFontHandleList list{&handles, [](void* context, QVFontHandle font) {
                               static_cast<std::vector<QVFontHandle>*>(context)->push_back(font);
                             }};
  uint32_t generation = 0;
  Check(progress->GetFontList(&list, &generation), "listing the module's fonts");
  HeldSuite<QVFontSuite> fonts(host, kQVFontSuite, kQVFontSuiteVersion);
  std::map<std::pair<std::string, int>, const HostFont*> by_face;
  for (const HostFont& f : host.Fonts()) by_face.emplace(std::make_pair(f.file, f.face_index), &f);
  std::vector<const HostFont*> used;
  for (QVFontHandle handle : handles) {
    const char* file = nullptr;
    int32_t index = 0;
    if (fonts->GetFontFile(handle, &file, &index))
      throw Failure("the module listed a font handle the host does not know");
    const auto found = by_face.find({file, index});
    if (found != by_face.end()) used.push_back(found->second);
  }
  return used;
}

OutputRow RowOf(const KnownFace& f) {
  OutputRow row;
  row.name = f.name;
  row.family = f.family;
  row.style = f.style;
  row.weight = int(FcWeightFromOpenTypeDouble(f.weight) + 0.5);
  row.slant = f.italic ? 100 : 0;
  row.installed = f.installed;
  row.source = f.source;
  row.licence = f.licence;
  return row;
}

OutputRow RowOf(const HostFont& f) {
  OutputRow row;
  row.name = f.unique_name;
  row.family = f.family;
  row.style = f.style;
  row.file = f.file;
  row.index = f.face_index;
  row.weight = f.weight;
  row.width = f.width;
  row.slant = f.slant;
  row.outline_print = f.outline_print;
  return row;
}

// By family (in any case), then weight, width and slant, as a type specimen book orders them.
void SortByFamily(std::vector<const HostFont*>& fonts) {
  auto key = [](const HostFont* f) {
    std::string family = f->family;
    for (char& c : family) c = char(std::tolower(static_cast<unsigned char>(c)));
    return std::make_tuple(family, f->weight, f->width, f->slant, f->unique_name);
  };
  std::stable_sort(fonts.begin(), fonts.end(), [&](const HostFont* a, const HostFont* b) { return key(a) < key(b); });
}

// The style classes of every font the module uses, as its feature suite answers them,
// exactly as another plug-in asks: by unique name, bit i for kClassLabels[i].
std::map<std::string, uint32_t> ClassMasks(Host& host) {
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
  return masks;
}

// Rows of the fonts a suite answered, at most `limit`, with what the host knows of each.
std::vector<OutputRow> ResultRows(Host& host, const std::vector<std::pair<std::string, double>>& found, size_t limit) {
  const std::vector<const HostFont*> used = ModuleFonts(host);
  std::vector<OutputRow> rows;
  for (const auto& [result, score] : found) {
    if (rows.size() >= limit) break;
    OutputRow row;
    if (const HostFont* f = UsedFont(used, result))
      row = RowOf(*f);
    else
      row.name = result;
    row.score = score;
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<OutputRow> ClassRows(Host& host, uint32_t all, uint32_t none, uint32_t any, size_t limit) {
  const std::map<std::string, uint32_t> masks = ClassMasks(host);
  std::vector<const HostFont*> fonts = ModuleFonts(host);
  SortByFamily(fonts);
  std::vector<OutputRow> rows;
  for (const HostFont* font : fonts) {
    const auto found = masks.find(font->unique_name);
    const uint32_t mask = found == masks.end() ? 0 : found->second;
    if ((mask & all) != all || (mask & none) || (any && !(mask & any))) continue;
    if (rows.size() >= limit) break;
    rows.push_back(RowOf(*font));
    rows.back().classes = mask;
  }
  return rows;
}

namespace {
// The installed look-alikes of a well-known family head the answer, best first, each marked
// with why it stands in; a look-alike the answer has keeps its score, and one it lacks (a face
// asked about is left out of the answer) has none.
void PutLookAlikesFirst(Host& host, const SimilarQuery& query, std::vector<OutputRow>& rows) {
  std::vector<OutputRow> first;
  for (const SimilarQuery::LookAlike& a : query.look_alikes) {
    if (!a.installed) continue;
    const auto row = std::find_if(rows.begin(), rows.end(), [&](const OutputRow& r) { return r.name == a.face; });
    if (row != rows.end()) {
      first.push_back(std::move(*row));
      rows.erase(row);
    } else {
      // The face used under that name (a copy of it in another file is not).
      for (const HostFont& f : host.Fonts())
        if (f.unique_name == a.face && UnusedReason(f).empty()) {
          first.push_back(RowOf(f));
          break;
        }
    }
    if (!first.empty() && first.back().name == a.face) first.back().look_alike = a.why;
  }
  rows.insert(rows.begin(), first.begin(), first.end());
}
}  // namespace

std::string SimilarAnswer::JsonHead() const {
  std::string head = "\"query\": " + JsonString(query.name) + ", \"query_family\": " + JsonString(query.family) +
                     ", \"query_style\": " + JsonString(query.style) +
                     ", \"query_installed\": " + (query.installed ? "true" : "false") +
                     (query.known.empty() ? "" : ", \"query_known\": " + JsonString(query.known));
  if (query.known == "face")
    head += ", \"query_source\": " + JsonString(query.source) + ", \"query_licence\": " + JsonString(query.licence);
  if (query.known == "family") {
    head += ", \"look_alikes\": [";
    for (size_t i = 0; i < query.look_alikes.size(); ++i) {
      const SimilarQuery::LookAlike& a = query.look_alikes[i];
      head += std::string(i ? ", " : "") + "{\"family\": " + JsonString(a.family) + ", \"why\": " + JsonString(a.why) +
              ", \"face\": " + JsonString(a.face) + ", \"style\": " + JsonString(a.style) +
              ", \"installed\": " + (a.installed ? "true" : "false") + "}";
    }
    head += "]";
  }
  return head;
}

SimilarAnswer FindSimilar(Host& host, const SimilarRequest& request) {
  SimilarAnswer answer;
  std::optional<Answers> answered;
  const SimilarQuery query = answer.query = ResolveSimilarQuery(host, request, answer.notes, answered);
  std::vector<std::pair<std::string, double>> found;
  FontrixFontList list = Collector(found);
  QVErr err = kQVNoErr;
  // A well-known family without an answer from its look-alikes' known faces is asked through
  // its first installed look-alike.
  const auto installed_look_alike = std::find_if(query.look_alikes.begin(), query.look_alikes.end(),
                                                 [](const SimilarQuery::LookAlike& a) { return a.installed; });
  if (answered) {
    found = std::move(*answered);
  } else if (query.known == "face") {
    found = KnownFonts(host).SimilarTo({query.name});
  } else if (query.installed || installed_look_alike != query.look_alikes.end()) {
    HeldSuite<FontrixSimilarSuite> similar(host, kFontrixSimilarSuite, kFontrixSimilarSuiteVersion);
    err = similar->GetSimilarFontNames((query.installed ? query.name : installed_look_alike->face).c_str(), &list);
  } else {
    HeldSuite<FontrixTableSuite> table(host, kFontrixTableSuite, kFontrixTableSuiteVersion);
    err = table->GetSimilarToTableFont(query.name.c_str(), &list);
  }
  if (err == kQVNotInitialisedErr)
    throw Failure("the similarity service is not running (switched off, or its data is missing)");
  Check(err, "the similar-font query");
  // A font the service could not image answers with itself alone: nothing is like it.
  if (found.size() == 1 && found[0].first == query.name) found.clear();
  answer.found = found.size();
  // The filters run over the module's whole answer, so the limit counts the fonts they keep.
  std::vector<OutputRow> rows = ResultRows(host, found, SIZE_MAX);
  FoldSameOutlines(rows);
  PutLookAlikesFirst(host, query, rows);
  const uint32_t wanted = request.classes;
  const std::map<std::string, uint32_t> masks = wanted ? ClassMasks(host) : std::map<std::string, uint32_t>();
  rows.erase(std::remove_if(rows.begin(), rows.end(),
                            [&](OutputRow& r) {
                              if (request.other_families && LowerCase(r.family) == LowerCase(query.family)) return true;
                              if (!wanted) return false;
                              const auto mask = masks.find(r.name);
                              if (mask == masks.end() || (mask->second & wanted) != wanted) return true;
                              r.classes = mask->second;
                              return false;
                            }),
             rows.end());
  if (rows.size() > request.limit) rows.resize(request.limit);
  answer.rows = std::move(rows);
  return answer;
}

std::string SimilarAnswer::EmptyReason(bool other_families, bool classes) const {
  if (!rows.empty()) return "";
  if (!found)
    return "no font is known to be like " + query.name +
           (query.known.empty() ? " (the similarity service could not image it)"
                                : " (the module's data holds no similarity vector of it)");
  return "none of the " + std::to_string(found) + " fonts most like " + query.name + " is " +
         (classes && other_families ? "of another family and of those classes"
          : classes                 ? "of those classes"
                                    : "of another family");
}

std::vector<FontrixTextLine> TextLines(Host& host, const ImageRaster& image) {
  HeldSuite<FontrixTextSuite> text(host, kFontrixTextSuite, kFontrixTextSuiteVersion);
  std::vector<FontrixTextLine> lines;
  FontrixTextLineList list{&lines, [](void* context, const FontrixTextLine* line) {
                             static_cast<std::vector<FontrixTextLine>*>(context)->push_back(*line);
                           }};
  Check(text->FindTextLines(image.handle(), &list), "the text query");
  return lines;
}

RecognizeAnswer RecognizeRaster(Host& host, const ImageRaster& image, size_t limit, bool installed_only) {
  // The name a font points to lasts only as long as the call that gives it: kept as a string.
  struct Found {
    std::string name;
    FontrixKnownAnswer answer;
  };
  std::vector<Found> answers;
  RecognizeAnswer answer;
  QVErr err = kQVNoErr;
  // The known fonts suite answers over the known faces too; the text suite (a module without
  // the former, or --installed-only) gives the installed fonts alone, with likeness and confidence.
  const auto* known = installed_only ? nullptr
                                     : static_cast<const FontrixKnownFontsSuite*>(
                                           host.AcquireSuite(kFontrixKnownFontsSuite, kFontrixKnownFontsSuiteVersion));
  if (known) {
    FontrixKnownAnswerList list{&answers, [](void* c, const FontrixKnownAnswer* a) {
                                  static_cast<std::vector<Found>*>(c)->push_back({a->name, *a});
                                }};
    err = known->RecognizeKnownFonts(image.handle(), &list, &answer.sure_at);
  } else {
    HeldSuite<FontrixTextSuite> text(host, kFontrixTextSuite, kFontrixTextSuiteVersion);
    FontrixRecognizedFontList list{
        &answers, [](void* c, const FontrixRecognizedFont* f) {
          static_cast<std::vector<Found>*>(c)->push_back({f->name, {f->name, f->score, f->likeness, f->confidence, 1}});
        }};
    err = text->RecognizeFonts(image.handle(), &list, &answer.sure_at);
  }
  if (err == kQVNotInitialisedErr) {
    if (known) host.ReleaseSuite(kFontrixKnownFontsSuite, kFontrixKnownFontsSuiteVersion);
    throw Failure("the recognition service is not running (switched off, or its data is missing)");
  }
  std::vector<std::pair<std::string, double>> found;
  for (const Found& a : answers) found.emplace_back(a.name, a.answer.score);
  answer.rows = ResultRows(host, found, limit);
  // What the data knows of the answers that are not installed, and the installed fonts a designer
  // can use instead, through their similarity vectors. Without the similarity service the rows
  // name them only.
  KnownFonts knownFonts(host);
  std::unordered_map<std::string_view, const KnownFace*> knownByName;
  if (known && std::any_of(answers.begin(), answers.end(), [](const Found& a) { return !a.answer.installed; })) {
    try {
      for (const KnownFace& f : knownFonts.Faces()) knownByName.emplace(f.name, &f);
    } catch (const Failure&) {
    }
  }
  for (size_t i = 0; i < answer.rows.size(); ++i) {
    const FontrixKnownAnswer& a = answers[i].answer;
    OutputRow& row = answer.rows[i];
    const auto face = a.installed ? knownByName.end() : knownByName.find(row.name);
    if (face != knownByName.end()) {
      row = RowOf(*face->second);
      row.score = a.score;
      try {
        for (const auto& [name, score] : knownFonts.SimilarTo({row.name})) {
          if (row.closest_installed.size() == kClosestInstalled) break;
          row.closest_installed.push_back(name);
        }
      } catch (const Failure&) {
      }
    }
    if (known) row.installed = a.installed != 0;
    if (a.confidence >= 0) row.confidence = a.confidence;
    if (a.likeness >= 0) row.likeness = a.likeness;
  }
  if (known) host.ReleaseSuite(kFontrixKnownFontsSuite, kFontrixKnownFontsSuiteVersion);
  Check(err, "the recognition query");
  // Sure when the first answer's confidence reaches the module's mark; unsaid without one.
  if (!answers.empty()) answer.first_confidence = answers[0].answer.confidence;
  if (answer.sure_at >= 0 && answer.first_confidence >= 0) answer.sure = answer.first_confidence >= answer.sure_at;
  if (found.empty() && image.width() >= 20 && image.height() >= 20 && TextLines(host, image).empty())
    throw Failure("no text found");
  return answer;
}

std::string JsonAnswer(const std::string& head, const std::string& key, const std::vector<OutputRow>& rows) {
  std::string out = "{" + head + (head.empty() ? "" : ", ") + JsonString(key) + ": [";
  for (size_t i = 0; i < rows.size(); ++i) out += (i ? ",\n  " : "\n  ") + JsonRow(rows[i]);
  out += rows.empty() ? "]}\n" : "\n]}\n";
  return out;
}

}  // namespace fontrix::host
