// The reader of UTAU projects (.ust): an INI-like text, one section per note, written by
// hand-edited tools in many encodings. It is forgiving: whatever can be read becomes the song,
// and what could not is told in notices.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "melvo/model/music_document.h"
#include "melvo/model/open_error.h"

namespace melvo {

class USTParser {
 public:
  // Only text that no encoding reads and a file without notes are refused.
  class ParseError : public ImportError {
   public:
    enum class Case { decodingFailed, noNotes };
    explicit ParseError(Case c);
    Case which() const { return case_; }

   private:
    Case case_;
  };

  // A note section as read.
  struct RawNote {
    std::string lyric;
    std::int64_t length = 0;
    int noteNum = 60;
    // Every key, in file order; views into the decoded text, which outlives the read.
    std::vector<std::pair<std::string_view, std::string_view>> fields;
    std::string lengthShown;
    bool lengthTooLong = false;
    std::optional<std::string> pitchShown;  // set when the pitch was replaced

    const std::string_view* field(std::string_view key) const;
  };

  // Throws ParseError, the note-limit ImportError or FileError.
  static MusicDocument parse(const std::filesystem::path& path);
  // The same on bytes already read; `title` names the song when the file does not.
  static MusicDocument parseBytes(std::string_view bytes, std::string title = "Untitled");
};

// The catalogue key of the note-limit refusal every importer shares.
extern const char* const kTooManyNotesKey;

}  // namespace melvo
