// The refusals of the MusicXML route, each with its own message.
#pragma once

#include <optional>
#include <string>

#include "melvo/model/open_error.h"

namespace melvo {

class MusicXMLParseError : public ImportError {
 public:
  enum class Kind {
    notXML,
    mxlUnzipFailed,
    mxlNoScore,
    tooManyMeasures,
    durationOutOfRange,
    durationUnreadable,
    divisionsUnreadable,
    brokenXML,
    noNotes,
  };

  static MusicXMLParseError notXML();
  static MusicXMLParseError mxlUnzipFailed();
  static MusicXMLParseError mxlNoScore();
  static MusicXMLParseError tooManyMeasures(int limit);
  // `text` is the element's text as written, `measure` the measure's number as the file shows it.
  static MusicXMLParseError durationOutOfRange(const std::string& text, const std::string& measure);
  static MusicXMLParseError durationUnreadable(const std::string& text, const std::string& measure);
  static MusicXMLParseError divisionsUnreadable(const std::string& text,
                                                const std::string& measure);
  // The streaming parser gave up at this line.
  static MusicXMLParseError brokenXML(long line);
  static MusicXMLParseError noNotes();

  Kind kind() const { return kind_; }
  std::optional<int> limit() const { return limit_; }
  std::optional<long> line() const { return line_; }

 private:
  MusicXMLParseError(Kind kind, const char* key, const std::string& message)
      : ImportError(key, message), kind_(kind) {}
  Kind kind_;
  std::optional<int> limit_;
  std::optional<long> line_;
};

}  // namespace melvo
