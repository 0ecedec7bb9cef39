// What the open entry and the readers behind it throw when nothing can be opened.
#pragma once

#include <stdexcept>
#include <string>

namespace melvo {

// Nothing could be opened. what() is in the user's language.
class OpenError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A reader's typed refusal: what() is the translated message, key() the Japanese catalogue key
// it came from, so callers and tests can tell the cases apart without parsing text.
class ImportError : public OpenError {
 public:
  ImportError(const char* key, const std::string& message) : OpenError(message), key_(key) {}
  const char* key() const { return key_; }

 private:
  const char* key_;
};

// A file whose reader Melvo does not have yet. `format()` is the format's short name.
class UnsupportedFormatError : public ImportError {
 public:
  explicit UnsupportedFormatError(std::string format);
  const std::string& format() const { return format_; }

 private:
  std::string format_;
};

}  // namespace melvo
