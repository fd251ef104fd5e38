#include "plugin/string_lists.h"

namespace fontrix {

const std::vector<std::string>& StringList(int32_t id) {
  static const std::vector<std::string> errors = {
      "!MEM",
      "Fontrix ran out of memory. Close some documents and try again.",
      "CANT",
      "Fontrix could not complete the operation.",
      "UNEX",
      "Fontrix met an unexpected problem and stopped the operation.",
      "UIN?",
      "The Fontrix font services are still starting. Try again in a moment.",
      "1",
      "Fontrix could not connect to the application's font engine; its font services are off.",
      "Fontrix could not complete the operation because of an error (%s).",
  };
  static const std::vector<std::string> about = {
      "Fontrix",
      "Fontrix 0.1.0: font classification, similar fonts and font recognition for the fonts on this computer.",
  };
  static const std::vector<std::string> none;
  switch (id) {
    case kErrorStringList:
      return errors;
    case kAboutStringList:
      return about;
    default:
      return none;
  }
}

std::string GetString(int32_t id, int32_t index) {
  const auto& list = StringList(id);
  return index >= 1 && size_t(index) <= list.size() ? list[size_t(index) - 1] : std::string();
}

}  // namespace fontrix
