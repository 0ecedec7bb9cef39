// Builds UST text for the reader's tests.
#pragma once

#include <unicode/ucnv.h>

#include <string>
#include <vector>

namespace melvo::test {

struct UstNote {
  std::string lyric;
  std::string length = "480";
  std::string noteNum = "60";
};

inline std::string ustText(const std::vector<UstNote>& notes, const std::string& tempo = "120") {
  std::string s =
      "[#VERSION]\r\nUST Version1.2\r\n[#SETTING]\r\nTempo=" + tempo + "\r\nProjectName=test\r\n";
  int i = 0;
  for (const UstNote& n : notes) {
    char name[32];
    std::snprintf(name, sizeof name, "[#%04d]\r\n", i++);
    s += name;
    s += "Length=" + n.length + "\r\nLyric=" + n.lyric + "\r\nNoteNum=" + n.noteNum +
         "\r\nIntensity=100\r\n";
  }
  return s + "[#TRACKEND]\r\n";
}

// UTF-8 to a legacy set, as old tools saved.
inline std::string encodedAs(const std::string& utf8, const char* charset) {
  UErrorCode status = U_ZERO_ERROR;
  std::string out(utf8.size() * 4 + 16, '\0');
  const int32_t n = ucnv_convert(charset, "UTF-8", out.data(), static_cast<int32_t>(out.size()),
                                 utf8.data(), static_cast<int32_t>(utf8.size()), &status);
  out.resize(U_SUCCESS(status) ? n : 0);
  return out;
}

}  // namespace melvo::test
