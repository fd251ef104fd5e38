#include "shell/qv_error.h"

#include <cctype>

namespace qv {

namespace {

// Ends with a zero entry; looked up by a linear scan.
const QVErr kSilentCodes[] = {
    FourCC("FMT?"),
    FourCC("RFSE"),
    FourCC("AFTR"),
    FourCC("VALD"),
    FourCC("MOOT"),
    FourCC("TRSH"),
    FourCC("CHEK"),
    FourCC("CHIT"),
    FourCC("TLTK"),
    FourCC("pFls"),
    FourCC("S!Fd"),
    FourCC("!Acq"),
    FourCC("Bchn"),
    FourCC("dsRP"),
    FourCC("skpE"),
    FourCC("DONE"),
    FourCC("ASTR"),
    FourCC("STOP"),
    FourCC("CLP?"),
    361,
    0,
};

}  // namespace

bool IsSilentCode(QVErr code) {
  for (const QVErr* c = kSilentCodes; *c != 0; ++c)
    if (*c == code) return true;
  return false;
}

std::string CodeText(QVErr code) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const unsigned char c = static_cast<unsigned char>(code >> shift);
    if (!std::isprint(c)) return std::to_string(code);
    s += static_cast<char>(c);
  }
  return s;
}

}  // namespace qv
