#include "classification/json/json_value.h"

#include <rapidjson/error/en.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/reader.h>
#include <rapidjson/writer.h>

#include <utility>

namespace corvid::serialize {

namespace {

class ExceededDepthLimit : public Exception {
 public:
  ExceededDepthLimit() : Exception("The number of nested objects has exceeded the limit.") {}
};

class ExceededListLimit : public Exception {
 public:
  ExceededListLimit() : Exception("The number of objects in the array has exceeded the limit.") {}
};

// Builds the tree from the parser's events on a stack of open containers. The container being
// opened counts toward the depth: a limit of 500 lets exactly 500 levels through.
struct TreeBuilder {
  uint32_t depthLimit, listLimit;
  std::vector<JsonValue> stack;   // open containers
  std::vector<std::string> keys;  // pending member name per open object
  JsonValue root;
  bool done = false;

  bool Add(JsonValue v) {
    if (stack.empty()) {
      root = std::move(v);
      done = true;
      return true;
    }
    JsonValue& top = stack.back();
    if (top.type() == JsonValue::kArray) {
      auto& a = top.AsArray();
      a.push_back(std::move(v));
      if (listLimit != 0 && a.size() > listLimit) throw ExceededListLimit();
    } else {
      top.AsObject()[keys.back()] = std::move(v);
    }
    return true;
  }
  bool Open(JsonValue container) {
    if (depthLimit != 0 && stack.size() + 1 > depthLimit) throw ExceededDepthLimit();
    stack.push_back(std::move(container));
    keys.emplace_back();
    return true;
  }
  bool Close() {
    JsonValue v = std::move(stack.back());
    stack.pop_back();
    keys.pop_back();
    return Add(std::move(v));
  }

  bool Null() { return Add(JsonValue()); }
  bool Bool(bool b) { return Add(JsonValue(b)); }
  bool Int(int i) { return Add(JsonValue(int64_t(i))); }
  bool Uint(unsigned u) { return Add(JsonValue(int64_t(u))); }
  bool Int64(int64_t i) { return Add(JsonValue(i)); }
  bool Uint64(uint64_t u) { return Add(JsonValue(double(u))); }
  bool Double(double d) { return Add(JsonValue(d)); }
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return false; }
  bool String(const char* s, rapidjson::SizeType n, bool) { return Add(JsonValue(std::string(s, n))); }
  bool StartObject() { return Open(JsonValue::MakeObject()); }
  bool Key(const char* s, rapidjson::SizeType n, bool) {
    keys.back().assign(s, n);
    return true;
  }
  bool EndObject(rapidjson::SizeType) { return Close(); }
  bool StartArray() { return Open(JsonValue::MakeArray()); }
  bool EndArray(rapidjson::SizeType) { return Close(); }
};

template <typename Writer>
void WriteValue(const JsonValue& v, Writer& w) {
  switch (v.type()) {
    case JsonValue::kObject:
      w.StartObject();
      for (const auto& [name, member] : v.AsObject()) {
        w.Key(name.c_str(), rapidjson::SizeType(name.size()));
        WriteValue(member, w);
      }
      w.EndObject();
      break;
    case JsonValue::kArray:
      w.StartArray();
      for (const auto& e : v.AsArray()) WriteValue(e, w);
      w.EndArray();
      break;
    case JsonValue::kString:
      w.String(v.AsString().c_str(), rapidjson::SizeType(v.AsString().size()));
      break;
    case JsonValue::kNumber:
      w.Double(v.AsNumber());
      break;
    case JsonValue::kInteger:
      w.Int64(v.AsInteger());
      break;
    case JsonValue::kBoolean:
      w.Bool(v.AsBoolean());
      break;
    case JsonValue::kNull:
      w.Null();
      break;
  }
}

}  // namespace

JsonValue JsonValue::MakeObject() {
  JsonValue v;
  v.type_ = kObject;
  v.payload_.object = new Object();
  return v;
}

JsonValue JsonValue::MakeArray() {
  JsonValue v;
  v.type_ = kArray;
  v.payload_.array = new Array();
  return v;
}

JsonValue::JsonValue(std::string s) : type_(kString) { payload_.string = new std::string(std::move(s)); }
JsonValue::JsonValue(double d) : type_(kNumber) { payload_.number = d; }
JsonValue::JsonValue(int64_t i) : type_(kInteger) { payload_.integer = i; }
JsonValue::JsonValue(bool b) : type_(kBoolean) { payload_.boolean = b; }

JsonValue::JsonValue(const JsonValue& other) : type_(other.type_), payload_(other.payload_) {
  switch (type_) {
    case kObject:
      payload_.object = other.payload_.object ? new Object(*other.payload_.object) : nullptr;
      break;
    case kArray:
      payload_.array = other.payload_.array ? new Array(*other.payload_.array) : nullptr;
      break;
    case kString:
      payload_.string = other.payload_.string ? new std::string(*other.payload_.string) : nullptr;
      break;
    default:
      break;
  }
}

JsonValue::JsonValue(JsonValue&& other) noexcept : type_(other.type_), payload_(other.payload_) {
  other.type_ = kNull;
  other.payload_ = {};
}

JsonValue& JsonValue::operator=(JsonValue other) noexcept {
  std::swap(type_, other.type_);
  std::swap(payload_, other.payload_);
  return *this;
}

JsonValue::~JsonValue() { Release(); }

void JsonValue::Release() noexcept {
  switch (type_) {
    case kObject:
      delete payload_.object;
      break;
    case kArray:
      delete payload_.array;
      break;
    case kString:
      delete payload_.string;
      break;
    default:
      break;
  }
  type_ = kNull;
  payload_ = {};
}

JsonValue::Object& JsonValue::AsObject() {
  if (type_ != kObject || !payload_.object) throw MismatchedType();
  return *payload_.object;
}
const JsonValue::Object& JsonValue::AsObject() const {
  if (type_ != kObject || !payload_.object) throw MismatchedType();
  return *payload_.object;
}
JsonValue::Array& JsonValue::AsArray() {
  if (type_ != kArray || !payload_.array) throw MismatchedType();
  return *payload_.array;
}
const JsonValue::Array& JsonValue::AsArray() const {
  if (type_ != kArray || !payload_.array) throw MismatchedType();
  return *payload_.array;
}
const std::string& JsonValue::AsString() const {
  if (type_ != kString || !payload_.string) throw MismatchedType();
  return *payload_.string;
}
double JsonValue::AsNumber() const {
  if (type_ != kNumber) throw MismatchedType();
  return payload_.number;
}
int64_t JsonValue::AsInteger() const {
  if (type_ != kInteger) throw MismatchedType();
  return payload_.integer;
}
bool JsonValue::AsBoolean() const {
  if (type_ != kBoolean) throw MismatchedType();
  return payload_.boolean;
}

JsonValue& JsonValue::operator[](const std::string& name) { return AsObject()[name]; }

JsonValue& JsonValue::operator[](int32_t index) {
  Array& a = AsArray();
  if (index < 0 || size_t(index) >= a.size()) throw std::out_of_range("Index into JsonValue array is out of bounds");
  return a[size_t(index)];
}

const JsonValue& JsonValue::operator[](int32_t index) const {
  const Array& a = AsArray();
  if (index < 0 || size_t(index) >= a.size()) throw std::out_of_range("Index into JsonValue array is out of bounds");
  return a[size_t(index)];
}

bool JsonValue::operator==(const JsonValue& other) const {
  if (type_ != other.type_) return false;
  switch (type_) {
    case kObject:
      return AsObject() == other.AsObject();
    case kArray:
      return AsArray() == other.AsArray();
    case kString:
      return AsString() == other.AsString();
    case kNumber:
      return payload_.number == other.payload_.number;
    case kInteger:
      return payload_.integer == other.payload_.integer;
    case kBoolean:
      return payload_.boolean == other.payload_.boolean;
    case kNull:
      return true;
  }
  return false;
}

bool Parse(std::istream& in, JsonValue& document, ParseError& error, uint32_t depthLimit, uint32_t listLimit) {
  rapidjson::IStreamWrapper stream(in);
  rapidjson::Reader reader;
  TreeBuilder builder{depthLimit, listLimit, {}, {}, JsonValue(), false};
  try {
    // Iterative parsing: nesting deeper than the limit fails cleanly instead of exhausting the stack.
    const rapidjson::ParseResult result = reader.Parse<rapidjson::kParseIterativeFlag>(stream, builder);
    if (!result) {
      error = {result.Offset(), 0, rapidjson::GetParseError_En(result.Code())};
      return false;
    }
  } catch (const Exception& e) {
    error = {stream.Tell(), 0, e.what()};
    return false;
  }
  document = std::move(builder.root);
  return true;
}

void Write(const JsonValue& value, std::ostream& out) {
  rapidjson::OStreamWrapper stream(out);
  rapidjson::Writer<rapidjson::OStreamWrapper> writer(stream);
  WriteValue(value, writer);
}

}  // namespace corvid::serialize
