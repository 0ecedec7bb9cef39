#include "melvo/importers/zip_import.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>
#include <vector>

#include "melvo/importers/score_decoder.h"
#include "melvo/importers/zip_reader.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"
#include "melvo/platform/uuid.h"

namespace fs = std::filesystem;

namespace melvo {

namespace {

constexpr std::array<std::string_view, 16> kScoreExtensions{
    "musicxml", "xml", "mxl",  "mid", "midi", "kar",   "smf", "ust",
    "ustx",     "svp", "vsqx", "vpr", "ppsf", "tssln", "ccs", "ccst"};

std::string_view lastComponent(std::string_view name) {
  const std::size_t slash = name.rfind('/');
  return slash == std::string_view::npos ? name : name.substr(slash + 1);
}

std::string extensionOf(std::string_view file) {
  const std::size_t dot = file.rfind('.');
  if (dot == std::string_view::npos) return std::string();
  return text::asciiLower(file.substr(dot + 1));
}

}  // namespace

ZipRefusal ZipRefusal::severalScores(int count) {
  static const char* key =
      N_("この .zip には楽譜のファイルが %d "
         "本入っています。展開して、開きたいファイルを1本選んでください。");
  return ZipRefusal(Kind::severalScores, key, substitute(tr(key), {std::to_string(count)}));
}

ZipRefusal ZipRefusal::damaged(const std::string& member) {
  static const char* key =
      N_("この .zip "
         "の中の「%@」は、壊れているか途中で切れているため、読めませんでした。ダウンロードやコピー"
         "をし直してから開いてください。");
  return ZipRefusal(Kind::damaged, key, substitute(tr(key), {member}));
}

ZipRefusal ZipRefusal::tooLarge(const std::string& member, std::uint64_t megabytes) {
  static const char* key =
      N_("この .zip の中の「%@」は、展開すると %d MB "
         "以上になり、楽譜としては大きすぎるため開きませんでした。中身が正しい楽譜か確かめてくださ"
         "い。");
  return ZipRefusal(Kind::tooLarge, key, substitute(tr(key), {member, std::to_string(megabytes)}));
}

ZipRefusal ZipRefusal::notZip() {
  static const char* key =
      N_("この .zip "
         "は開けませんでした。ファイルが壊れているか、ZIP "
         "ではない可能性があります。ダウンロードやコピーをし直すか、展開して中のファイルを開いてく"
         "ださい。");
  return ZipRefusal(Kind::notZip, key, tr(key));
}

ZipRefusal ZipRefusal::noScore() {
  static const char* key =
      N_("この .zip "
         "の中に、読める楽譜のファイルが見つかりませんでした。展開して、中のファイルを開いてくださ"
         "い。");
  return ZipRefusal(Kind::noScore, key, tr(key));
}

bool ZipImport::isScoreMember(std::string_view name) {
  if (name.empty() || name.back() == '/') return false;
  if (text::startsWith(name, "__MACOSX/")) return false;
  const std::string_view base = lastComponent(name);
  if (text::startsWith(base, "._")) return false;
  const std::string ext = extensionOf(base);
  return std::find(kScoreExtensions.begin(), kScoreExtensions.end(), ext) != kScoreExtensions.end();
}

ZipImport::Extracted::~Extracted() {
  if (folder_.empty()) return;
  std::error_code ec;
  fs::remove_all(folder_, ec);
}

ZipImport::Extracted::Extracted(Extracted&& other) noexcept
    : folder_(std::move(other.folder_)), file_(std::move(other.file_)) {
  other.folder_.clear();
}

ZipImport::Extracted ZipImport::extract(std::string_view archive) {
  auto list = ZipReader::entries(archive);
  if (!list) throw ZipRefusal::notZip();
  std::vector<const ZipReader::Entry*> scores;
  for (const auto& e : *list) {
    if (isScoreMember(e.name)) scores.push_back(&e);
  }
  if (scores.empty()) throw ZipRefusal::noScore();
  if (scores.size() > 1) throw ZipRefusal::severalScores(static_cast<int>(scores.size()));
  const ZipReader::Entry& entry = *scores.front();

  // Sizes are checked before anything is inflated: the directory may lie, but then the read
  // below comes out short or long and is refused as damaged.
  constexpr std::uint64_t MB = 1024 * 1024;
  if (entry.uncompSize > kMaxSize) throw ZipRefusal::tooLarge(entry.name, kMaxSize / MB);
  if (entry.uncompSize >= kBombFloor && entry.uncompSize >= kBombRatio * entry.compSize)
    throw ZipRefusal::tooLarge(entry.name, entry.uncompSize / MB);
  auto bytes = ZipReader::read(entry, archive);
  if (!bytes || bytes->size() != entry.uncompSize || ZipReader::crc32(*bytes) != entry.crc32)
    throw ZipRefusal::damaged(entry.name);

  std::string fileName(lastComponent(entry.name));
  for (char& c : fileName) {
    if (c == '/' || c == '\\' || c == ':') c = '_';
  }
  if (extensionOf(fileName) == "mxl") {
    *bytes = extractFromContainer(*bytes);
    fileName = "score.musicxml";
  }

  const fs::path folder =
      fs::temp_directory_path() / "Melvo-zip-import" / Uuid::random().toString();
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec) throw FileError(folder.string() + ": " + ec.message());
  Extracted extracted(folder, folder / fileName);
  std::ofstream out(extracted.file(), std::ios::binary);
  out.write(bytes->data(), static_cast<std::streamsize>(bytes->size()));
  out.close();
  if (!out) throw FileError(extracted.file().string() + ": " + std::strerror(errno));
  return extracted;
}

}  // namespace melvo
