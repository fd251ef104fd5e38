#pragma once
// A small owning tree of JSON values over RapidJSON: typed accessors that fail loudly, bounded
// parsing (nesting and array-length limits) and equality. The feature cache file is read and
// written through it. Its namespace, corvid::serialize, and its error texts are those the module
// is defined with (the utility library of the host's maker), not ours to rename.
#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvid {

/// Base of the utility library's exceptions.
class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace serialize {

class MismatchedType : public Exception {
 public:
  MismatchedType()
      : Exception(
            "Require failure: The invoked JsonValue method assumes a value type does not match the object's actual "
            "type") {}
};

/// Where and why a parse failed.
struct ParseError {
  size_t position = 0;
  int code = 0;
  std::string message;
};

class JsonValue {
 public:
  enum Type : int32_t { kObject = 0, kArray = 1, kString = 2, kNumber = 3, kInteger = 4, kBoolean = 5, kNull = 6 };
  using Object = std::map<std::string, JsonValue>;
  using Array = std::vector<JsonValue>;

  JsonValue() = default;  ///< null
  static JsonValue MakeObject();
  static JsonValue MakeArray();
  JsonValue(std::string s);
  JsonValue(const char* s) : JsonValue(std::string(s)) {}
  JsonValue(double d);
  JsonValue(int64_t i);
  JsonValue(bool b);
  JsonValue(const JsonValue& other);
  JsonValue(JsonValue&& other) noexcept;
  JsonValue& operator=(JsonValue other) noexcept;
  ~JsonValue();

  Type type() const { return type_; }
  Object& AsObject();
  const Object& AsObject() const;
  Array& AsArray();
  const Array& AsArray() const;
  const std::string& AsString() const;
  double AsNumber() const;
  int64_t AsInteger() const;
  bool AsBoolean() const;

  /// The member `name`; a missing one is inserted as null (map index semantics).
  JsonValue& operator[](const std::string& name);
  /// Element `index`; out of range raises std::out_of_range.
  JsonValue& operator[](int32_t index);
  const JsonValue& operator[](int32_t index) const;

  bool operator==(const JsonValue& other) const;
  bool operator!=(const JsonValue& other) const { return !(*this == other); }

 private:
  void Release() noexcept;
  Type type_ = kNull;
  union {
    Object* object;
    Array* array;
    std::string* string;
    double number;
    int64_t integer;
    bool boolean;
  } payload_{};
};

/// Reads one JSON text from `in` into `document`; false with `error` filled on a syntax error or
/// when nesting passes `depthLimit` or an array passes `listLimit` elements (0: no limit).
bool Parse(std::istream& in, JsonValue& document, ParseError& error, uint32_t depthLimit, uint32_t listLimit);
/// Writes `value` as JSON text.
void Write(const JsonValue& value, std::ostream& out);

}  // namespace serialize
}  // namespace corvid
