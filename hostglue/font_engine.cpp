#include "hostglue/font_engine.h"

#include <atomic>
#include <utility>

#include "sdk/qv_font_engine.h"
#include "shell/host_suites.h"

namespace fontrix::hostglue {

namespace {

FontEngineProcedures table;                                 // what the last binding found
std::atomic<const FontEngineProcedures*> current{nullptr};  // &table while bound

// Each procedure's name and its slot in the table, in binding order.
template <typename Proc>
std::pair<const char*, void**> Slot(const char* name, Proc& slot) {
  return {name, reinterpret_cast<void**>(&slot)};
}

std::vector<std::pair<const char*, void**>> Slots(FontEngineProcedures& t) {
  return {Slot(kQVProcIsFontUsable, t.isFontUsable),
          Slot(kQVProcGetFontMetrics, t.getFontMetrics),
          Slot(kQVProcGetUnderline, t.getUnderline),
          Slot(kQVProcGetFontStyle, t.getFontStyle),
          Slot(kQVProcGetGlyphByCode, t.getGlyphByCode),
          Slot(kQVProcGetGlyphByName, t.getGlyphByName),
          Slot(kQVProcGetGlyphBox, t.getGlyphBox),
          Slot(kQVProcGetAdvanceWidth, t.getAdvanceWidth),
          Slot(kQVProcGetGlyphOutline, t.getGlyphOutline),
          Slot(kQVProcRenderGlyphBitmap, t.renderGlyphBitmap),
          Slot(kQVProcReleaseGlyphBitmap, t.releaseGlyphBitmap),
          Slot(kQVProcMeasureText, t.measureText),
          Slot(kQVProcNewRasterPort, t.newRasterPort),
          Slot(kQVProcDrawText, t.drawText),
          Slot(kQVProcGetRasterPortPixels, t.getRasterPortPixels),
          Slot(kQVProcDisposeRasterPort, t.disposeRasterPort),
          Slot(kQVProcGetRasterPixels, t.getRasterPixels)};
}

}  // namespace

const FontEngineProcedures* BoundFontEngine() { return current.load(std::memory_order_acquire); }

BindResult BindFontEngine() {
  const QVFontGlueSuite* glue = qv::Suites().fontGlue;
  void* engine = nullptr;
  if (!glue || glue->GetEngineInterface(&engine) != kQVNoErr || !engine) return BindResult::kNoInterface;
  FontEngineProcedures found{};
  for (const auto& [name, slot] : Slots(found))
    if (glue->GetEngineProcedure(engine, name, slot) != kQVNoErr || !*slot) return BindResult::kMissingProcedure;
  current.store(nullptr, std::memory_order_release);
  table = found;
  current.store(&table, std::memory_order_release);
  return BindResult::kBound;
}

void ReleaseFontEngine() { current.store(nullptr, std::memory_order_release); }

bool FontEngineBound() { return BoundFontEngine() != nullptr; }

}  // namespace fontrix::hostglue
