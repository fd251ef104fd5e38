#include "classification/feature_cache_file.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "classification/json/json_value.h"

namespace fontrix {

using corvid::serialize::JsonValue;

void LoadFeatureCache(const std::string& path, std::vector<FeatureRecord>& records) {
  std::ifstream in(path, std::ios::binary);
  if (in) ReadFeatureCache(in, records);
}

void ReadFeatureCache(std::istream& in, std::vector<FeatureRecord>& records) {
  JsonValue root;
  corvid::serialize::ParseError error;
  if (!corvid::serialize::Parse(in, root, error, 500, 0)) return;
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
    // A bitmask is a whole number of 32 bits; converting anything else would be undefined.
    if (!(number > -1.0 && number < 4294967296.0))
      throw FeatureCacheParameterError("a feature cache entry's featureValue is not a class bitmask");
    records.push_back({name.AsString(), uint32_t(number)});
  }
}

void SaveFeatureCache(const std::string& path, const std::vector<FeatureRecord>& records) {
  JsonValue root = JsonValue::MakeArray();
  for (const FeatureRecord& r : records) {
    JsonValue entry = JsonValue::MakeObject();
    entry["name"] = JsonValue(r.name);
    entry["featureValue"] = JsonValue(double(r.value));
    root.AsArray().push_back(std::move(entry));
  }
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + temporary);
    corvid::serialize::Write(root, out);
    out.flush();
    if (!out) throw std::runtime_error("cannot write " + temporary);
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    throw std::runtime_error("cannot replace " + path);
  }
}

}  // namespace fontrix
