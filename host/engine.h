#pragma once
// The host's font engine: the procedures of sdk/qv_font_engine.h over FreeType and HarfBuzz
// (internal header of the host).
//
// Conventions every procedure follows:
// - A 2x2 matrix {a, b, c, d} maps a point (x, y) in ems to (a x + c y, b x + d y), as a PDF or
//   PostScript matrix [a b c d 0 0] does: {s, 0, 0, s} scales by s, {1, 0, tan t, 1} slants.
// - Outline-scale values (metrics, boxes, advances) come from unscaled outlines, times 1000 /
//   units per em. Faces without scalable outlines answer kQVBadParameterErr to them.
// - A font FreeType cannot open answers kQVBadParameterErr; a glyph index or character the
//   font lacks, kQVNotFoundErr.
// - Each call borrows its own face from the host's FaceCache, so calls on any threads may run
//   at once. A raster port belongs to one thread at a time.
#include <ft2build.h>
#include FT_FREETYPE_H

#include <new>

#include "host/face_cache.h"
#include "host/host_impl.h"
#include "sdk/qv_font_engine.h"

namespace fontrix::host {

/// A result code thrown inside an engine procedure; EngineCall returns it.
struct EngineError {
  QVErr code;
};

/// Runs an engine procedure's body; no exception leaves it.
template <typename Body>
QVErr EngineCall(Body&& body) noexcept {
  try {
    return body();
  } catch (const EngineError& e) {
    return e.code;
  } catch (const std::bad_alloc&) {
    return kQVOutOfMemoryErr;
  } catch (...) {
    return kQVUnexpectedErr;
  }
}

/// Runs body(FaceCache::Lease&) on a face of `font` borrowed from the live host's cache.
template <typename Body>
QVErr WithFace(QVFontHandle font, Body&& body) noexcept {
  return Guarded([&](Host::Impl& h) {
    const HostFont* record = h.FontOf(font);
    if (!record) return kQVBadParameterErr;
    FaceCache::Lease lease = h.faces->Borrow(record->file, record->face_index);
    if (!lease.face()) return kQVBadParameterErr;
    return EngineCall([&] { return body(lease); });
  });
}

/// 1000 / units per em; throws kQVBadParameterErr for a face without scalable outlines.
double OutlineScale(FT_Face face);

/// The address of the engine procedure `name`; null when the engine has none.
void* EngineProcedure(const char* name);

// Text and raster ports (text.cpp).
QVErr EngineMeasureText(QVFontHandle font, const char* utf8, double size, QVIntRect* ink_box);
QVErr EngineNewRasterPort(const QVIntRect* bounds, QVRasterPort* port);
QVErr EngineDrawText(QVRasterPort port, QVFontHandle font, const char* utf8, double size);
QVErr EngineGetRasterPortPixels(QVRasterPort port, QVIntRect* bounds, QVGreyPixels* pixels);
QVErr EngineDisposeRasterPort(QVRasterPort port);

// Images (image.cpp).
QVErr EngineGetRasterPixels(QVRasterHandle raster, QVGreyPixels* pixels);

}  // namespace fontrix::host
