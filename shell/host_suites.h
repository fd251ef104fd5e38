#pragma once
// Access to the host's suites: the process-wide basic suite and the holder of the suites the
// module keeps acquired while it runs. Namespace qv holds what faces the host (its suites, its
// feature switches, its error codes as exceptions, and the plug-in object in plugin/): the name
// the host interface gives its helpers, kept wherever they live.
#include <string>

#include "sdk/fontrix_suites.h"
#include "sdk/qv_font_suites.h"
#include "sdk/qv_host_suites.h"
#include "sdk/qv_plugin.h"

namespace qv {

/// The basic suite of the latest message; every acquisition goes through it.
void SetBasicSuite(QVBasicSuite* basic);
QVBasicSuite* GetBasicSuite();

/// Acquires suite `name` at `version`; throws Error with the host's code when it is missing.
const void* AcquireSuite(const char* name, int32_t version);
/// Acquires suite `name` at `version`, or returns nullptr.
const void* TryAcquireSuite(const char* name, int32_t version);
void ReleaseSuite(const char* name, int32_t version);

/// The suites the module keeps while it runs, in process-wide pointers (null when absent).
struct HostSuites {
  const QVAccessSuite* access = nullptr;
  const QVPluginsSuite* plugins = nullptr;
  const QVMdMemorySuite* memory = nullptr;
  const QVContextSuite* context = nullptr;
  const QVFoldersSuite* folders = nullptr;
  const QVFeatureManagerSuite* features = nullptr;
  // Optional: the operations that need them check for them.
  const QVNotifierSuite* notifier = nullptr;
  const QVTimerSuite* timer = nullptr;
  const QVFontSuite* fonts = nullptr;
  const QVFontGlueSuite* fontGlue = nullptr;
  const QVDevUtilsSuite* devUtils = nullptr;
};
const HostSuites& Suites();

/// Owns the acquisition of the suites above; created at start-up and reload, destroyed at
/// shut-down and unload. While a holder is live, Suites() answers from it.
class SuiteHolder {
 public:
  /// Acquires the required suites; throws Error with the host's code when one is missing.
  SuiteHolder();
  ~SuiteHolder();
  SuiteHolder(const SuiteHolder&) = delete;
  SuiteHolder& operator=(const SuiteHolder&) = delete;

  /// Acquires the optional suites not yet held (the host may offer them later).
  void RefreshOptional();
  /// Publishes this holder's suites as the process-wide ones.
  void MarkLive();
};

/// The path of host folder `id` (created when asked), or "" when the host cannot give it.
std::string FolderPath(int32_t id, bool create);

/// Host memory for objects handed to the host; nullptr when it is exhausted or unavailable.
void* NewHostMemory(size_t size);
void DisposeHostMemory(void* memory);

}  // namespace qv
