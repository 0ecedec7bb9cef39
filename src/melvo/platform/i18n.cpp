#include "melvo/platform/i18n.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace melvo {
namespace {

// The catalogue is read straight from the compiled .mo file rather than through the C
// library's gettext, so that English works even where the system has no English locale
// generated (common on servers and in containers).
struct Catalogue {
  std::string lang = "en";
  bool loaded = false;
  std::unordered_map<std::string, std::string> texts;
};

std::shared_mutex& catalogueMutex() {
  static std::shared_mutex m;
  return m;
}

Catalogue& catalogue() {
  static Catalogue c;
  return c;
}

std::filesystem::path executableDir() {
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::current_path() : exe.parent_path();
}

std::uint32_t readWord(const std::string& data, std::size_t at, bool swap) {
  if (at + 4 > data.size()) return 0;
  std::uint32_t w;
  std::memcpy(&w, data.data() + at, 4);
  return swap ? __builtin_bswap32(w) : w;
}

void loadMo(const std::filesystem::path& path, std::unordered_map<std::string, std::string>& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return;
  std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::uint32_t magic = readWord(data, 0, false);
  bool swap;
  if (magic == 0x950412de) {
    swap = false;
  } else if (magic == 0xde120495) {
    swap = true;
  } else {
    return;
  }
  std::uint32_t count = readWord(data, 8, swap);
  std::uint32_t origTable = readWord(data, 12, swap);
  std::uint32_t transTable = readWord(data, 16, swap);
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint32_t olen = readWord(data, origTable + 8 * i, swap);
    std::uint32_t ooff = readWord(data, origTable + 8 * i + 4, swap);
    std::uint32_t tlen = readWord(data, transTable + 8 * i, swap);
    std::uint32_t toff = readWord(data, transTable + 8 * i + 4, swap);
    if (std::size_t(ooff) + olen > data.size() || std::size_t(toff) + tlen > data.size()) return;
    if (olen == 0 || tlen == 0) continue;  // the header entry
    out.emplace(data.substr(ooff, olen), data.substr(toff, tlen));
  }
}

void load(Catalogue& c) {
  c.texts.clear();
  c.loaded = true;
  if (c.lang == "ja") return;
  const std::filesystem::path dir = executableDir();
  for (const auto& base : {dir / ".." / "share" / "locale", dir / "share" / "locale",
                           dir / ".." / ".." / "share" / "locale"}) {
    auto mo = base / c.lang / "LC_MESSAGES" / "melvo.mo";
    if (std::filesystem::exists(mo)) {
      loadMo(mo, c.texts);
      return;
    }
  }
}

std::string languageFromEnvironment() {
  for (const char* var : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* v = std::getenv(var);
    if (!v || !*v) continue;
    std::string value(v);
    // LANGUAGE may list several; the first one decides.
    value = value.substr(0, value.find(':'));
    if (value.rfind("ja", 0) == 0) return "ja";
    return "en";
  }
  return "en";
}

}  // namespace

const char* tr(const char* key) {
  {
    std::shared_lock lock(catalogueMutex());
    const Catalogue& c = catalogue();
    if (c.loaded) {
      auto it = c.texts.find(key);
      return it == c.texts.end() ? key : it->second.c_str();
    }
  }
  {
    std::unique_lock lock(catalogueMutex());
    if (!catalogue().loaded) load(catalogue());
  }
  return tr(key);
}

std::string substitute(std::string_view format, std::initializer_list<std::string_view> args) {
  std::string out;
  out.reserve(format.size() + 16);
  auto next = args.begin();
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      out.push_back(format[i]);
      continue;
    }
    std::string_view rest = format.substr(i + 1);
    std::size_t len = 0;
    if (rest[0] == '%') {
      out.push_back('%');
      ++i;
      continue;
    }
    if (rest.starts_with("@") || rest.starts_with("d")) {
      len = 1;
    } else if (rest.starts_with("lld")) {
      len = 3;
    } else if (rest.starts_with("ld")) {
      len = 2;
    }
    if (len == 0 || next == args.end()) {
      out.push_back('%');
      continue;
    }
    out.append(*next++);
    i += len;
  }
  return out;
}

std::string trf(const char* key, std::initializer_list<std::string_view> args) {
  return substitute(tr(key), args);
}

namespace i18n {

void initFromEnvironment() {
  setLanguage(languageFromEnvironment());
}

void setLanguage(std::string_view lang) {
  std::unique_lock lock(catalogueMutex());
  Catalogue& c = catalogue();
  c.lang = std::string(lang);
  load(c);
}

std::string language() {
  std::shared_lock lock(catalogueMutex());
  return catalogue().lang;
}

}  // namespace i18n
}  // namespace melvo
