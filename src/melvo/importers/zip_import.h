// Opening a .zip as the score inside it: pick the one member that can be a score, check it
// against decompression bombs, and put it in a fresh temporary folder for the import entry.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "melvo/importers/open_error.h"

namespace melvo {

class ZipRefusal : public ImportError {
 public:
  enum class Kind { severalScores, damaged, tooLarge, notZip, noScore };

  static ZipRefusal severalScores(int count);
  static ZipRefusal damaged(const std::string& member);
  static ZipRefusal tooLarge(const std::string& member, std::uint64_t megabytes);
  static ZipRefusal notZip();
  static ZipRefusal noScore();

  Kind kind() const { return kind_; }

 private:
  ZipRefusal(Kind kind, const char* key, const std::string& message)
      : ImportError(key, message), kind_(kind) {}
  Kind kind_;
};

struct ZipImport {
  ZipImport() = delete;
  using Refusal = ZipRefusal;

  // Inflated sizes from here up are refused at once, and from kBombFloor up when the member
  // is packed at kBombRatio to 1 or tighter.
  static constexpr std::uint64_t kMaxSize = 64ull * 1024 * 1024;
  static constexpr std::uint64_t kBombFloor = 16ull * 1024 * 1024;
  static constexpr std::uint64_t kBombRatio = 100;

  // Whether a member of this name can be the score: not a folder, not macOS metadata
  // ("__MACOSX/", "._" files), and of an extension Melvo opens.
  static bool isScoreMember(std::string_view name);

  // The extracted score; its temporary folder goes with it.
  class Extracted {
   public:
    Extracted(std::filesystem::path folder, std::filesystem::path file)
        : folder_(std::move(folder)), file_(std::move(file)) {}
    ~Extracted();
    Extracted(Extracted&& other) noexcept;
    Extracted& operator=(Extracted&&) = delete;
    Extracted(const Extracted&) = delete;
    Extracted& operator=(const Extracted&) = delete;
    const std::filesystem::path& file() const { return file_; }

   private:
    std::filesystem::path folder_, file_;
  };

  // Throws ZipRefusal, an error of the .mxl container for an .mxl member, or FileError when
  // the temporary folder cannot be written.
  static Extracted extract(std::string_view archive);
};

}  // namespace melvo
