#include "melvo/playback/sound_bank.h"

#include <cstdlib>
#include <system_error>

#include "melvo/platform/i18n.h"

namespace melvo {

std::vector<std::filesystem::path> soundBankCandidates() {
  if (const char* own = std::getenv("MELVO_SOUND_BANK"); own && *own) return {own};
  // The package's file, then the alternative that Debian points at a GM bank of the user's
  // choice.
  return {"/usr/share/sounds/sf2/FluidR3_GM.sf2", "/usr/share/sounds/sf2/default-GM.sf2"};
}

std::optional<std::filesystem::path> findSoundBank() {
  for (const auto& path : soundBankCandidates()) {
    std::error_code ec;
    if (std::filesystem::is_regular_file(path, ec)) return path;
  }
  return std::nullopt;
}

std::string soundBankMissingMessage() {
  std::string places;
  for (const auto& path : soundBankCandidates())
    places += (places.empty() ? "" : ", ") + path.string();
  return trf(
      "試聴用の音色（GM サウンドフォント）が見つかりません: %@。"
      "「sudo apt install fluid-soundfont-gm」で入れてください",
      {places});
}

}  // namespace melvo
