#pragma once
// How the tool's commands answer: rows printed in its one convention, fonts resolved among the
// faces the services use, and PNG contact sheets of answers.
#include <string>
#include <utility>
#include <vector>

#include "host/host.h"
#include "host/specimen.h"
#include "host/tool/options.h"
#include "host/tool/rows.h"
#include "sdk/qv_font_suites.h"

namespace fontrix::host {

/// The columns of the commands that answer fonts with scores, and of recognition with its
/// confidences.
constexpr const char* kResultColumns = "%{score}\\t%{name}\\t%{family}\\t%{style}";
constexpr const char* kRecognitionColumns = "%{score}\\t%{confidence}\\t%{name}\\t%{family}\\t%{style}";

/// What the user typed, resolved among the faces the services use (the host's, so that
/// specimen needs nothing of the module); a choice is said on stderr.
const HostFont& ResolveUsedFont(Host& host, const std::string& typed, const std::string& style);

/// Writes rows in the tool's one convention: JSON (`head` opens the object, `key` holds the
/// rows), --format lines, or tab-separated `columns` with a header line on a terminal.
void PrintRows(const Options& options, const std::string& head, const std::string& key,
               const std::vector<OutputRow>& rows, const std::string& columns);

/// Writes a contact sheet: the rows already in `sheet`, then `first` (a label and a font, when it
/// has a font), then a labelled sample of every result font.
void WriteResultSheet(Host& host, const std::string& path, std::vector<Specimen>& sheet,
                      const std::vector<OutputRow>& rows, const std::pair<std::string, QVFontHandle>& first);

}  // namespace fontrix::host
