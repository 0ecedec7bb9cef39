// Strict decoding of foreign bytes into UTF-8 through ICU converters: a byte sequence that
// the character set does not define is a failure, never a silent replacement, so that callers
// can try the next candidate.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace melvo::charset {

// `name` is an ICU converter name or IANA alias ("Shift_JIS", "windows-31j", "EUC-JP",
// "UTF-16LE", ...). Nothing when the name is unknown or the bytes do not decode.
std::optional<std::string> decode(std::string_view bytes, const char* name);
// The common Japanese legacy set: Shift-JIS with the Windows (NEC and IBM) extensions.
std::optional<std::string> decodeShiftJIS(std::string_view bytes);
// Every byte is a character, so this never fails.
std::string decodeLatin1(std::string_view bytes);

}  // namespace melvo::charset
