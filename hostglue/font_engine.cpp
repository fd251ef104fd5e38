#include "hostglue/font_engine.h"

#include <atomic>
#include <map>
#include <mutex>

#include "shell/host_suites.h"
#include "sdk/qv_font_engine.h"

namespace fontrix::hostglue {

namespace {

std::mutex mutex;
std::map<std::string, void*> procedures;
std::atomic<bool> bound{false};

}  // namespace

const std::vector<std::string>& FontEngineProcedureNames() {
  static const std::vector<std::string> names = {
      kQVProcIsFontUsable,    kQVProcGetFontMetrics,    kQVProcGetUnderline,        kQVProcGetFontStyle,
      kQVProcGetGlyphByCode,  kQVProcGetGlyphByName,    kQVProcGetGlyphBox,         kQVProcGetAdvanceWidth,
      kQVProcGetGlyphOutline, kQVProcRenderGlyphBitmap, kQVProcReleaseGlyphBitmap,  kQVProcMeasureText,
      kQVProcNewRasterPort,   kQVProcDrawText,          kQVProcGetRasterPortPixels, kQVProcDisposeRasterPort,
      kQVProcGetRasterPixels,
  };
  return names;
}

void* FontEngineProcedure(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex);
  auto it = procedures.find(name);
  return it == procedures.end() ? nullptr : it->second;
}

BindResult BindFontEngine() {
  const QVFontGlueSuite* glue = qv::Suites().fontGlue;
  void* engine = nullptr;
  if (!glue || glue->GetEngineInterface(&engine) != kQVNoErr || !engine) return BindResult::kNoInterface;
  std::map<std::string, void*> found;
  for (const auto& name : FontEngineProcedureNames()) {
    void* procedure = nullptr;
    if (glue->GetEngineProcedure(engine, name.c_str(), &procedure) != kQVNoErr || !procedure)
      return BindResult::kMissingProcedure;
    found[name] = procedure;
  }
  std::lock_guard<std::mutex> lock(mutex);
  procedures = std::move(found);
  bound.store(true);
  return BindResult::kBound;
}

void ReleaseFontEngine() {
  std::lock_guard<std::mutex> lock(mutex);
  procedures.clear();
  bound.store(false);
}

bool FontEngineBound() { return bound.load(); }

}  // namespace fontrix::hostglue
