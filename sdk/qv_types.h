/* Basic types of the host plug-in interface: result codes and opaque handles. C ABI only. */
#ifndef QV_TYPES_H
#define QV_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A result: 0 is success; anything else is a four-character code, first character in the
 * most significant byte ("!MSG" is 0x214D5347), or occasionally a plain number. */
typedef uint32_t QVErr;

#define QV_FOURCC(a, b, c, d)                                                                                \
  ((QVErr)(((uint32_t)(uint8_t)(a) << 24) | ((uint32_t)(uint8_t)(b) << 16) | ((uint32_t)(uint8_t)(c) << 8) | \
           (uint32_t)(uint8_t)(d)))

#define kQVNoErr ((QVErr)0)
#define kQVUnhandledMsgErr QV_FOURCC('!', 'M', 'S', 'G')   /* message not handled */
#define kQVOutOfMemoryErr QV_FOURCC('!', 'M', 'E', 'M')    /* out of memory */
#define kQVCantHappenErr QV_FOURCC('C', 'A', 'N', 'T')     /* failure */
#define kQVUnexpectedErr QV_FOURCC('U', 'N', 'E', 'X')     /* an exception escaped */
#define kQVPurgedErr QV_FOURCC('p', 'F', 'l', 's')         /* a cache purge released something */
#define kQVNotInitialisedErr QV_FOURCC('U', 'I', 'N', '?') /* service not initialised yet */
#define kQVSuiteNotFoundErr QV_FOURCC('S', '!', 'F', 'd')  /* no suite of that name and version */
#define kQVBadParameterErr QV_FOURCC('P', 'A', 'R', 'M')   /* an argument the host cannot use */
#define kQVNotFoundErr QV_FOURCC('N', 'F', 'N', 'D')       /* the named item does not exist */

typedef uint8_t QVBool; /* 0 false, anything else true */

typedef struct QVPluginOpaque* QVPluginRef;        /* the host's reference to a loaded plug-in */
typedef struct QVAccessOpaque* QVAccessRef;        /* keeps a plug-in loaded while held */
typedef struct QVNotifierOpaque* QVNotifierHandle; /* a registered notifier */
typedef struct QVTimerOpaque* QVTimerHandle;       /* a registered timer */
typedef struct QVSuiteOpaque* QVSuiteRef;          /* a suite registered by a plug-in */
typedef struct QVAppContextOpaque* QVAppContext;   /* a pushed application context */
typedef struct QVFontOpaque* QVFontHandle;         /* an installed font face, owned by the host */
typedef struct QVRasterOpaque* QVRasterHandle;     /* an 8-bit grey raster, owned by the host */
typedef struct QVPerfLogOpaque* QVPerfLogHandle;   /* a performance log of the host */

#ifdef __cplusplus
}
#endif

#endif
