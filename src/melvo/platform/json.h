// JSON: one small value type for settings, preferences and agent messages, a streaming
// writer for large documents, and parsing through simdjson.
//
// Output is either the project layout (two spaces a level, " : " between key and value, "/"
// written "\/") or a single line (same escapes, no blanks). Object keys always come out in
// ascending byte order.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace melvo {

class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class JsonStyle { Pretty, Line };

class Json {
 public:
  using Array = std::vector<Json>;
  using Object = std::map<std::string, Json, std::less<>>;  // byte order of keys
  enum class Type { Null, Bool, Int, Double, String, Array, Object };

  Json() = default;
  Json(std::nullptr_t) {}
  Json(bool b) : v_(b) {}
  Json(int i) : v_(static_cast<std::int64_t>(i)) {}
  Json(long i) : v_(static_cast<std::int64_t>(i)) {}
  Json(long long i) : v_(static_cast<std::int64_t>(i)) {}
  Json(unsigned i) : v_(static_cast<std::int64_t>(i)) {}
  Json(unsigned long i) : v_(static_cast<std::int64_t>(i)) {}
  Json(double d) : v_(d) {}
  Json(const char* s) : v_(std::string(s)) {}
  Json(std::string s) : v_(std::move(s)) {}
  Json(std::string_view s) : v_(std::string(s)) {}
  Json(Array a) : v_(std::move(a)) {}
  Json(Object o) : v_(std::move(o)) {}
  static Json array() { return Json(Array{}); }
  static Json object() { return Json(Object{}); }

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isBool() const { return type() == Type::Bool; }
  bool isInt() const { return type() == Type::Int; }
  bool isNumber() const { return type() == Type::Int || type() == Type::Double; }
  bool isString() const { return type() == Type::String; }
  bool isArray() const { return type() == Type::Array; }
  bool isObject() const { return type() == Type::Object; }

  // Typed access; throws JsonError naming the expected type on a mismatch.
  bool asBool() const;
  std::int64_t asInt() const;  // also an integral double
  double asDouble() const;     // also an integer
  const std::string& asString() const;
  const Array& asArray() const;
  Array& asArray();
  const Object& asObject() const;
  Object& asObject();

  // Object access. find() gives nullptr when absent or when this is not an object.
  const Json* find(std::string_view key) const;
  Json& operator[](std::string_view key);  // makes this an object if null
  void push(Json value);                   // makes this an array if null
  std::size_t size() const;                // of an array or object, else 0

  bool operator==(const Json& other) const = default;

  std::string dump(JsonStyle style = JsonStyle::Line) const;
  // Throws JsonError with the parser's description on malformed text.
  static Json parse(std::string_view text);

 private:
  std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, Array, Object> v_;
};

// Streaming writer for documents too large to build as values. The caller emits object keys
// in ascending byte order (the writer checks that in debug builds).
class JsonWriter {
 public:
  explicit JsonWriter(std::string& out, JsonStyle style = JsonStyle::Pretty);
  void beginObject();
  void endObject();
  void beginArray();
  void endArray();
  void key(std::string_view k);
  void value(std::nullptr_t);
  void value(bool b);
  void value(std::int64_t i);
  void value(int i) { value(static_cast<std::int64_t>(i)); }
  void value(double d);
  void value(std::string_view s);
  void value(const char* s) { value(std::string_view(s)); }
  void value(const std::string& s) { value(std::string_view(s)); }
  void value(const Json& j);

 private:
  void beforeValue();
  void newline();
  std::string& out_;
  JsonStyle style_;
  struct Level {
    bool isObject;
    bool empty;
    std::string lastKey;
  };
  std::vector<Level> stack_;
  bool afterKey_ = false;
};

// Appends `s` as a JSON string literal (quotes included).
void appendJsonString(std::string& out, std::string_view s);
// Integral values within 2^53 print without a fraction ("120"), others in the shortest form
// that reads back to the same double. NaN and infinities have no JSON form: they throw.
void appendJsonNumber(std::string& out, double d);

}  // namespace melvo
