// The General MIDI bank the preview sounds with: the one of Debian's fluid-soundfont-gm.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace melvo {

// Where it is looked for, in order. MELVO_SOUND_BANK, when set, is the only place: a user
// with a bank of their own, and tests that need none to be there.
std::vector<std::filesystem::path> soundBankCandidates();
std::optional<std::filesystem::path> findSoundBank();
// What to tell a user whose machine has none: the places looked at and the package to install.
std::string soundBankMissingMessage();

}  // namespace melvo
