#include "plugin/dispatch.h"

#include <cstring>

#include "plugin/fontrix.h"
#include "shell/qv_error.h"

namespace {

bool Is(const char* a, const char* b) { return a && std::strcmp(a, b) == 0; }

QVErr Dispatch(const char* caller, const char* selector, void* raw) {
  auto* message = static_cast<QVMessageData*>(raw);
  if (!message) return kQVBadParameterErr;
  qv::SetBasicSuite(message->basic);
  auto* plugin = static_cast<fontrix::Fontrix*>(message->globals);
  QVPluginRef ref = message->self;
  QVErr result = kQVNoErr;

  if (Is(caller, kQVInterfaceCaller) && Is(selector, kQVStartupSelector)) {
    plugin = fontrix::Fontrix::Create(ref);
    if (!plugin) {
      result = kQVOutOfMemoryErr;
    } else {
      message->globals = plugin;
      result = plugin->StartupSequence(message);
      if (result != kQVNoErr) {
        if (qv::GlobalPlugin() == plugin) plugin->SetGlobal(nullptr);
        fontrix::Fontrix::Destroy(plugin);
        message->globals = nullptr;
        plugin = nullptr;
      }
    }
  } else if (Is(caller, kQVInterfaceCaller) && Is(selector, kQVShutdownSelector)) {
    if (!plugin) return kQVNoErr;
    result = plugin->ShutdownSequence(message);
    fontrix::Fontrix::Destroy(plugin);
    message->globals = nullptr;
    plugin = nullptr;
  } else {
    if (!plugin) return kQVNoErr;
    if (Is(caller, kQVAccessCaller) && Is(selector, kQVReloadSelector)) {
      // The host may have reloaded the module's code under the living object.
      plugin->ReinitialiseInPlace();
      result = plugin->ReloadSequence(message);
    } else if (!plugin->Running()) {
      return kQVNoErr;
    } else {
      result = plugin->Message(caller, selector, message);
    }
  }

  if (result == kQVUnhandledMsgErr) return kQVNoErr;
  if (result != kQVNoErr) {
    if (plugin)
      plugin->ReportError(result, caller, selector, message);
    else
      qv::Plugin::StaticReportError(ref, result);
  }
  return result;
}

}  // namespace

extern "C" QVErr FontrixPluginMain(const char* caller, const char* selector, void* message) {
  try {
    return Dispatch(caller, selector, message);
  } catch (...) {
    return kQVUnexpectedErr;
  }
}
