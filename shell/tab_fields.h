#pragma once
// The module's data files are lines of tab-separated fields.
#include <string>
#include <vector>

namespace fontrix {

/// The fields of `line` between tabs; an empty field stays (a line ending in a tab has an empty
/// last field), so a count of fields says what the line holds.
inline std::vector<std::string> TabFields(const std::string& line) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1)
    fields.push_back(line.substr(start, tab - start));
  fields.push_back(line.substr(start));
  return fields;
}

}  // namespace fontrix
