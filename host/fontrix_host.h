/* The reference host as a C library (libfontrix_host), for applications that embed the Fontrix
 * module: open a host over the machine's fonts, load the module, start it, wait for its
 * services, then use the module's suites (fontrix_suites.h) and the host's own (qv_font_suites.h)
 * exactly as a plug-in would. C ABI only.
 *
 * Threads: one host at a time per process. Call every function except fontrix_host_last_error
 * on one thread, the application's main thread: the module gets its messages there.
 *
 * Errors: functions return kQVNoErr or a result code, or NULL, and never throw. After a
 * failure, fontrix_host_last_error() says what went wrong in one sentence. */
#ifndef FONTRIX_HOST_H
#define FONTRIX_HOST_H

#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define FONTRIX_HOST_API __attribute__((visibility("default")))
#else
#define FONTRIX_HOST_API
#endif

/* fontrix_host_wait_until_idle: the time ran out while a service was still working. */
#define kFontrixHostBusyErr QV_FOURCC('B', 'U', 'S', 'Y')

typedef struct FontrixHost FontrixHost;

/* Where the module reads and writes, and what it runs. Any field may be NULL. */
typedef struct FontrixHostOptions {
  /* The module's read-only data. NULL: $FONTRIX_DATA_DIR, then share/fontrix of the prefix this
   * library is installed in, then the one of the prefix it was built for. */
  const char* data_dir;
  /* The module's caches, created when missing. NULL: $FONTRIX_CACHE_DIR, then
   * $XDG_CACHE_HOME/fontrix, then ~/.cache/fontrix. */
  const char* cache_dir;
  /* Services to switch off, comma-separated: "classification", "similarity", "recognition", and
   * "class-vote" (style classes from the linear rows alone), "class-head" (style classes without
   * the class head's reading of the similarity vectors), "installed-lines" (recognition from
   * the network's classes alone). Those named in $FONTRIX_DISABLE are off as well. */
  const char* disable;
} FontrixHostOptions;

/* Lists the installed fonts and opens the host; `options` may be NULL. NULL on failure (the
 * fonts cannot be listed, an unknown service, another host is open). */
FONTRIX_HOST_API FontrixHost* fontrix_host_open(const FontrixHostOptions* options);

/* Loads the module from `path`. NULL: $FONTRIX_MODULE, then libfontrix.so beside this library,
 * then the one of the prefix it was built for. kQVNotFoundErr when there is no such file. Caches
 * made by another build of the module, or from other data, are removed. */
FONTRIX_HOST_API QVErr fontrix_host_load_module(FontrixHost* host, const char* path);

/* Starts the loaded module as an application does: start-up, application started, font list
 * changed. The module then brings its caches up to date in the background. */
FONTRIX_HOST_API QVErr fontrix_host_start(FontrixHost* host);

/* Runs the host's main-thread loop (notifications, the module's timers) until every service
 * that is switched on is idle: kQVNoErr, or kFontrixHostBusyErr after `timeout_seconds`
 * (negative: no limit). It always runs at least one tick, so an application's event loop can
 * call it with 0 as its idle handler. */
FONTRIX_HOST_API QVErr fontrix_host_wait_until_idle(FontrixHost* host, double timeout_seconds);

/* A suite of the host or of the started module, by name and version; NULL when there is none.
 * The table stays valid until released, and at most until fontrix_host_close. */
FONTRIX_HOST_API const void* fontrix_host_acquire_suite(FontrixHost* host, const char* name, int32_t version);

/* Releases one acquisition made through fontrix_host_acquire_suite. */
FONTRIX_HOST_API QVErr fontrix_host_release_suite(FontrixHost* host, const char* name, int32_t version);

/* Releases the suites still held, shuts a started module down in order (application shut-down,
 * its last timer ticks, shut-down), unloads it and frees the host. The host is gone whatever the
 * result; NULL is allowed. */
FONTRIX_HOST_API QVErr fontrix_host_close(FontrixHost* host);

/* What the last call of this thread into this library got wrong; "" after a success. Valid
 * until this thread's next call. */
FONTRIX_HOST_API const char* fontrix_host_last_error(void);

#ifdef __cplusplus
}
#endif

#endif
