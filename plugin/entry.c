/* The module's one export. The host's plug-in interface names its entry point `main`; C lets
 * a library define a function of that name with this signature (C++ does not). */
#include "plugin/dispatch.h"

__attribute__((visibility("default"))) QVErr main(const char* caller, const char* selector, void* message) {
  return FontrixPluginMain(caller, selector, message);
}
