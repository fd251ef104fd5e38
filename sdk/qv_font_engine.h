/* The host's font engine and graphics procedures, which the plug-in binds one by one by name
 * through the font glue suite (GetEngineInterface, then GetEngineProcedure for each name below).
 * C ABI only; every procedure returns a QVErr (kQVNotFoundErr for a glyph the font lacks,
 * kQVBadParameterErr for an argument it cannot use). Procedures may be called from any thread.
 *
 * Units. Metrics, glyph boxes and advance widths are in the engine's outline scale: 1000 units
 * to the em, y up. Outlines and glyph bitmaps are produced under a 2x2 matrix applied to the
 * glyph in ems (matrix {2048, 0, 0, 2048} gives coordinates in 1/2048 em; {100, 0, 0, 100}
 * renders at 100 pixels to the em), y up for outlines. Text is laid out and drawn at a size in
 * pixels to the em; text boxes and raster ports are in integer pixels, y down, with the origin
 * of the text's baseline at (0, 0), so ink above the baseline has negative y. */
#ifndef QV_FONT_ENGINE_H
#define QV_FONT_ENGINE_H

#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QVFontMetrics {
  double ascent;      /* above the baseline, positive */
  double descent;     /* below the baseline, negative */
  double stemV;       /* dominant vertical stem width */
  double xHeight;     /* height of the lower-case x */
  double italicAngle; /* degrees, counter-clockwise from vertical; 0 for upright fonts */
} QVFontMetrics;

/* Descriptor flags of QVFontStyle.flags (as in PDF font descriptors). */
#define kQVFontFlagFixedPitch 1
#define kQVFontFlagSerif 2
#define kQVFontFlagSymbolic 4
#define kQVFontFlagScript 8
#define kQVFontFlagNonsymbolic 32
#define kQVFontFlagItalic 64

/* Style codes of QVFontStyle.style. */
#define kQVFontStyleRegular 0
#define kQVFontStyleItalic 1
#define kQVFontStyleBold 2
#define kQVFontStyleBoldItalic 3

typedef struct QVFontStyle {
  uint32_t flags; /* kQVFontFlag bits */
  int32_t style;  /* kQVFontStyle code */
} QVFontStyle;

typedef struct QVGlyphBox {
  double left, bottom, right, top; /* outline scale, y up */
} QVGlyphBox;

/* Receives an outline path: each contour starts with moveTo and ends with closePath; quadratic
 * curves arrive raised to cubics. */
typedef struct QVPathSink {
  void* context;
  void (*moveTo)(void* context, double x, double y);
  void (*lineTo)(void* context, double x, double y);
  void (*cubicTo)(void* context, double x1, double y1, double x2, double y2, double x3, double y3);
  void (*closePath)(void* context);
} QVPathSink;

/* A 1-bit glyph bitmap: `height` rows of `stride` bytes, the leftmost pixel of each byte in its
 * most significant bit; a set bit is ink. `bits` belongs to the host until ReleaseGlyphBitmap. */
typedef struct QVGlyphBitmap {
  int32_t width, height, stride;
  int32_t left, top; /* position of the top-left pixel relative to the glyph origin, y up */
  uint8_t* bits;
} QVGlyphBitmap;

typedef struct QVIntRect {
  int32_t left, top, right, bottom; /* pixels, y down; right and bottom exclusive */
} QVIntRect;

typedef struct QVRasterPortOpaque* QVRasterPort; /* an 8-bit grey drawing surface */

/* Read access to an 8-bit grey raster (a raster port's or an image's): `height` rows of
 * `rowBytes` bytes, `width` pixels used per row, 0 black ink, 255 white paper. Valid until the
 * raster changes or is disposed. */
typedef struct QVGreyPixels {
  int32_t width, height, rowBytes;
  const uint8_t* pixels;
} QVGreyPixels;

/* Procedure names and their signatures. */
#define kQVProcIsFontUsable "IsFontUsable"
typedef QVErr (*QVIsFontUsableProc)(QVFontHandle font, QVBool* usable); /* has a usable outline program */
#define kQVProcGetFontMetrics "GetFontMetrics"
typedef QVErr (*QVGetFontMetricsProc)(QVFontHandle font, QVFontMetrics* metrics);
#define kQVProcGetUnderline "GetUnderline"
typedef QVErr (*QVGetUnderlineProc)(QVFontHandle font, double* position, double* thickness);
#define kQVProcGetFontStyle "GetFontStyle"
typedef QVErr (*QVGetFontStyleProc)(QVFontHandle font, QVFontStyle* style);
#define kQVProcGetGlyphByCode "GetGlyphByCode"
typedef QVErr (*QVGetGlyphByCodeProc)(QVFontHandle font, uint32_t unicode, uint32_t* glyph);
#define kQVProcGetGlyphByName "GetGlyphByName"
typedef QVErr (*QVGetGlyphByNameProc)(QVFontHandle font, const char* name, uint32_t* glyph);
#define kQVProcGetGlyphBox "GetGlyphBox"
typedef QVErr (*QVGetGlyphBoxProc)(QVFontHandle font, uint32_t glyph, QVGlyphBox* box);
#define kQVProcGetAdvanceWidth "GetAdvanceWidth"
typedef QVErr (*QVGetAdvanceWidthProc)(QVFontHandle font, uint32_t glyph, double* advance);
#define kQVProcGetGlyphOutline "GetGlyphOutline"
typedef QVErr (*QVGetGlyphOutlineProc)(QVFontHandle font, uint32_t glyph, const double matrix[4], QVPathSink* sink);
#define kQVProcRenderGlyphBitmap "RenderGlyphBitmap"
typedef QVErr (*QVRenderGlyphBitmapProc)(QVFontHandle font, uint32_t glyph, const double matrix[4],
                                         QVGlyphBitmap* bitmap);
#define kQVProcReleaseGlyphBitmap "ReleaseGlyphBitmap"
typedef QVErr (*QVReleaseGlyphBitmapProc)(QVGlyphBitmap* bitmap);
#define kQVProcMeasureText "MeasureText"
typedef QVErr (*QVMeasureTextProc)(QVFontHandle font, const char* utf8, double size, QVIntRect* inkBox);
#define kQVProcNewRasterPort "NewRasterPort"
typedef QVErr (*QVNewRasterPortProc)(const QVIntRect* bounds, QVRasterPort* port); /* white paper */
#define kQVProcDrawText "DrawText"
typedef QVErr (*QVDrawTextProc)(QVRasterPort port, QVFontHandle font, const char* utf8, double size);
#define kQVProcGetRasterPortPixels "GetRasterPortPixels"
typedef QVErr (*QVGetRasterPortPixelsProc)(QVRasterPort port, QVIntRect* bounds, QVGreyPixels* pixels);
#define kQVProcDisposeRasterPort "DisposeRasterPort"
typedef QVErr (*QVDisposeRasterPortProc)(QVRasterPort port);
#define kQVProcGetRasterPixels "GetRasterPixels"
typedef QVErr (*QVGetRasterPixelsProc)(QVRasterHandle raster, QVGreyPixels* pixels); /* an image's pixels */

#ifdef __cplusplus
}
#endif

#endif
