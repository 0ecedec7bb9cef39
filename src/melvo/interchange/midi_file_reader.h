// Standard MIDI Files (also inside a RIFF .rmi wrapper) into a song. Files met in practice
// are often damaged, so breakage is a notice and only a file with nothing readable is refused.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "melvo/model/music_document.h"
#include "melvo/model/open_error.h"

namespace melvo {

class MIDIFileParser {
 public:
  enum class Failure { invalidHeader, unsupportedFormat, unexpectedEOF, noNotes };

  class ParseError : public ImportError {
   public:
    explicit ParseError(Failure failure);
    Failure failure() const { return failure_; }

   private:
    Failure failure_;
  };

  // More notes than any importer takes.
  class TooManyNotes : public ImportError {
   public:
    TooManyNotes();
  };

  static constexpr std::size_t kNoteLimit = 200000;

  static MusicDocument parse(const std::filesystem::path& path);
  static MusicDocument parseBytes(std::string_view bytes);
};

}  // namespace melvo
