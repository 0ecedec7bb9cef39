// Where Melvo keeps its files. XDG folders by default; MELVO_HOME=DIR puts everything under
// DIR (tests always set it, so no test touches the real home).
#pragma once

#include <filesystem>

namespace melvo::paths {

std::filesystem::path configDir();    // config.json, autosave.json, preferences.json
std::filesystem::path dataDir();      // AutoSaves/, the log file, the socket fallback
std::filesystem::path autoSaveDir();  // dataDir()/AutoSaves
std::filesystem::path socketPath();   // $XDG_RUNTIME_DIR/melvo/mcp.sock or dataDir()/mcp.sock
std::filesystem::path musicDir();     // XDG_MUSIC_DIR, else ~/Music
std::filesystem::path trashDir();     // the freedesktop.org trash ($XDG_DATA_HOME/Trash)
std::filesystem::path logFile();      // dataDir()/melvo.log
std::filesystem::path homeDir();
std::filesystem::path tempDir();  // $TMPDIR or /tmp

}  // namespace melvo::paths
