#pragma once
// The host's font engine, bound procedure by procedure at start-up.
#include <string>
#include <vector>

#include "sdk/qv_font_engine.h"

namespace fontrix::hostglue {

/// Result of binding: the interface was found and every procedure registered, or not.
enum class BindResult { kBound, kNoInterface, kMissingProcedure };

/// Gets the host's font-engine interface and registers the address of every procedure the
/// module uses, by name. Main thread, at start-up.
BindResult BindFontEngine();
/// Forgets the bound procedures (at application shut-down).
void ReleaseFontEngine();
/// Whether BindFontEngine succeeded and ReleaseFontEngine has not run since.
bool FontEngineBound();

/// The engine's procedures, typed, as one binding found them.
struct FontEngineProcedures {
  QVIsFontUsableProc isFontUsable;
  QVGetFontMetricsProc getFontMetrics;
  QVGetUnderlineProc getUnderline;
  QVGetFontStyleProc getFontStyle;
  QVGetGlyphByCodeProc getGlyphByCode;
  QVGetGlyphByNameProc getGlyphByName;
  QVGetGlyphBoxProc getGlyphBox;
  QVGetAdvanceWidthProc getAdvanceWidth;
  QVGetGlyphOutlineProc getGlyphOutline;
  QVRenderGlyphBitmapProc renderGlyphBitmap;
  QVReleaseGlyphBitmapProc releaseGlyphBitmap;
  QVMeasureTextProc measureText;
  QVNewRasterPortProc newRasterPort;
  QVDrawTextProc drawText;
  QVGetRasterPortPixelsProc getRasterPortPixels;
  QVDisposeRasterPortProc disposeRasterPort;
  QVGetRasterPixelsProc getRasterPixels;
};

/// The bound procedures, or null while unbound. Workers read them without a lock: binding
/// happens at start-up and release at shut-down, when no worker runs.
const FontEngineProcedures* BoundFontEngine();

}  // namespace fontrix::hostglue
