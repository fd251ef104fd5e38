#include "classification/feature_cache_file.h"

#include <cmath>
#include <set>
#include <sstream>

#include "classification/json/json_value.h"
#include "shell/file_bytes.h"

namespace fontrix {

using corvid::serialize::JsonValue;

bool LoadFeatureCache(const std::string& path, std::vector<FeatureRecord>& records) {
  std::string bytes, why;
  switch (ReadFileBytes(path, bytes, why)) {
    case FileState::kMissing:
      return true;
    case FileState::kUnreadable:
      throw FeatureCacheParameterError(why);
    case FileState::kRead:
      break;
  }
  std::istringstream in(bytes);
  return ReadFeatureCache(in, records);
}

bool ReadFeatureCache(std::istream& in, std::vector<FeatureRecord>& records) {
  JsonValue root;
  corvid::serialize::ParseError error;
  if (!corvid::serialize::Parse(in, root, error, 500, 0)) return false;
  std::set<std::string> names;
  if (root.type() != JsonValue::kArray) throw FeatureCacheParameterError("the feature cache is not an array");
  for (JsonValue& element : root.AsArray()) {
    if (element.type() != JsonValue::kObject)
      throw FeatureCacheParameterError("a feature cache entry is not an object");
    const JsonValue& name = element["name"];
    const JsonValue& value = element["featureValue"];
    if (name.type() != JsonValue::kString) throw FeatureCacheParameterError("a feature cache entry has no name");
    double number = 0;
    if (value.type() == JsonValue::kNumber)
      number = value.AsNumber();
    else if (value.type() == JsonValue::kInteger)
      number = double(value.AsInteger());
    else
      throw FeatureCacheParameterError("a feature cache entry has no featureValue");
    // A bitmask of the style classes: a whole number below 2^8. Anything else was written by
    // no version of the module and would give the font classes it does not have.
    if (!(number >= 0.0 && number <= double(kAllClassBits) && number == std::floor(number)))
      throw FeatureCacheParameterError("the featureValue of " + name.AsString() + " is not a class bitmask");
    if (!names.insert(name.AsString()).second)
      throw FeatureCacheParameterError(name.AsString() + " is in the feature cache twice");
    records.push_back({name.AsString(), uint32_t(number)});
  }
  return true;
}

void SaveFeatureCache(const std::string& path, const std::vector<FeatureRecord>& records) {
  JsonValue root = JsonValue::MakeArray();
  for (const FeatureRecord& r : records) {
    JsonValue entry = JsonValue::MakeObject();
    entry["name"] = JsonValue(r.name);
    entry["featureValue"] = JsonValue(double(r.value));
    root.AsArray().push_back(std::move(entry));
  }
  std::ostringstream out;
  corvid::serialize::Write(root, out);
  ReplaceFile(path, out.str());
}

}  // namespace fontrix
