// The refusals of the MusicXML route, each with its own message.
#pragma once

#include <optional>
#include <string>

#include "melvo/importers/open_error.h"

namespace melvo {

class MusicXMLParseError : public ImportError {
 public:
  enum class Kind { notXML, mxlUnzipFailed, mxlNoScore, tooManyMeasures };

  static MusicXMLParseError notXML();
  static MusicXMLParseError mxlUnzipFailed();
  static MusicXMLParseError mxlNoScore();
  static MusicXMLParseError tooManyMeasures(int limit);

  Kind kind() const { return kind_; }
  std::optional<int> limit() const { return limit_; }

 private:
  MusicXMLParseError(Kind kind, const char* key, const std::string& message)
      : ImportError(key, message), kind_(kind) {}
  Kind kind_;
  std::optional<int> limit_;
};

}  // namespace melvo
