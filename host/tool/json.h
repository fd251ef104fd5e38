#pragma once
// The little JSON the command-line tool writes.
#include <string>

namespace fontrix::host {

/// `text` as a JSON string literal, quotes included. Control characters are escaped; bytes
/// that are not valid UTF-8 become U+FFFD, so the output is always valid JSON.
std::string JsonString(const std::string& text);

}  // namespace fontrix::host
