#include "melvo/checking/kanji_reading.h"

#include <mecab.h>

#include <filesystem>
#include <string>
#include <vector>

#include "melvo/checking/lyric_rules.h"
#include "melvo/platform/log.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

constexpr const char* kSystemDictionaries[] = {"/var/lib/mecab/dic/ipadic-utf8",
                                               "/usr/lib/x86_64-linux-gnu/mecab/dic/ipadic-utf8",
                                               "/usr/lib/mecab/dic/ipadic-utf8"};

bool isDictionary(const std::string& dir) {
  std::error_code ec;
  return std::filesystem::is_regular_file(std::filesystem::path(dir) / "sys.dic", ec);
}

// The IPA dictionary's eighth feature is the reading, in katakana. Unknown words carry fewer
// features or "*": they keep their surface.
std::string_view readingOf(const char* feature) {
  std::string_view f = feature ? feature : "";
  std::size_t start = 0;
  for (int field = 0; field < 7; ++field) {
    start = f.find(',', start);
    if (start == std::string_view::npos) return {};
    ++start;
  }
  std::string_view reading = f.substr(start, f.find(',', start) - start);
  if (reading.empty() || reading == "*") return {};
  std::size_t i = 0;
  while (i < reading.size()) {
    char32_t c = text::nextScalar(reading, i);
    if (c < 0x30A1 || c > 0x30FC) return {};  // not a katakana reading: another dictionary
  }
  return reading;
}

}  // namespace

struct KanjiReader::Impl {
  MeCab::Model* model = nullptr;
  MeCab::Tagger* tagger = nullptr;

  ~Impl() {
    delete tagger;
    if (model) MeCab::deleteModel(model);
  }
};

KanjiReader::KanjiReader(std::string_view dictionaryDir) : impl_(std::make_unique<Impl>()) {
  std::string dir(dictionaryDir);
  if (dir.empty()) {
    for (const char* candidate : kSystemDictionaries) {
      if (isDictionary(candidate)) {
        dir = candidate;
        break;
      }
    }
  }
  // With an explicit dictionary the user's mecabrc, which may name another one, is ignored.
  std::vector<std::string> args = {"melvo"};
  if (!dir.empty()) args.insert(args.end(), {"-r", "/dev/null", "-d", dir});
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  try {
    impl_->model = MeCab::createModel(static_cast<int>(argv.size()), argv.data());
    if (impl_->model) impl_->tagger = impl_->model->createTagger();
  } catch (...) {
    impl_->tagger = nullptr;
  }
  if (!impl_->tagger) {
    const char* why = MeCab::getLastError();
    log::write("KanjiReading", "no Japanese dictionary" + (dir.empty() ? "" : " in " + dir) + ": " +
                                   (why && *why ? why : "MeCab failed to load") +
                                   "; kanji lyrics stay as written");
  }
}

KanjiReader::~KanjiReader() = default;

bool KanjiReader::loaded() const {
  return impl_->tagger != nullptr;
}

std::string KanjiReader::toHiragana(std::string_view lyric) const {
  if (!loaded() || lyric.empty()) return std::string(lyric);
  // Tagger::parse(Lattice*) is thread-safe; each call brings its own lattice.
  std::unique_ptr<MeCab::Lattice, void (*)(MeCab::Lattice*)> lattice(impl_->model->createLattice(),
                                                                     MeCab::deleteLattice);
  if (!lattice) return std::string(lyric);
  lattice->set_sentence(lyric.data(), lyric.size());
  if (!impl_->tagger->parse(lattice.get())) return std::string(lyric);

  std::string out;
  std::size_t cursor = 0;
  for (const MeCab::Node* node = lattice->bos_node(); node; node = node->next) {
    if (node->stat == MECAB_BOS_NODE) continue;
    if (node->stat == MECAB_EOS_NODE) break;
    // rlength counts the white space MeCab skipped before the token: keep it as written.
    std::size_t skipped = node->rlength - node->length;
    if (cursor + node->rlength > lyric.size()) break;
    out.append(lyric.substr(cursor, skipped));
    std::string_view surface = lyric.substr(cursor + skipped, node->length);
    std::string_view reading = hasKanji(surface) ? readingOf(node->feature) : std::string_view{};
    if (reading.empty()) {
      out.append(surface);
    } else {
      out += katakanaToHiragana(reading);
    }
    cursor += node->rlength;
  }
  out.append(lyric.substr(cursor));
  return out;
}

const KanjiReader& KanjiReader::shared() {
  // Never destroyed: a lyric may still be converted while static objects are torn down.
  static const KanjiReader* reader = new KanjiReader();
  return *reader;
}

std::string kanjiToHiragana(std::string_view lyric) {
  if (!hasKanji(lyric)) return std::string(lyric);
  return KanjiReader::shared().toHiragana(lyric);
}

}  // namespace melvo
