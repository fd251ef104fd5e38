/* Font suites of the host: the installed fonts, their qualification for the font services,
 * and the font engine's procedure table. C ABI only. */
#ifndef QV_FONT_SUITES_H
#define QV_FONT_SUITES_H

#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kQVFontSuite "QV Font Suite"
#define kQVFontSuiteVersion 1
typedef struct QVFontSuite {
  /* Number of installed font faces (system and user fonts). */
  QVErr (*CountFonts)(int32_t* count);
  /* The face at `index` (0 to count-1) of the host's font list. */
  QVErr (*IndexFontList)(int32_t index, QVFontHandle* font);
  /* The face's unique name (its PostScript name), family and style (from its name table). */
  QVErr (*GetFontNames)(QVFontHandle font, const char** uniqueName, const char** family, const char** style);
  /* The face's file and its index in that file (collection index or named instance). */
  QVErr (*GetFontFile)(QVFontHandle font, const char** path, int32_t* faceIndex);
  /* The installed face whose unique name is `uniqueName`; kQVNotFoundErr when there is none. */
  QVErr (*FindFontByName)(const char* uniqueName, QVFontHandle* font);
} QVFontSuite;

/* The font kind of a bitmap strike font (no scalable outlines); such fonts never qualify. */
#define kQVFontKindBitmapStrike 33
/* The kind of a scalable outline font. */
#define kQVFontKindOutline 1

#define kQVFontGlueSuite "QV Font Glue Suite"
#define kQVFontGlueSuiteVersion 1
typedef struct QVFontGlueSuite {
  /* Whether the face has bitmap strikes only (no outlines). */
  QVErr (*IsBitmapOnly)(QVFontHandle font, QVBool* answer);
  /* Whether the face is a symbol or pi font without the Latin letters a-z, A-Z and 0-9. */
  QVErr (*IsSymbolFont)(QVFontHandle font, QVBool* answer);
  /* Whether an earlier face of the font list has the same unique name. */
  QVErr (*IsDuplicateName)(QVFontHandle font, QVBool* answer);
  /* The face's kind: kQVFontKindOutline, or kQVFontKindBitmapStrike. */
  QVErr (*GetFontKind)(QVFontHandle font, int32_t* kind);
  /* The font engine's procedure table, bound by the plug-in procedure by procedure. */
  QVErr (*GetEngineInterface)(void** engine);
  /* The address of the engine procedure named `name`; kQVNotFoundErr when the engine has none. */
  QVErr (*GetEngineProcedure)(void* engine, const char* name, void** procedure);
} QVFontGlueSuite;

#ifdef __cplusplus
}
#endif

#endif
