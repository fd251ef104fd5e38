#include "host/tool/json.h"

#include <cstdio>

namespace fontrix::host {
namespace {

// Length of the valid UTF-8 sequence starting at s[i], or 0 when it is not one.
size_t Utf8Length(const std::string& s, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char lead = byte(i);
  size_t length;
  unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // overlong
    if (lead == 0xED) high = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong
    if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (i + length > s.size()) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (size_t k = 2; k < length; ++k)
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  return length;
}

}  // namespace

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += char(c);
      ++i;
    } else if (c == '\n') {
      out += "\\n";
      ++i;
    } else if (c == '\t') {
      out += "\\t";
      ++i;
    } else if (c < 0x20 || c == 0x7F) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
      ++i;
    } else if (const size_t length = Utf8Length(text, i)) {
      out.append(text, i, length);
      i += length;
    } else {
      out += "\xEF\xBF\xBD";
      ++i;
    }
  }
  return out + "\"";
}

}  // namespace fontrix::host
