// The agent port's messages: the JSON value type, one request and one answer per line.
//
// McpJSON is the program's own JSON value (seven cases, keys in byte order); an answer is
// encoded on one line with sorted keys and the shortest doubles, so identical answers are
// identical text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "melvo/platform/json.h"

namespace melvo {

using McpJSON = Json;

struct McpError {
  enum class Code {
    badRequest,
    unknownCommand,
    noDocument,
    notAvailable,
    unsavedChanges,
    notFound,
    openFailed,
    ioError,
    limitExceeded,
    synthesisRefused,
  };
  Code code = Code::badRequest;
  std::string message;
};

std::string_view codeName(McpError::Code code);

struct McpRequest {
  std::optional<std::string> id;
  std::string command;
  std::optional<McpJSON::Object> args;
};

struct McpResponse {
  std::optional<std::string> id;
  bool ok = false;
  std::optional<McpJSON> result;
  std::optional<McpError> error;
  // A result already written as one line of JSON, in place of `result`.
  std::string resultText;

  static McpResponse success(std::optional<std::string> id, McpJSON result);
  static McpResponse successText(std::optional<std::string> id, std::string resultText);
  static McpResponse failure(std::optional<std::string> id, McpError::Code code,
                             std::string message);
};

// Thrown by decodeRequest when the line is not a request; the answer has no id.
struct McpDecodeError {
  std::string message;
};

// A JSON object with a string "command", an optional string "id" and an optional object
// "args". Throws McpDecodeError.
McpRequest decodeRequest(std::string_view line);

// One line, no newline at the end. A double that is not finite has no JSON form and is
// written as null.
std::string encodeLine(const McpJSON& value);
std::string encodeResponse(const McpResponse& response);

}  // namespace melvo
