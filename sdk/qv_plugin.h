/* The plug-in entry point, its message records and the basic suite. C ABI only.
 *
 * The host calls the plug-in's one export, `main(caller, selector, message)`, on its main
 * thread. Every message starts with QVMessageData; notifier and timer messages add fields.
 * All other host services are suites: tables of functions acquired by name and version
 * through the basic suite. */
#ifndef QV_PLUGIN_H
#define QV_PLUGIN_H

#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The basic suite, handed to the plug-in with every message. */
typedef struct QVBasicSuite {
  /* Acquires suite `name` at `version`; *suite receives its function table. kQVSuiteNotFoundErr if absent. */
  QVErr (*AcquireSuite)(const char* name, int32_t version, const void** suite);
  /* Releases one acquisition of suite `name` at `version`. */
  QVErr (*ReleaseSuite)(const char* name, int32_t version);
} QVBasicSuite;

/* Fields common to every message. */
typedef struct QVMessageData {
  QVPluginRef self;    /* the plug-in this message is for */
  void* globals;       /* kept by the host between calls; the plug-in stores its object here */
  QVBasicSuite* basic; /* the basic suite */
} QVMessageData;

/* Caller "QV Notifier", selector "QV Notify". */
typedef struct QVNotifierMessage {
  QVMessageData d;
  QVNotifierHandle notifier; /* the plug-in's notifier that fired */
  const char* type;          /* the notifier type name */
  void* notifyData;          /* type-specific data, or NULL */
} QVNotifierMessage;

/* Caller "QV Timer", selector "QV Go". */
typedef struct QVTimerMessage {
  QVMessageData d;
  QVTimerHandle timer; /* the plug-in's timer that fired */
} QVTimerMessage;

/* The entry point every plug-in exports under the C name "main". */
typedef QVErr (*QVPluginMainProc)(const char* caller, const char* selector, void* message);

#define kQVPluginMainSymbol "main"

/* Callers and selectors of the plug-in lifecycle. */
#define kQVInterfaceCaller "KP Interface"
#define kQVStartupSelector "Startup"
#define kQVShutdownSelector "Shutdown"
#define kQVAboutSelector "About"
#define kQVAccessCaller "KP Access"
#define kQVReloadSelector "Reload"
#define kQVUnloadSelector "Unload"
#define kQVCacheCaller "KP Cache"
#define kQVPurgeCachesSelector "Plug-in Purge"
#define kQVPropertiesCaller "KP Properties"
#define kQVAcquireSelector "Acquire"
#define kQVReleaseSelector "Release"
#define kQVNotifierCaller "QV Notifier"
#define kQVNotifySelector "QV Notify"
#define kQVTimerCaller "QV Timer"
#define kQVGoSelector "QV Go"

/* Notifier types the host sends. */
#define kQVApplicationStartedNotifier "QV Application Started Notifier"
#define kQVApplicationShutdownNotifier "QV Application Shutdown Notifier"
#define kQVFontListChangedNotifier "QV Font List Changed Notifier"

#ifdef __cplusplus
}
#endif

#endif
