#include "plugin/plugin.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "plugin/string_lists.h"
#include "shell/qv_error.h"

namespace qv {

namespace {

Plugin* global_plugin = nullptr;
std::vector<Plugin*> live_plugins;  // main thread only

std::mutex clock_mutex;
std::function<int64_t()> clock_for_testing;

int64_t NowSeconds() {
  {
    std::lock_guard<std::mutex> lock(clock_mutex);
    if (clock_for_testing) return clock_for_testing();
  }
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool Equal(const char* a, const char* b) { return a && b && std::strcmp(a, b) == 0; }

// How a caller/selector pair is handled. The specific kinds call their own operation; the
// two default kinds go to OtherMessage with "!MSG" or 0 as their default answer.
enum class Route { Reload, Unload, About, Purge, AcquireProperty, ReleaseProperty, Notify, Timer, Unhandled, Handled };

struct RouteEntry {
  const char* caller;
  const char* selector;  // nullptr: any selector of the caller
  Route route;
};

const RouteEntry kRoutes[] = {
    {"KP Access", "Reload", Route::Reload},
    {"KP Access", "Unload", Route::Unload},
    {"KP Interface", "About", Route::About},
    {"KP Cache", "Plug-in Purge", Route::Purge},
    {"KP Properties", "Acquire", Route::AcquireProperty},
    {"KP Properties", "Release", Route::ReleaseProperty},
    {"QV Notifier", "QV Notify", Route::Notify},
    {"QV Timer", "QV Go", Route::Timer},
    {"Action Manager", "Do Action", Route::Handled},
    {"QV Menu", "QV Go", Route::Unhandled},
    {"QV Menu", "QV Update", Route::Unhandled},
    {"QV Filter", "QV Get Parameters", Route::Unhandled},
    {"QV Filter", "QV Go", Route::Unhandled},
    {"QV Filter", "QV Update", Route::Unhandled},
    {"QV Plugin Group", "QV Notify Edits", Route::Unhandled},
    {"QV Plugin Group", "QV Update", Route::Unhandled},
    {"QV File Format", "QV Get Parameters", Route::Unhandled},
    {"QV File Format", "QV Set Parameters", Route::Unhandled},
    {"QV File Format", "QV Go", Route::Unhandled},
    {"QV File Format", "QV Check", Route::Unhandled},
    {"QV File Format", "QV Update QV140", Route::Unhandled},
    {"QV File Format", "Do Action", Route::Unhandled},
    {"QV Tool", "QV Edit Options", Route::Unhandled},
    {"QV Tool", "QV Track Cursor", Route::Unhandled},
    {"QV Tool", "QV Mouse Down", Route::Unhandled},
    {"QV Tool", "QV Mouse Drag", Route::Unhandled},
    {"QV Tool", "QV Mouse Up", Route::Unhandled},
    {"QV Tool", "QV Tool Draw Dry Ink", Route::Unhandled},
    {"QV Tool", "QV Select", Route::Unhandled},
    {"QV Tool", "QV Deselect", Route::Unhandled},
    {"QV Tool", "QV Reselect", Route::Handled},
    {"QV Tool", "QV Decrease Diameter", Route::Handled},
    {"QV Tool", "QV Increase Diameter", Route::Handled},
    {"QV Live Effect", "QV Live Effect Edit Parameters", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Go Live", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Interpolate Parameters", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Get Conversion Parameters", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Input Type", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Scale Parameters", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Convert Color Space", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Adjust Colors", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Handle Merge", Route::Unhandled},
    {"QV Live Effect", "QV Live Effect Is Compatible", Route::Unhandled},
    {"QV Clipboard", "QV Go", Route::Unhandled},
    {"QV Clipboard", "QV Can Copy", Route::Unhandled},
    {"QV Clipboard", "QV Clone", Route::Unhandled},
    {"QV Clipboard", "QV Dispose", Route::Unhandled},
    {"Workspace Manager", "Write Workspace", Route::Handled},
    {"Workspace Manager", "Restore Workspace", Route::Handled},
    {"Workspace Manager", "Default Workspace", Route::Unhandled},
    {"QV Control Panel", "QV Control Panel Create ControlGroup", Route::Unhandled},
    {"QV Control Panel", "QV Control Panel Group Visibility", Route::Unhandled},
    {"QV Control Panel", "QV Control Panel SubGroup Visibility", Route::Unhandled},
    {"QV Radial Device", "Radial Device Rotated", Route::Unhandled},
    {"QV Radial Device", "Radial Device Clicked", Route::Unhandled},
    {"QV Script Message Caller", nullptr, Route::Handled},
};

// Pops the application context pushed for a notification, also when an exception passes.
class ContextScope {
 public:
  explicit ContextScope(QVPluginRef plugin) {
    if (const QVContextSuite* context = Suites().context) {
      if (context->PushAppContext(plugin, &context_) == kQVNoErr) suite_ = context;
    }
  }
  ~ContextScope() {
    if (suite_) suite_->PopAppContext(context_);
  }
  ContextScope(const ContextScope&) = delete;
  ContextScope& operator=(const ContextScope&) = delete;

 private:
  const QVContextSuite* suite_ = nullptr;
  QVAppContext context_ = nullptr;
};

// Looks up `code` among the key/message pairs of the error list; keys that start with '-' or
// a digit are decimal numbers, others four characters.
const std::string* FindErrorMessage(const std::vector<std::string>& list, QVErr code) {
  for (size_t i = 0; i + 1 < list.size(); i += 2) {
    const std::string& key = list[i];
    QVErr value = 0;
    if (!key.empty() && (key[0] == '-' || (key[0] >= '0' && key[0] <= '9'))) {
      value = static_cast<QVErr>(std::strtol(key.c_str(), nullptr, 10));
    } else {
      for (size_t c = 0; c < 4; ++c) value = (value << 8) | (c < key.size() ? uint8_t(key[c]) : 0);
    }
    if (value == code) return &list[i + 1];
  }
  return nullptr;
}

}  // namespace

void Plugin::SetClockForTesting(std::function<int64_t()> clock) {
  std::lock_guard<std::mutex> lock(clock_mutex);
  clock_for_testing = std::move(clock);
}

Plugin* GlobalPlugin() { return global_plugin; }

QVErr Guarded(const std::function<QVErr()>& step) {
  try {
    return step();
  } catch (const Error& e) {
    return e.code();
  } catch (const std::bad_alloc&) {
    return kQVOutOfMemoryErr;
  } catch (const std::exception&) {
    return kQVCantHappenErr;
  }
}

Plugin::Plugin(QVPluginRef ref) : pluginRef(ref) {
  std::memset(name, 0, sizeof name);
  std::snprintf(name, sizeof name, "%s", "Plugin");
}

Plugin::~Plugin() = default;

QVErr Plugin::LockPlugin(bool lock) {
  const QVAccessSuite* access = Suites().access;
  if (lock) {
    if (lockCount++ == 0 && access) return access->AcquirePlugin(pluginRef, &accessRef);
  } else if (lockCount > 0 && --lockCount == 0 && accessRef) {
    const QVErr result = access ? access->ReleasePlugin(accessRef) : kQVNoErr;
    accessRef = nullptr;
    return result;
  }
  return kQVNoErr;
}

QVErr Plugin::StartupPlugin(QVMessageData*) { return kQVNoErr; }
QVErr Plugin::PostStartupPlugin() { return kQVNoErr; }
QVErr Plugin::ShutdownPlugin(QVMessageData*) { return kQVNoErr; }
QVErr Plugin::UnloadPlugin(QVMessageData*) { return kQVNoErr; }
QVErr Plugin::ReloadPlugin(QVMessageData*) { return kQVNoErr; }
QVErr Plugin::ApplicationStarted() { return kQVUnhandledMsgErr; }
QVErr Plugin::AcquireProperty(QVMessageData*) { return kQVUnhandledMsgErr; }
QVErr Plugin::ReleaseProperty(QVMessageData*) { return kQVUnhandledMsgErr; }
QVErr Plugin::PurgeCache() { return kQVNoErr; }
void Plugin::SetGlobal(Plugin* plugin) { global_plugin = plugin; }
QVErr Plugin::AllocateSuiteTables() { return kQVNoErr; }
QVErr Plugin::FillSuiteTables() { return kQVNoErr; }
QVErr Plugin::EmptySuiteTables() { return kQVNoErr; }
QVErr Plugin::ReleaseSuiteTables() { return kQVNoErr; }
QVErr Plugin::Notify(QVNotifierMessage*) { return kQVNoErr; }
QVErr Plugin::GoTimer(QVTimerMessage*) { return kQVUnhandledMsgErr; }
QVErr Plugin::OtherMessage(const char*, const char*, QVMessageData*, QVErr defaultResult) { return defaultResult; }
QVErr Plugin::PreferenceChanged() { return kQVNoErr; }

QVErr Plugin::About(QVMessageData*) {
  // Buffers of 256 bytes, as the string list entries are read into.
  const std::string title = fontrix::GetString(fontrix::kAboutStringList, 1).substr(0, 255);
  const std::string text = fontrix::GetString(fontrix::kAboutStringList, 2).substr(0, 255);
  const auto* dialog =
      static_cast<const QVBasicDialogSuite*>(AcquireSuite(kQVBasicDialogSuite, kQVBasicDialogSuiteVersion));
  const QVErr result = dialog->AboutBox(title.c_str(), text.c_str());
  ReleaseSuite(kQVBasicDialogSuite, kQVBasicDialogSuiteVersion);
  return result;
}

QVErr Plugin::PreMessage(const char*, const char*, QVMessageData*) {
  if (suites_) suites_->RefreshOptional();
  return kQVNoErr;
}

QVErr Plugin::RouteNotification(QVNotifierMessage* message) {
  ContextScope context(pluginRef);
  if (appStartedNotifier && message->notifier == appStartedNotifier) {
    const QVErr result = ApplicationStarted();
    if (result == kQVNoErr || result == kQVUnhandledMsgErr) return PostStartupPlugin();
    return result;
  }
  if (preferenceChangedNotifier && message->notifier == preferenceChangedNotifier) {
    // Preferences are re-read by the host's preference service; the module keeps none.
    return wantsPreferenceChanged ? PreferenceChanged() : kQVUnhandledMsgErr;
  }
  return Notify(message);
}

QVErr Plugin::Message(const char* caller, const char* selector, QVMessageData* message) {
  return Guarded([&]() -> QVErr {
    QVErr result = PreMessage(caller, selector, message);
    if (result != kQVNoErr) return result;
    for (const RouteEntry& r : kRoutes) {
      if (!Equal(caller, r.caller) || (r.selector && !Equal(selector, r.selector))) continue;
      switch (r.route) {
        case Route::Reload:
          return ReloadSequence(message);
        case Route::Unload:
          return UnloadSequence(message);
        case Route::About:
          return About(message);
        case Route::Purge:
          return PurgeCache() > 0 ? kQVPurgedErr : kQVNoErr;
        case Route::AcquireProperty:
          return AcquireProperty(message);
        case Route::ReleaseProperty:
          return ReleaseProperty(message);
        case Route::Notify:
          return RouteNotification(reinterpret_cast<QVNotifierMessage*>(message));
        case Route::Timer:
          return GoTimer(reinterpret_cast<QVTimerMessage*>(message));
        case Route::Unhandled:
          return OtherMessage(caller, selector, message, kQVUnhandledMsgErr);
        case Route::Handled:
          return OtherMessage(caller, selector, message, kQVNoErr);
      }
    }
    return kQVUnhandledMsgErr;
  });
}

QVErr Plugin::CreateSuiteHolder() {
  const QVErr result = Guarded([&] {
    if (!suites_) suites_ = std::make_unique<SuiteHolder>();
    return kQVNoErr;
  });
  if (result != kQVNoErr)
    suites_.reset();
  else
    suites_->MarkLive();
  return result;
}

QVErr Plugin::StartupSequence(QVMessageData* message) {
  SetGlobal(this);
  if (const QVErr result = CreateSuiteHolder(); result != kQVNoErr) return result;
  return Guarded([&] {
    Check(Suites().plugins->SetPluginName(pluginRef, name));
    const QVNotifierSuite* notifier = Suites().notifier;
    if (!notifier) return kQVCantHappenErr;
    char notifier_name[300];
    std::snprintf(notifier_name, sizeof notifier_name, "%s App Started Notifier", name);
    Check(notifier->AddNotifier(pluginRef, notifier_name, kQVApplicationStartedNotifier, &appStartedNotifier));
    QVErr r = AllocateSuiteTables();
    if (r == kQVNoErr) r = FillSuiteTables();
    if (r != kQVNoErr) return r;
    live_plugins.push_back(this);
    return StartupPlugin(message);
  });
}

QVErr Plugin::ShutdownSequence(QVMessageData* message) {
  QVErr result = Guarded([&] { return ShutdownPlugin(message); });
  live_plugins.erase(std::remove(live_plugins.begin(), live_plugins.end(), this), live_plugins.end());
  if (result == kQVNoErr) result = Guarded([&] { return ReleaseSuiteTables(); });
  suites_.reset();
  SetGlobal(nullptr);
  return result;
}

QVErr Plugin::ReloadSequence(QVMessageData* message) {
  SetGlobal(this);
  if (const QVErr result = CreateSuiteHolder(); result != kQVNoErr) return result;
  return Guarded([&] {
    QVErr r = FillSuiteTables();
    if (r != kQVNoErr) return r;
    if (std::find(live_plugins.begin(), live_plugins.end(), this) == live_plugins.end()) live_plugins.push_back(this);
    return ReloadPlugin(message);
  });
}

QVErr Plugin::UnloadSequence(QVMessageData* message) {
  const QVErr result = Guarded([&] { return UnloadPlugin(message); });
  live_plugins.erase(std::remove(live_plugins.begin(), live_plugins.end(), this), live_plugins.end());
  Guarded([&] { return EmptySuiteTables(); });
  SetGlobal(nullptr);
  suites_.reset();
  return result;
}

void Plugin::ReportError(QVErr code, const char*, const char*, QVMessageData*) {
  if (IsSilentCode(code)) return;
  const int64_t now = NowSeconds();
  if (suppressRepeatedErrors && code == lastErrorCode && now - lastErrorTime < errorTimeout) return;
  lastErrorCode = code;
  lastErrorTime = now;
  StaticReportError(pluginRef, code);
}

void Plugin::StaticReportError(QVPluginRef, QVErr code) {
  if (IsSilentCode(code)) return;
  const auto* dialog =
      static_cast<const QVBasicDialogSuite*>(TryAcquireSuite(kQVBasicDialogSuite, kQVBasicDialogSuiteVersion));
  if (!dialog) return;
  const auto* user = static_cast<const QVUserSuite*>(TryAcquireSuite(kQVUserSuite, kQVUserSuiteVersion));
  if (!user) {
    ReleaseSuite(kQVBasicDialogSuite, kQVBasicDialogSuiteVersion);
    return;
  }
  const auto& list = fontrix::StringList(fontrix::kErrorStringList);
  std::string message;
  bool is_default = false;
  if (const std::string* found = FindErrorMessage(list, code)) {
    message = *found;
  } else {
    if (!list.empty()) {
      message = list.back();
      is_default = true;
    }
    // The host's own list answers for small numeric codes the module has no text for.
    if (code >= 10 && code <= 899) {
      if (const auto* strings =
              static_cast<const QVStringInitSuite*>(TryAcquireSuite(kQVStringInitSuite, kQVStringInitSuiteVersion))) {
        char buffer[256] = {0};
        if (strings->GetHostString(257, int32_t(code), buffer, sizeof buffer) == kQVNoErr && buffer[0]) {
          message = buffer;
          is_default = false;
        }
        ReleaseSuite(kQVStringInitSuite, kQVStringInitSuiteVersion);
      }
    }
  }
  if (!message.empty()) {
    if (is_default && message.size() < 120) {
      // The default message is a format with one string argument: the code.
      const std::string argument = code >= 16385 ? CodeText(code) : std::to_string(code);
      const size_t at = message.find("%s");
      if (at != std::string::npos) message.replace(at, 2, argument);
    }
    user->ErrorAlert(message.c_str());
  }
  ReleaseSuite(kQVUserSuite, kQVUserSuiteVersion);
  ReleaseSuite(kQVBasicDialogSuite, kQVBasicDialogSuiteVersion);
}

}  // namespace qv
