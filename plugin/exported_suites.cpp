#include "plugin/exported_suites.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "classification/class_answers.h"
#include "classification/font_feature_cache.h"
#include "classification/labels.h"
#include "plugin/fontrix.h"
#include "plugin/tasks.h"
#include "recognition/font_recognition_cache.h"
#include "shell/feature_switches.h"
#include "similarity/font_similar_cache.h"

namespace fontrix {

namespace {

void Append(FontrixFontList* out, const std::string& name, double score) {
  const FontrixFontResult font{name.c_str(), score};
  out->append(out->context, &font);
}

// Nothing may escape to the calling plug-in: a failure inside a query is a failed call.
template <typename F>
QVErr Answer(F&& query) {
  try {
    return query();
  } catch (const std::bad_alloc&) {
    return kQVOutOfMemoryErr;
  } catch (...) {
    return kQVCantHappenErr;
  }
}

}  // namespace

extern "C" QVErr FontrixGetFontsWithLabel(const int32_t* labelIndex, FontrixFontList* out) {
  auto cache = FontFeatureCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!labelIndex || !out || !out->append) return kQVBadParameterErr;
  return Answer([&] {
    for (const auto& name : ClassAnswers::FontsWithLabel(cache, *labelIndex)) Append(out, name, 1.0);
    return kQVNoErr;
  });
}

extern "C" QVErr FontrixGetSimilarFontNames(const char* uniqueName, FontrixFontList* out) {
  auto cache = FontSimilarCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!uniqueName || !out || !out->append) return kQVBadParameterErr;
  return Answer([&] {
    const auto fonts = cache->GetSimilarFonts(uniqueName);
    if (out->clear) out->clear(out->context);
    for (const auto& [name, score] : fonts) Append(out, name, score);
    return kQVNoErr;
  });
}

extern "C" QVErr FontrixGetRecognizedFonts(QVRasterHandle image, FontrixFontList* out) {
  auto cache = FontRecognitionCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!image || !out || !out->append) return kQVBadParameterErr;
  return Answer([&] {
    for (const auto& r : cache->GetRecognizedFontList(image)) Append(out, r.name, r.score);
    return kQVNoErr;
  });
}

namespace {

// The progress of a service's cache, held alive by `keep` while it is read; null when the cache
// does not exist (yet, or any more).
CacheProgress* ServiceCounts(int32_t service, bool& enabled, std::shared_ptr<void>& keep) {
  CacheProgress* counts = nullptr;
  switch (service) {
    case kFontrixServiceClassification:
      enabled = ClassificationEnabled();
      if (auto c = FontFeatureCache::Instance()) counts = &c->Progress(), keep = c;
      break;
    case kFontrixServiceSimilarity:
      enabled = SimilarityEnabled();
      if (auto c = FontSimilarCache::Instance()) counts = &c->Progress(), keep = c;
      break;
    default:
      enabled = RecognitionEnabled();
      if (auto c = FontRecognitionCache::Instance()) counts = &c->Progress(), keep = c;
      break;
  }
  return counts;
}

extern "C" QVErr GetServiceProgress(int32_t service, FontrixServiceProgress* progress) {
  if (!progress || service < 0 || service >= kFontrixServiceCount) return kQVBadParameterErr;
  bool enabled = false;
  std::shared_ptr<void> keep;
  const CacheProgress* counts = ServiceCounts(service, enabled, keep);
  progress->fontsDone = counts ? counts->done.load() : 0;
  progress->fontsTotal = counts ? counts->total.load() : 0;
  progress->enabled = enabled ? 1 : 0;
  progress->idle = ServiceActivity::Idle(service) ? 1 : 0;
  progress->fontsMatched = counts ? counts->matched.load() : 0;
  progress->fontsComputed = counts ? counts->computed.load() : 0;
  progress->fontsUnusable = counts ? counts->unusable.load() : 0;
  return kQVNoErr;
}

extern "C" QVErr GetServiceReport(int32_t service, int32_t* severity, char* text, size_t capacity) {
  if (!severity || service < 0 || service >= kFontrixServiceCount || (!text && capacity)) return kQVBadParameterErr;
  bool enabled = false;
  std::shared_ptr<void> keep;
  const CacheProgress* counts = ServiceCounts(service, enabled, keep);
  const auto [level, report] =
      counts ? counts->LastReport() : std::pair<CacheProgress::Severity, std::string>{CacheProgress::kNothing, ""};
  *severity = level;
  if (capacity) {
    const size_t n = std::min(report.size(), capacity - 1);
    std::memcpy(text, report.data(), n);
    text[n] = '\0';
  }
  return kQVNoErr;
}

extern "C" QVErr GetFontList(FontrixFontHandleList* out, uint32_t* generation) {
  Fontrix* plugin = Fontrix::Global();
  if (!plugin) return kQVNotInitialisedErr;
  if (generation) *generation = plugin->FontListGeneration();
  if (out && out->append)
    for (QVFontHandle font : plugin->FontList()) out->append(out->context, font);
  return kQVNoErr;
}

extern "C" QVErr GetUnusableFonts(int32_t service, FontrixUnusableFontList* out) {
  if (!out || !out->append || service < 0 || service >= kFontrixServiceCount) return kQVBadParameterErr;
  return Answer([&] {
    std::vector<std::string> names;
    const char* reason = "";
    // Classification keeps no mark of a font it could not measure (it has no class), so it
    // names none.
    if (service == kFontrixServiceSimilarity && SimilarityEnabled()) {
      if (auto c = FontSimilarCache::Instance()) names = c->UnusableFonts();
      reason = "similarity could not draw its specimens";
    } else if (service == kFontrixServiceRecognition && RecognitionEnabled()) {
      if (auto c = FontRecognitionCache::Instance()) names = c->UnusableFonts();
      reason = "recognition could not draw and read a line in it";
    }
    for (const std::string& name : names) out->append(out->context, name.c_str(), reason);
    return kQVNoErr;
  });
}

const FontrixProgressSuite kProgressSuite = {GetServiceProgress, GetFontList, GetServiceReport, GetUnusableFonts};

extern "C" QVErr GetTableFonts(FontrixTableFontList* out) {
  auto cache = FontSimilarCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!out || !out->append) return kQVBadParameterErr;
  return Answer([&] {
    for (const ShippedFace& face : cache->ShippedFaces()) {
      const FontrixTableFont font{face.name.c_str(), face.family.c_str(), face.style.c_str(),
                                  QVBool(face.installed ? 1 : 0)};
      out->append(out->context, &font);
    }
    return kQVNoErr;
  });
}

extern "C" QVErr GetSimilarToTableFont(const char* uniqueName, FontrixFontList* out) {
  auto cache = FontSimilarCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!uniqueName || !out || !out->append) return kQVBadParameterErr;
  return Answer([&] {
    const auto fonts = cache->GetSimilarToShippedFace(uniqueName);
    if (!fonts) return kQVNotFoundErr;
    if (out->clear) out->clear(out->context);
    for (const auto& [name, score] : *fonts) Append(out, name, score);
    return kQVNoErr;
  });
}

const FontrixTableSuite kTableSuite = {GetTableFonts, GetSimilarToTableFont};

extern "C" QVErr FindTextLines(QVRasterHandle image, FontrixTextLineList* out) {
  auto cache = FontRecognitionCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!image || !out || !out->append) return kQVBadParameterErr;
  return Answer([&] {
    for (const TextLine& line : cache->FindText(image)) {
      const FontrixTextLine box{line.top, line.bottom, line.left, line.right};
      out->append(out->context, &box);
    }
    return kQVNoErr;
  });
}

extern "C" QVErr RecognizeFonts(QVRasterHandle image, FontrixRecognizedFontList* out, double* sureAt) {
  auto cache = FontRecognitionCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!image || !out || !out->append || !sureAt) return kQVBadParameterErr;
  return Answer([&] {
    const auto results = cache->GetRecognizedFontList(image);
    *sureAt = results.empty() ? -1.0 : results[0].sureAt;
    for (const auto& r : results) {
      const FontrixRecognizedFont font{r.name.c_str(), r.score, r.likeness, r.confidence};
      out->append(out->context, &font);
    }
    return kQVNoErr;
  });
}

const FontrixTextSuite kTextSuite = {FindTextLines, RecognizeFonts};

extern "C" QVErr GetKnownFaces(FontrixKnownFaceList* out) {
  auto cache = FontSimilarCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!out || !out->append) return kQVBadParameterErr;
  return Answer([&] {
    cache->VisitKnownFaces([&](const KnownFace& face, bool installed) {
      const FontrixKnownFace known{face.name.c_str(),   face.family.c_str(), face.style.c_str(),  int32_t(face.weight),
                                   QVBool(face.italic), QVBool(installed),   face.source.c_str(), face.licence.c_str()};
      out->append(out->context, &known);
    });
    return kQVNoErr;
  });
}

extern "C" QVErr GetSimilarToKnownFaces(const char* const* names, int32_t count, FontrixFontList* out) {
  auto cache = FontSimilarCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!names || count < 1 || !out || !out->append) return kQVBadParameterErr;
  for (int32_t i = 0; i < count; ++i)
    if (!names[i]) return kQVBadParameterErr;
  return Answer([&] {
    const auto fonts = cache->GetSimilarToKnownFaces(std::vector<std::string>(names, names + count));
    if (!fonts) return kQVNotFoundErr;
    if (out->clear) out->clear(out->context);
    for (const auto& [name, score] : *fonts) Append(out, name, score);
    return kQVNoErr;
  });
}

extern "C" QVErr GetKnownFamily(const char* name, void* context,
                                void (*found)(void* context, const FontrixKnownFamily* family)) {
  auto cache = FontSimilarCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!name || !found) return kQVBadParameterErr;
  return Answer([&] {
    const std::optional<KnownFamily> family = cache->FindKnownFamily(name);
    if (!family) return kQVNotFoundErr;
    // The label string of its class, as the feature suite's labels are written: "fs_slab_serif"
    // (the table's class names are in the classifier's class order).
    const auto at = std::find(std::begin(kKnownFamilyClasses), std::end(kKnownFamilyClasses), family->styleClass);
    const std::string label = LabelName(int(at - std::begin(kKnownFamilyClasses)));
    std::vector<const char*> open, why;
    for (const KnownFamily::LookAlike& look : family->lookAlikes) {
      open.push_back(look.family.c_str());
      why.push_back(WhyName(look.why));
    }
    const FontrixKnownFamily known{family->family.c_str(),
                                   label.c_str(),
                                   family->weights.data(),
                                   int32_t(family->weights.size()),
                                   family->widths.data(),
                                   int32_t(family->widths.size()),
                                   QVBool(family->italic),
                                   open.data(),
                                   why.data(),
                                   int32_t(open.size())};
    found(context, &known);
    return kQVNoErr;
  });
}

extern "C" QVErr RecognizeKnownFonts(QVRasterHandle image, FontrixKnownAnswerList* out, double* sureAt) {
  auto cache = FontRecognitionCache::Instance();
  if (!cache) return kQVNotInitialisedErr;
  if (!image || !out || !out->append || !sureAt) return kQVBadParameterErr;
  return Answer([&] {
    const auto results = cache->GetRecognizedFontList(image, true);
    *sureAt = results.empty() ? -1.0 : results[0].sureAt;
    for (const auto& r : results) {
      const FontrixKnownAnswer answer{r.name.c_str(), r.score, r.likeness, r.confidence, QVBool(r.installed)};
      out->append(out->context, &answer);
    }
    return kQVNoErr;
  });
}

const FontrixKnownFontsSuite kKnownFontsSuite = {GetKnownFaces, GetSimilarToKnownFaces, GetKnownFamily,
                                                 RecognizeKnownFonts};

}  // namespace

const FontrixProgressSuite& ProgressSuite() { return kProgressSuite; }
const FontrixTableSuite& TableSuite() { return kTableSuite; }
const FontrixTextSuite& TextSuite() { return kTextSuite; }
const FontrixKnownFontsSuite& KnownFontsSuite() { return kKnownFontsSuite; }

}  // namespace fontrix
