#pragma once
// The module's own string list resources.
#include <cstdint>
#include <string>
#include <vector>

namespace fontrix {

/// Error messages: key then message, pair after pair; the last string is the default message,
/// a format with one string argument (the code).
constexpr int32_t kErrorStringList = 16050;
/// About box: string 1 the title, string 2 the text.
constexpr int32_t kAboutStringList = 16600;

/// The strings of list `id` (empty when the module has no such list).
const std::vector<std::string>& StringList(int32_t id);
/// String `index` (1-based) of list `id`, or "" when absent.
std::string GetString(int32_t id, int32_t index);

}  // namespace fontrix
