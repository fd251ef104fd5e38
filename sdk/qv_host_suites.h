/* The host suites a plug-in acquires through the basic suite, by name and version. C ABI only.
 * Every function returns a QVErr; outputs are written through pointers. Strings are UTF-8 and
 * NUL-terminated; strings the host returns stay valid until the next call of that function. */
#ifndef QV_HOST_SUITES_H
#define QV_HOST_SUITES_H

#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kQVAccessSuite "KP Access Suite"
#define kQVAccessSuiteVersion 1
typedef struct QVAccessSuite {
  /* Takes a handle that keeps plug-in `plugin` loaded until it is released. */
  QVErr (*AcquirePlugin)(QVPluginRef plugin, QVAccessRef* access);
  /* Releases a handle from AcquirePlugin. */
  QVErr (*ReleasePlugin)(QVAccessRef access);
} QVAccessSuite;

#define kQVPluginsSuite "KP Plug-ins Suite"
#define kQVPluginsSuiteVersion 1
typedef struct QVPluginsSuite {
  /* Gives the plug-in the name the host shows and uses for it. */
  QVErr (*SetPluginName)(QVPluginRef plugin, const char* name);
  /* The plug-in's name as set, or "" before. */
  QVErr (*GetPluginName)(QVPluginRef plugin, const char** name);
} QVPluginsSuite;

#define kQVSuitesSuite "KP Suites Suite"
#define kQVSuitesSuiteVersion 2
typedef struct QVSuitesSuite {
  /* Publishes a plug-in's function table under `name` and `apiVersion`; others acquire it with AcquireSuite. */
  QVErr (*AddSuite)(QVPluginRef plugin, const char* name, int32_t apiVersion, int32_t internalVersion,
                    const void* suite, QVSuiteRef* ref);
} QVSuitesSuite;

#define kQVBlocksSuite "KP Blocks Suite"
#define kQVBlocksSuiteVersion 1
typedef struct QVBlocksSuite {
  /* Allocates `size` bytes labelled `debugName`; kQVOutOfMemoryErr when there is no memory. */
  QVErr (*AllocateBlock)(size_t size, const char* debugName, void** block);
  /* Frees a block from AllocateBlock; NULL is ignored. */
  QVErr (*FreeBlock)(void* block);
} QVBlocksSuite;

#define kQVMdMemorySuite "QV MdMemory Suite"
#define kQVMdMemorySuiteVersion 1
typedef struct QVMdMemorySuite {
  /* Allocates `size` bytes of host memory for objects the plug-in hands to the host. */
  QVErr (*NewMemory)(size_t size, void** memory);
  /* Frees memory from NewMemory; NULL is ignored. */
  QVErr (*DisposeMemory)(void* memory);
} QVMdMemorySuite;

#define kQVNotifierSuite "QV Notifier Suite"
#define kQVNotifierSuiteVersion 1
typedef struct QVNotifierSuite {
  /* Registers `plugin` to receive notifications of `type` ("QV Notifier"/"QV Notify" messages). */
  QVErr (*AddNotifier)(QVPluginRef plugin, const char* name, const char* type, QVNotifierHandle* notifier);
  /* Sends a notification of `type` with `data` to every plug-in registered for it (main thread only). */
  QVErr (*Notify)(const char* type, void* data);
} QVNotifierSuite;

#define kQVTimerSuite "QV Timer Suite"
#define kQVTimerSuiteVersion 1
typedef struct QVTimerSuite {
  /* Registers an active timer; period 0 fires on every idle tick of the host's loop. */
  QVErr (*AddTimer)(QVPluginRef plugin, const char* name, int32_t period, QVTimerHandle* timer);
  /* Starts or stops a timer's "QV Timer"/"QV Go" messages. */
  QVErr (*SetTimerActive)(QVTimerHandle timer, QVBool active);
  /* Whether a timer is active. */
  QVErr (*IsTimerActive)(QVTimerHandle timer, QVBool* active);
} QVTimerSuite;

#define kQVContextSuite "QV Context Suite"
#define kQVContextSuiteVersion 1
typedef struct QVContextSuite {
  /* Makes `plugin` the current application context until the matching pop. */
  QVErr (*PushAppContext)(QVPluginRef plugin, QVAppContext* context);
  /* Ends a context from PushAppContext. */
  QVErr (*PopAppContext)(QVAppContext context);
} QVContextSuite;

/* Folder ids of the folders suite. */
#define kQVFolderPluginData 101 /* read-only data shipped with the plug-in (models, tables) */
#define kQVFolderUserCache 4    /* per-user writable folder for caches and logs */

#define kQVFoldersSuite "QV Folders Suite"
#define kQVFoldersSuiteVersion 1
typedef struct QVFoldersSuite {
  /* Writes the path of folder `id` (without a trailing slash) into path[capacity]; creates it when `create`. */
  QVErr (*FindFolder)(int32_t id, QVBool create, char* path, size_t capacity);
} QVFoldersSuite;

#define kQVFeatureManagerSuite "QV Feature Manager Suite"
#define kQVFeatureManagerSuiteVersion 1
typedef struct QVFeatureManagerSuite {
  /* Whether the host's yes/no feature switch `key` (e.g. "Text/FontSimilarity") is on. */
  QVErr (*IsFeatureEnabled)(const char* key, QVBool* enabled);
} QVFeatureManagerSuite;

#define kQVDevUtilsSuite "QV Dev Utils Suite"
#define kQVDevUtilsSuiteVersion 1
typedef struct QVDevUtilsSuite {
  /* Seconds since the epoch, with sub-second precision, for log lines. */
  QVErr (*GetCurrentTime)(double* seconds);
  /* The performance log named `name`; NULL asks for the answer that means "no log". */
  QVErr (*GetPerformanceLog)(const char* name, QVPerfLogHandle* log);
  /* Appends one line to a performance log. */
  QVErr (*WritePerformanceLog)(QVPerfLogHandle log, const char* line);
} QVDevUtilsSuite;

#define kQVUserSuite "QV User Suite"
#define kQVUserSuiteVersion 15
typedef struct QVUserSuite {
  /* Shows an error alert with `text` to the user. */
  QVErr (*ErrorAlert)(const char* text);
} QVUserSuite;

#define kQVBasicDialogSuite "QV Basic Dialog Suite"
#define kQVBasicDialogSuiteVersion 12
typedef struct QVBasicDialogSuite {
  /* Shows the plug-in's about box. */
  QVErr (*AboutBox)(const char* title, const char* text);
} QVBasicDialogSuite;

#define kQVStringInitSuite "QV String Init Suite"
#define kQVStringInitSuiteVersion 1
typedef struct QVStringInitSuite {
  /* Entry `index` of the host's own string list `list` into buf[capacity]; kQVNotFoundErr when absent. */
  QVErr (*GetHostString)(int32_t list, int32_t index, char* buf, size_t capacity);
} QVStringInitSuite;

#ifdef __cplusplus
}
#endif

#endif
