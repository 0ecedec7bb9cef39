#include "melvo/agent/mcp_json.h"

#include <cmath>

#include "melvo/platform/i18n.h"

namespace melvo {

std::string_view codeName(McpError::Code code) {
  switch (code) {
    case McpError::Code::badRequest:
      return "badRequest";
    case McpError::Code::unknownCommand:
      return "unknownCommand";
    case McpError::Code::noDocument:
      return "noDocument";
    case McpError::Code::notAvailable:
      return "notAvailable";
    case McpError::Code::unsavedChanges:
      return "unsavedChanges";
    case McpError::Code::notFound:
      return "notFound";
    case McpError::Code::openFailed:
      return "openFailed";
    case McpError::Code::ioError:
      return "ioError";
    case McpError::Code::limitExceeded:
      return "limitExceeded";
    case McpError::Code::synthesisRefused:
      return "synthesisRefused";
  }
  return "badRequest";
}

McpResponse McpResponse::success(std::optional<std::string> id, McpJSON result) {
  McpResponse r;
  r.id = std::move(id);
  r.ok = true;
  r.result = std::move(result);
  return r;
}

McpResponse McpResponse::successText(std::optional<std::string> id, std::string resultText) {
  McpResponse r;
  r.id = std::move(id);
  r.ok = true;
  r.resultText = std::move(resultText);
  return r;
}

McpResponse McpResponse::failure(std::optional<std::string> id, McpError::Code code,
                                 std::string message) {
  McpResponse r;
  r.id = std::move(id);
  r.error = McpError{code, std::move(message)};
  return r;
}

McpRequest decodeRequest(std::string_view line) {
  McpJSON json;
  try {
    json = McpJSON::parse(line);
  } catch (const JsonError&) {
    throw McpDecodeError{tr("JSON として読めません")};
  }
  if (!json.isObject()) throw McpDecodeError{tr("JSON として読めません")};
  McpJSON::Object& top = json.asObject();
  McpRequest request;
  auto id = top.find("id");
  if (id != top.end()) {
    if (!id->second.isString()) throw McpDecodeError{tr("id は文字列で渡してください")};
    request.id = id->second.asString();
  }
  auto command = top.find("command");
  if (command == top.end() || !command->second.isString()) {
    throw McpDecodeError{tr("command に命令の名を文字列で渡してください")};
  }
  request.command = command->second.asString();
  auto args = top.find("args");
  if (args != top.end()) {
    if (args->second.isObject()) {
      // Taken out of the parsed request, not copied: the arguments of a batch can be large.
      request.args = std::move(args->second.asObject());
    } else if (!args->second.isNull()) {
      throw McpDecodeError{tr("args は JSON のオブジェクトで渡してください")};
    }
  }
  return request;
}

namespace {

bool hasNonFinite(const McpJSON& v) {
  switch (v.type()) {
    case McpJSON::Type::Double:
      return !std::isfinite(v.asDouble());
    case McpJSON::Type::Array:
      for (const auto& e : v.asArray())
        if (hasNonFinite(e)) return true;
      return false;
    case McpJSON::Type::Object:
      for (const auto& [k, e] : v.asObject())
        if (hasNonFinite(e)) return true;
      return false;
    default:
      return false;
  }
}

McpJSON withoutNonFinite(const McpJSON& v) {
  switch (v.type()) {
    case McpJSON::Type::Double:
      return std::isfinite(v.asDouble()) ? v : McpJSON();
    case McpJSON::Type::Array: {
      McpJSON::Array a;
      a.reserve(v.size());
      for (const auto& e : v.asArray()) a.push_back(withoutNonFinite(e));
      return McpJSON(std::move(a));
    }
    case McpJSON::Type::Object: {
      McpJSON::Object o;
      for (const auto& [k, e] : v.asObject()) o.emplace(k, withoutNonFinite(e));
      return McpJSON(std::move(o));
    }
    default:
      return v;
  }
}

}  // namespace

std::string encodeLine(const McpJSON& value) {
  // The common answer has no such number: check before paying for a copy.
  if (hasNonFinite(value)) return withoutNonFinite(value).dump(JsonStyle::Line);
  return value.dump(JsonStyle::Line);
}

std::string encodeResponse(const McpResponse& response) {
  std::string out;
  out.reserve(512);  // most answers fit: no growing copy after copy
  if (!response.resultText.empty()) {
    // The keys in their sorted order, as the writer below puts them; a success has no error.
    out += '{';
    if (response.id) {
      out += "\"id\":";
      appendJsonString(out, *response.id);
      out += ',';
    }
    out += "\"ok\":true,\"result\":";
    out += response.resultText;
    out += '}';
    return out;
  }
  JsonWriter w(out, JsonStyle::Line);
  w.beginObject();
  if (response.error) {
    w.key("error");
    w.beginObject();
    w.key("code");
    w.value(codeName(response.error->code));
    w.key("message");
    w.value(response.error->message);
    w.endObject();
  }
  if (response.id) {
    w.key("id");
    w.value(*response.id);
  }
  w.key("ok");
  w.value(response.ok);
  if (response.result) {
    w.key("result");
    if (hasNonFinite(*response.result)) {
      w.value(withoutNonFinite(*response.result));
    } else {
      w.value(*response.result);
    }
  }
  w.endObject();
  return out;
}

}  // namespace melvo
