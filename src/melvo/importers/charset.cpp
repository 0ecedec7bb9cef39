#include "melvo/importers/charset.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/ustring.h>

#include <memory>
#include <vector>

namespace melvo::charset {

namespace {

struct ConverterCloser {
  void operator()(UConverter* c) const { ucnv_close(c); }
};

}  // namespace

std::optional<std::string> decode(std::string_view bytes, const char* name) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UConverter, ConverterCloser> converter(ucnv_open(name, &status));
  if (U_FAILURE(status) || !converter) return std::nullopt;
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  if (U_FAILURE(status)) return std::nullopt;
  if (bytes.empty()) return std::string();
  // One UTF-16 unit per byte is enough for every set a score arrives in; a set that needs
  // more gets the buffer grown.
  std::vector<UChar> units(bytes.size() + 16);
  const char* source = bytes.data();
  const char* const sourceEnd = bytes.data() + bytes.size();
  UChar* target = units.data();
  for (;;) {
    ucnv_toUnicode(converter.get(), &target, units.data() + units.size(), &source, sourceEnd,
                   nullptr, true, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR) break;
    status = U_ZERO_ERROR;
    const std::size_t used = static_cast<std::size_t>(target - units.data());
    units.resize(units.size() * 2);
    target = units.data() + used;
  }
  if (U_FAILURE(status)) return std::nullopt;
  const auto length = static_cast<int32_t>(target - units.data());
  std::string out;
  int32_t needed = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(nullptr, 0, &needed, units.data(), length, &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  out.resize(static_cast<std::size_t>(needed));
  status = U_ZERO_ERROR;
  // Unpaired surrogates (possible in UTF-16 input) make this fail, which is what we want.
  u_strToUTF8(out.data(), needed, nullptr, units.data(), length, &status);
  if (U_FAILURE(status)) return std::nullopt;
  return out;
}

std::optional<std::string> decodeShiftJIS(std::string_view bytes) {
  return decode(bytes, "windows-31j");
}

std::string decodeLatin1(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 4);
  for (unsigned char c : bytes) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace melvo::charset
