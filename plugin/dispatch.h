#pragma once
// The module's entry dispatcher, behind the exported `main`.
#include "sdk/qv_plugin.h"

#ifdef __cplusplus
extern "C" {
#endif
/// Handles one message from the host: start-up and shut-down of the plug-in object, reload,
/// and routing of every other message to it. Never throws; an exception that escapes the
/// plug-in's own handling answers "UNEX".
QVErr FontrixPluginMain(const char* caller, const char* selector, void* message);
#ifdef __cplusplus
}
#endif
