#pragma once
// The tool's commands, a file each (NAME_command.cpp). Each answers on standard output, says on
// standard error what the user should know, and throws Failure (host/tool/queries.h) when it
// cannot answer.
#include "host/host.h"
#include "host/tool/options.h"
#include "sdk/fontrix_suites.h"

namespace fontrix::host {

/// fonts: the fonts the module uses (or, with --all, every face the host lists, with why one is
/// left out), by family, kept by PATTERN and --class.
void Fonts(Host& host, const Options& options);
/// classes: the style classes as the module's feature suite answers them.
void Classes(Host& host, const Options& options);
/// similar: the module's similar-font suite, asked as another plug-in asks it.
void Similar(Host& host, const Options& options);
/// substitute: for each CSS font-family list, kept or the installed face to use instead, and why;
/// 1 when a list's first family is unknown, else 0.
int SubstituteFamilies(Host& host, const Options& options);
/// recognize: the module's recognition suite asked about a picture.
void Recognize(Host& host, const Options& options);
/// index: what the module's background work did, per service, after `seconds`.
void Index(const FontrixProgressSuite& progress, const Options& options, double seconds);
/// specimen: text drawn through the engine procedures the module uses, into a PNG.
void DrawSpecimenFile(Host& host, const Options& options);

}  // namespace fontrix::host
