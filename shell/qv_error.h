#pragma once
// Result codes and the exception that carries one inside the module.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "sdk/qv_types.h"

namespace qv {

/// A four-character code from its characters, first character in the most significant byte.
constexpr QVErr FourCC(const char (&s)[5]) {
  return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) | (uint32_t(uint8_t(s[2])) << 8) |
         uint32_t(uint8_t(s[3]));
}

/// The four characters of a code, or its decimal value when they are not all printable.
std::string CodeText(QVErr code);

/// Thrown when a host call fails; turned back into its code at the message boundary.
class Error : public std::runtime_error {
 public:
  explicit Error(QVErr code) : std::runtime_error("host error " + CodeText(code)), code_(code) {}
  QVErr code() const { return code_; }

 private:
  QVErr code_;
};

/// Throws Error(code) when code is not 0.
inline void Check(QVErr code) {
  if (code != kQVNoErr) throw Error(code);
}

/// Codes never shown to the user by error reporting.
bool IsSilentCode(QVErr code);

}  // namespace qv
