// User-visible text. The Japanese text is the key; other languages come from the compiled
// catalogues in share/locale/<lang>/LC_MESSAGES/melvo.mo beside the binary.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace melvo {

// The translation of `key` for the chosen language, or `key` itself (Japanese).
// Always pass a string literal so that the catalogue check can find it.
const char* tr(const char* key);

// tr() followed by substitution of the placeholders "%@", "%d" and "%lld", in order, by `args`.
// "%%" stays a single "%". Extra placeholders are left as they are.
std::string trf(const char* key, std::initializer_list<std::string_view> args);

// Substitution alone, for texts already translated.
std::string substitute(std::string_view format, std::initializer_list<std::string_view> args);

namespace i18n {
// Chooses the language from LANGUAGE, LC_ALL, LC_MESSAGES and LANG (first set wins):
// Japanese when it names "ja", English otherwise (also for C and POSIX).
void initFromEnvironment();
// For tests and --lang: "ja", "en", ...
void setLanguage(std::string_view lang);
std::string language();
}  // namespace i18n

}  // namespace melvo

// Marks a text for the catalogue without translating it (for tables built before main()).
#define N_(text) text
