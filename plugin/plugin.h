#pragma once
// The plug-in object: lifecycle sequences, message routing, error reporting. `Fontrix`
// specialises it; exactly one exists while the module is started.
#include <cstdint>
#include <functional>
#include <memory>

#include "sdk/qv_plugin.h"
#include "shell/host_suites.h"

namespace qv {

class Plugin {
 public:
  explicit Plugin(QVPluginRef pluginRef);
  virtual ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Operations, in the order the host's plug-in interface knows them.
  virtual void ReportError(QVErr code, const char* caller, const char* selector, QVMessageData* message);
  virtual QVErr LockPlugin(bool lock);
  virtual QVErr StartupPlugin(QVMessageData* message);
  virtual QVErr PostStartupPlugin();
  virtual QVErr ShutdownPlugin(QVMessageData* message);
  virtual QVErr UnloadPlugin(QVMessageData* message);
  virtual QVErr ReloadPlugin(QVMessageData* message);
  virtual QVErr ApplicationStarted();
  virtual QVErr AcquireProperty(QVMessageData* message);
  virtual QVErr ReleaseProperty(QVMessageData* message);
  virtual QVErr About(QVMessageData* message);
  virtual QVErr PurgeCache();
  /// Routes a message by caller and selector; "!MSG" when nothing handles it.
  virtual QVErr Message(const char* caller, const char* selector, QVMessageData* message);
  virtual void SetGlobal(Plugin* plugin);
  virtual QVErr AllocateSuiteTables();
  virtual QVErr FillSuiteTables();
  virtual QVErr EmptySuiteTables();
  virtual QVErr ReleaseSuiteTables();
  virtual QVErr PreMessage(const char* caller, const char* selector, QVMessageData* message);
  virtual QVErr Notify(QVNotifierMessage* message);
  virtual QVErr GoTimer(QVTimerMessage* message);
  /// Every other caller/selector pair the host sends; answers the pair's default result.
  virtual QVErr OtherMessage(const char* caller, const char* selector, QVMessageData* message, QVErr defaultResult);
  virtual QVErr PreferenceChanged();
  /// After the host reloaded the module's code under this object: rebuild what must point at
  /// the current code (task scheduler, notification list).
  virtual void ReinitialiseInPlace() {}

  // The sequences the entry dispatcher runs.
  QVErr StartupSequence(QVMessageData* message);
  QVErr ShutdownSequence(QVMessageData* message);
  QVErr ReloadSequence(QVMessageData* message);
  QVErr UnloadSequence(QVMessageData* message);

  /// Shows the alert for `code` from the module's string list 16050 (or the host's list 257),
  /// unless the code is silent. Acquires and releases the suites it needs.
  static void StaticReportError(QVPluginRef pluginRef, QVErr code);

  bool Running() const { return suites_ != nullptr; }
  QVPluginRef PluginRef() const { return pluginRef; }
  const char* Name() const { return name; }

  /// Seconds since the epoch for the repeat rule of error alerts; replaceable in tests.
  static void SetClockForTesting(std::function<int64_t()> clock);

 protected:
  QVPluginRef pluginRef;
  char name[256];
  std::unique_ptr<SuiteHolder> suites_;
  int32_t lockCount = 0;
  QVAccessRef accessRef = nullptr;
  QVErr lastErrorCode = 0;
  int32_t errorTimeout = 5;
  int64_t lastErrorTime = 0;
  QVNotifierHandle appStartedNotifier = nullptr;
  QVNotifierHandle preferenceChangedNotifier = nullptr;
  bool wantsPreferenceChanged = false;
  bool reloadPreferencesOnChange = false;
  bool suppressRepeatedErrors = true;

 private:
  QVErr RouteNotification(QVNotifierMessage* message);
  /// Creates the suite holder when absent and publishes its suites; on failure none is left.
  QVErr CreateSuiteHolder();
};

/// The process-wide plug-in object set by SetGlobal; background tasks reach the plug-in here.
Plugin* GlobalPlugin();

/// Runs `step`, turning the exceptions of the module into result codes: Error gives its own
/// code, std::bad_alloc "!MEM", any other std::exception "CANT". Others propagate.
QVErr Guarded(const std::function<QVErr()>& step);

}  // namespace qv
