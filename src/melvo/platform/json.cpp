#include "melvo/platform/json.h"

#include <simdjson.h>

#include <cassert>
#include <charconv>
#include <cmath>

namespace melvo {

// ---- Json values ----

namespace {

[[noreturn]] void typeError(const char* expected) {
  throw JsonError(std::string("JSON value is not ") + expected);
}

}  // namespace

bool Json::asBool() const {
  if (auto* b = std::get_if<bool>(&v_)) return *b;
  typeError("a Boolean");
}

std::int64_t Json::asInt() const {
  if (auto* i = std::get_if<std::int64_t>(&v_)) return *i;
  if (auto* d = std::get_if<double>(&v_)) {
    if (std::isfinite(*d) && std::floor(*d) == *d && std::fabs(*d) < 9.2e18) {
      return static_cast<std::int64_t>(*d);
    }
  }
  typeError("an integer");
}

double Json::asDouble() const {
  if (auto* d = std::get_if<double>(&v_)) return *d;
  if (auto* i = std::get_if<std::int64_t>(&v_)) return static_cast<double>(*i);
  typeError("a number");
}

const std::string& Json::asString() const {
  if (auto* s = std::get_if<std::string>(&v_)) return *s;
  typeError("a string");
}

const Json::Array& Json::asArray() const {
  if (auto* a = std::get_if<Array>(&v_)) return *a;
  typeError("an array");
}

Json::Array& Json::asArray() {
  if (auto* a = std::get_if<Array>(&v_)) return *a;
  typeError("an array");
}

const Json::Object& Json::asObject() const {
  if (auto* o = std::get_if<Object>(&v_)) return *o;
  typeError("an object");
}

Json::Object& Json::asObject() {
  if (auto* o = std::get_if<Object>(&v_)) return *o;
  typeError("an object");
}

const Json* Json::find(std::string_view key) const {
  auto* o = std::get_if<Object>(&v_);
  if (!o) return nullptr;
  auto it = o->find(key);
  return it == o->end() ? nullptr : &it->second;
}

Json& Json::operator[](std::string_view key) {
  if (isNull()) v_ = Object{};
  Object& o = asObject();
  auto it = o.find(key);
  if (it == o.end()) it = o.emplace(std::string(key), Json()).first;
  return it->second;
}

void Json::push(Json value) {
  if (isNull()) v_ = Array{};
  asArray().push_back(std::move(value));
}

std::size_t Json::size() const {
  if (auto* a = std::get_if<Array>(&v_)) return a->size();
  if (auto* o = std::get_if<Object>(&v_)) return o->size();
  return 0;
}

std::string Json::dump(JsonStyle style) const {
  std::string out;
  JsonWriter w(out, style);
  w.value(*this);
  return out;
}

namespace {

Json fromElement(simdjson::dom::element e) {
  using simdjson::dom::element_type;
  switch (e.type()) {
    case element_type::ARRAY: {
      Json::Array a;
      simdjson::dom::array array = e.get_array().value_unsafe();
      for (auto child : array) a.push_back(fromElement(child));
      return Json(std::move(a));
    }
    case element_type::OBJECT: {
      Json::Object o;
      simdjson::dom::object object = e.get_object().value_unsafe();
      for (auto field : object) {
        o.insert_or_assign(std::string(field.key), fromElement(field.value));
      }
      return Json(std::move(o));
    }
    case element_type::INT64:
      return Json(static_cast<long long>(e.get_int64().value_unsafe()));
    case element_type::UINT64:
      return Json(static_cast<double>(e.get_uint64().value_unsafe()));
    case element_type::DOUBLE:
      return Json(e.get_double().value_unsafe());
    case element_type::STRING:
      return Json(std::string_view(e.get_string().value_unsafe()));
    case element_type::BOOL:
      return Json(e.get_bool().value_unsafe());
    case element_type::NULL_VALUE:
      return Json();
  }
  return Json();
}

}  // namespace

Json Json::parse(std::string_view text) {
  // A parser's buffers cost more than parsing a short text (an agent's request): short texts
  // share one parser per thread, which keeps its padded copy of the text too, and its buffers
  // stay small. Long ones get their own.
  constexpr std::size_t kShared = 65536;
  thread_local simdjson::dom::parser shared;
  simdjson::dom::parser own;
  simdjson::dom::parser& parser = text.size() <= kShared ? shared : own;
  simdjson::dom::element root;
  const auto error = parser.parse(text.data(), text.size()).get(root);
  if (error) throw JsonError(simdjson::error_message(error));
  return fromElement(root);
}

// ---- Writing ----

void appendJsonString(std::string& out, std::string_view s) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  std::size_t run = 0;  // start of the pending stretch that needs no escape
  for (std::size_t i = 0; i < s.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c >= 0x20 && c != '"' && c != '\\' && c != '/') continue;
    out.append(s.data() + run, i - run);
    run = i + 1;
    switch (c) {
      case '"':
        out.append("\\\"");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '/':
        out.append("\\/");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      case '\b':
        out.append("\\b");
        break;
      case '\f':
        out.append("\\f");
        break;
      default:
        out.append("\\u00");
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 15]);
    }
  }
  out.append(s.data() + run, s.size() - run);
  out.push_back('"');
}

void appendJsonNumber(std::string& out, double d) {
  if (!std::isfinite(d)) throw JsonError("a number that is not finite has no JSON form");
  char buf[32];
  std::to_chars_result r;
  if (std::floor(d) == d && std::fabs(d) < 9007199254740992.0) {
    r = std::to_chars(buf, buf + sizeof buf, static_cast<long long>(d));
  } else if (std::fabs(d) >= 1e16) {
    // Written as digits, such a number would read back as an integer too large for readers.
    r = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::scientific);
  } else {
    r = std::to_chars(buf, buf + sizeof buf, d);
  }
  out.append(buf, r.ptr);
}

JsonWriter::JsonWriter(std::string& out, JsonStyle style) : out_(out), style_(style) {}

void JsonWriter::newline() {
  out_.push_back('\n');
  out_.append(stack_.size() * 2, ' ');
}

void JsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (stack_.empty()) return;
  Level& top = stack_.back();
  assert(!top.isObject && "object member written without a key");
  if (!top.empty) out_.push_back(',');
  top.empty = false;
  if (style_ == JsonStyle::Pretty) newline();
}

void JsonWriter::key(std::string_view k) {
  assert(!stack_.empty() && stack_.back().isObject);
  Level& top = stack_.back();
  assert((top.empty || top.lastKey < k) && "keys must be written in ascending byte order");
#ifndef NDEBUG
  top.lastKey.assign(k);
#endif
  if (!top.empty) out_.push_back(',');
  top.empty = false;
  if (style_ == JsonStyle::Pretty) newline();
  appendJsonString(out_, k);
  out_.append(style_ == JsonStyle::Pretty ? " : " : ":");
  afterKey_ = true;
}

void JsonWriter::beginObject() {
  beforeValue();
  out_.push_back('{');
  stack_.push_back({true, true, {}});
}

void JsonWriter::endObject() {
  bool empty = stack_.back().empty;
  stack_.pop_back();
  if (!empty && style_ == JsonStyle::Pretty) newline();
  out_.push_back('}');
}

void JsonWriter::beginArray() {
  beforeValue();
  out_.push_back('[');
  stack_.push_back({false, true, {}});
}

void JsonWriter::endArray() {
  bool empty = stack_.back().empty;
  stack_.pop_back();
  if (!empty && style_ == JsonStyle::Pretty) newline();
  out_.push_back(']');
}

void JsonWriter::value(std::nullptr_t) {
  beforeValue();
  out_.append("null");
}

void JsonWriter::value(bool b) {
  beforeValue();
  out_.append(b ? "true" : "false");
}

void JsonWriter::value(std::int64_t i) {
  beforeValue();
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, i);
  out_.append(buf, r.ptr);
}

void JsonWriter::value(double d) {
  beforeValue();
  appendJsonNumber(out_, d);
}

void JsonWriter::value(std::string_view s) {
  beforeValue();
  appendJsonString(out_, s);
}

void JsonWriter::value(const Json& j) {
  switch (j.type()) {
    case Json::Type::Null:
      value(nullptr);
      break;
    case Json::Type::Bool:
      value(j.asBool());
      break;
    case Json::Type::Int:
      value(j.asInt());
      break;
    case Json::Type::Double:
      value(j.asDouble());
      break;
    case Json::Type::String:
      value(std::string_view(j.asString()));
      break;
    case Json::Type::Array:
      beginArray();
      for (const auto& e : j.asArray()) value(e);
      endArray();
      break;
    case Json::Type::Object:
      beginObject();
      for (const auto& [k, v] : j.asObject()) {
        key(k);
        value(v);
      }
      endObject();
      break;
  }
}

}  // namespace melvo
