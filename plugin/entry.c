/* The module's one export. The host's plug-in interface names its entry point `main`. The
 * function has another name in C and takes the symbol name `main` from an assembler label:
 * compilers hold a function called main to the signature of a program's main (clang refuses
 * this one), but the linker only sees the symbol. */
#include "plugin/dispatch.h"

__attribute__((visibility("default"))) QVErr FontrixEntryPoint(const char* caller, const char* selector,
                                                               void* message) __asm__("main");

QVErr FontrixEntryPoint(const char* caller, const char* selector, void* message) {
  return FontrixPluginMain(caller, selector, message);
}
