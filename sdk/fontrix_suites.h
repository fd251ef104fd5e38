/* The suites the Fontrix plug-in publishes for other plug-ins. C ABI only.
 *
 * Acquire them through the basic suite like any host suite, once the plug-in has started.
 * Each query function answers from the in-memory cache of its service and returns
 * kQVNotInitialisedErr ("UIN?") until that cache exists. Results go to a list the caller
 * provides: the function calls `append` once per result, best first. */
#ifndef FONTRIX_SUITES_H
#define FONTRIX_SUITES_H

#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One font of a result: its unique name (the PostScript name) and a score (1.0 where a query
 * has none). The strings are valid only during the append call. */
typedef struct FontrixFontResult {
  const char* name;
  double score;
} FontrixFontResult;

/* A caller-provided output list. `clear` may be NULL. */
typedef struct FontrixFontList {
  void* context;
  /* Empties the list (called first by queries that replace its contents). */
  void (*clear)(void* context);
  /* Appends one result. */
  void (*append)(void* context, const FontrixFontResult* font);
} FontrixFontList;

#define kFontrixFeatureSuite "QV Font Feature Suite"
#define kFontrixFeatureSuiteVersion 1
typedef struct FontrixFeatureSuite {
  /* Appends every cached font whose class bits include the bit of label `*labelIndex`. */
  QVErr (*GetFontsWithLabel)(const int32_t* labelIndex, FontrixFontList* out);
} FontrixFeatureSuite;

#define kFontrixSimilarSuite "QV Font Similar Suite"
#define kFontrixSimilarSuiteVersion 1
typedef struct FontrixSimilarSuite {
  /* Clears `out` and fills it with the installed fonts most like font `uniqueName`, best first. */
  QVErr (*GetSimilarFontNames)(const char* uniqueName, FontrixFontList* out);
} FontrixSimilarSuite;

#define kFontrixRecognitionSuite "QV Font Recognition Suite"
#define kFontrixRecognitionSuiteVersion 1
typedef struct FontrixRecognitionSuite {
  /* Fills `out` with the installed fonts most likely shown in the grey raster `image`, best first. */
  QVErr (*GetRecognizedFonts)(QVRasterHandle image, FontrixFontList* out);
} FontrixRecognitionSuite;

/* Services, for the progress suite. */
enum {
  kFontrixServiceClassification = 0,
  kFontrixServiceSimilarity = 1,
  kFontrixServiceRecognition = 2,
  kFontrixServiceCount = 3
};

/* How far one service's background work has come. */
typedef struct FontrixServiceProgress {
  uint32_t fontsDone;     /* fonts of the current font list the service has handled */
  uint32_t fontsTotal;    /* fonts of the current font list it has to handle */
  QVBool enabled;         /* the service's feature switch is on */
  QVBool idle;            /* no background work of the service is queued or running */
  uint32_t fontsMatched;  /* of the last update: fonts found in the service's cache */
  uint32_t fontsComputed; /* fonts measured or imaged anew */
  uint32_t fontsUnusable; /* fonts that could not be measured or drawn */
} FontrixServiceProgress;

/* Receives the module's font list, one host font handle per call. */
typedef struct FontrixFontHandleList {
  void* context;
  void (*append)(void* context, QVFontHandle font);
} FontrixFontHandleList;

/* Severities of a service's report. */
enum {
  kFontrixReportNothing = 0,
  kFontrixReportWarning = 1,  /* the service works: a damaged cache was rebuilt, a cache not saved */
  kFontrixReportFailure = 2,  /* the service cannot answer: its data or model cannot be used */
  kFontrixReportNotSaved = 3, /* the service answers, but what it computed was not kept: a cache
                                 not saved, computed again at the next start */
  kFontrixReportWaiting = 4   /* for as long as it lasts: the service waits for another process
                                 that holds its cache folder */
};

/* Receives the fonts a service could not use, one per call: the font's unique name and why, one
 * sentence. The strings are valid only during the call. */
typedef struct FontrixUnusableFontList {
  void* context;
  void (*append)(void* context, const char* name, const char* reason);
} FontrixUnusableFontList;

#define kFontrixProgressSuite "QV Fontrix Progress Suite"
#define kFontrixProgressSuiteVersion 3
typedef struct FontrixProgressSuite {
  /* Progress of service `service` (a kFontrixService value). */
  QVErr (*GetServiceProgress)(int32_t service, FontrixServiceProgress* progress);
  /* The qualifying fonts of the module's current font list, and the list's generation. */
  QVErr (*GetFontList)(FontrixFontHandleList* out, uint32_t* generation);
  /* What service `service` last had to report, one sentence naming the cause and the file, into
   * `text` (cut to `capacity` bytes, NUL included; "" when nothing), and its severity (a
   * kFontrixReport value). */
  QVErr (*GetServiceReport)(int32_t service, int32_t* severity, char* text, size_t capacity);
  /* The fonts of the current font list that service `service` could not use, and why; fonts it
   * has not come to yet are not named. */
  QVErr (*GetUnusableFonts)(int32_t service, FontrixUnusableFontList* out);
} FontrixProgressSuite;

/* One face of the module's shipped similarity table. The strings are valid only during the
 * append call. */
typedef struct FontrixTableFont {
  const char* name; /* unique name (the PostScript name) */
  const char* family;
  const char* style;
  QVBool installed; /* an installed font of the module's font list matched it by name */
} FontrixTableFont;

typedef struct FontrixTableFontList {
  void* context;
  void (*append)(void* context, const FontrixTableFont* font);
} FontrixTableFontList;

/* The faces of the shipped similarity table, whether installed or not, so that a host can offer
 * fonts like a face a document names but the machine lacks. Answers "UIN?" until the similarity
 * cache exists. */
#define kFontrixTableSuite "QV Fontrix Table Suite"
#define kFontrixTableSuiteVersion 1
typedef struct FontrixTableSuite {
  /* Appends every usable face of the shipped table, in table order. */
  QVErr (*GetTableFonts)(FontrixTableFontList* out);
  /* Clears `out` and fills it with the installed fonts most like the shipped face `uniqueName`
   * (exact name), best first, at most 80; the face itself is left out when installed.
   * kQVNotFoundErr when the table has no usable face of that name. */
  QVErr (*GetSimilarToTableFont)(const char* uniqueName, FontrixFontList* out);
} FontrixTableSuite;

/* The box of one line of text's ink in a raster: rows [top, bottom), columns [left, right). */
typedef struct FontrixTextLine {
  int32_t top, bottom, left, right;
} FontrixTextLine;

typedef struct FontrixTextLineList {
  void* context;
  void (*append)(void* context, const FontrixTextLine* line);
} FontrixTextLineList;

/* One answer of recognition with what the module knows of it. */
typedef struct FontrixRecognizedFont {
  const char* name;  /* unique name (the PostScript name) */
  double score;      /* as the recognition suite gives it */
  double likeness;   /* 0..1: how alike the picture is to a line the module drew in the font; -1: none */
  double confidence; /* 0..1: of answers given this confidence, about this share is right; -1:
                        the module has no calibration */
} FontrixRecognizedFont;

typedef struct FontrixRecognizedFontList {
  void* context;
  void (*append)(void* context, const FontrixRecognizedFont* font);
} FontrixRecognizedFontList;

/* Where recognition finds text in a picture, so that a host can tell a picture without text
 * from one whose text no installed font matches, or show what was read; and recognition's
 * answers with how sure it is of them. Answers "UIN?" until the recognition cache exists.
 * Version 1 has FindTextLines only. */
#define kFontrixTextSuite "QV Fontrix Text Suite"
#define kFontrixTextSuiteVersion 2
typedef struct FontrixTextSuite {
  /* Appends the lines of text recognition finds by their ink in the grey raster `image`, top to
   * bottom; none when the picture shows no text (blank, or grain and specks only). */
  QVErr (*FindTextLines)(QVRasterHandle image, FontrixTextLineList* out);
  /* Appends the answers the recognition suite gives for `image`, in its order, each with its
   * likeness and confidence; sets `*sureAt` to the confidence from which the module is sure of
   * the first answer (-1 without answers or a calibration). */
  QVErr (*RecognizeFonts)(QVRasterHandle image, FontrixRecognizedFontList* out, double* sureAt);
} FontrixTextSuite;

/* One face the module knows whether or not it is installed: an open face of the module's data
 * (its recognition line and similarity vector were made where it was installed). The strings
 * are valid only during the append call. */
typedef struct FontrixKnownFace {
  const char* name; /* unique name (the PostScript name) */
  const char* family;
  const char* style;
  int32_t weight;     /* CSS weight, 100..950 */
  QVBool italic;      /* italic or oblique */
  QVBool installed;   /* an installed font of the module's font list has this unique name */
  const char* source; /* where to get it: "debian:PACKAGE" or "npm:@fontsource/ID" */
  const char* licence;
} FontrixKnownFace;

typedef struct FontrixKnownFaceList {
  void* context;
  void (*append)(void* context, const FontrixKnownFace* face);
} FontrixKnownFaceList;

/* One well-known family that is not open, as the module's table of them describes it. The
 * strings and arrays are valid only during the call. */
typedef struct FontrixKnownFamily {
  const char* family;     /* the name documents give it */
  const char* styleClass; /* its primary style class, a label string such as "fs_sans_serif" */
  const int32_t* weights; /* CSS weights it comes in, ascending */
  int32_t weightCount;
  const int32_t* widths; /* widths it comes in, percent as fontconfig gives them, ascending */
  int32_t widthCount;
  QVBool italic;                   /* it has italics or obliques */
  const char* const* openFamilies; /* one to three open families that look alike, best first */
  const char* const* why;          /* per open family: "clone", "revival" or "look-alike" */
  int32_t openFamilyCount;
} FontrixKnownFamily;

/* One answer of recognition over the installed fonts and the known faces. */
typedef struct FontrixKnownAnswer {
  const char* name;                   /* unique name */
  double score, likeness, confidence; /* as in FontrixRecognizedFont */
  QVBool installed;                   /* 0: a known face that is not installed (GetKnownFaces tells where
                                         to get it) */
} FontrixKnownAnswer;

typedef struct FontrixKnownAnswerList {
  void* context;
  void (*append)(void* context, const FontrixKnownAnswer* answer);
} FontrixKnownAnswerList;

/* Fonts the machine does not have: the open faces the module's data knows (so that a picture
 * can be named in a font that is not installed, and a face a document names can be replaced by
 * the installed ones most like it), and the well-known families that are not open with the open
 * designs that look like them. Answers "UIN?" until the similarity cache exists (recognition:
 * the recognition cache), and kQVNotFoundErr for a name it does not know. Without the known
 * faces' data files the lists are empty and every name is unknown. */
#define kFontrixKnownFontsSuite "QV Fontrix Known Fonts Suite"
#define kFontrixKnownFontsSuiteVersion 1
typedef struct FontrixKnownFontsSuite {
  /* Appends every known face, installed or not, in the data's order. */
  QVErr (*GetKnownFaces)(FontrixKnownFaceList* out);
  /* Clears `out` and fills it with the installed fonts most like the known faces `names` (exact
   * unique names, `count` of them, best first: their vectors are weighted 1, 1/2, 1/3 ...), best
   * first, at most 80; the faces themselves are left out. kQVNotFoundErr when none of them is a
   * known face. */
  QVErr (*GetSimilarToKnownFaces)(const char* const* names, int32_t count, FontrixFontList* out);
  /* The well-known family named `name` (its name or an alias; case, spaces, hyphens and
   * underscores ignored) into `*out`, through the call `found(context, family)`; kQVNotFoundErr
   * when the table has no such family. */
  QVErr (*GetKnownFamily)(const char* name, void* context,
                          void (*found)(void* context, const FontrixKnownFamily* family));
  /* The answers of the text suite's RecognizeFonts with the known faces that are not installed
   * merged in by how alike the picture is to their lines, each marked; `*sureAt` as there. */
  QVErr (*RecognizeKnownFonts)(QVRasterHandle image, FontrixKnownAnswerList* out, double* sureAt);
} FontrixKnownFontsSuite;

#ifdef __cplusplus
}
#endif

#endif
