// The engine settings and their file, config.json in the configuration folder.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "melvo/platform/json.h"

namespace melvo {

struct NEUTRINOConfig {
  std::string neutrinoDirectory;
  std::string selectedCharacterName;
  int numThreads = 4;
  int transposeKey = 0;
  std::string supportModel;
  bool useGpu = false;
  int gpuId = 0;
  bool useBestGpu = false;
  bool singlePhraseMode = false;
  int singlePhraseNumber = 1;
  bool skipTiming = false;
  bool skipF0 = false;
  bool skipMelspec = false;
  bool skipWav = false;

  bool operator==(const NEUTRINOConfig&) const = default;

  Json toJson() const;
  // Every key is required with its exact type: one missing or mistyped key rejects the whole
  // file, so a half-understood file never mixes with defaults.
  static std::optional<NEUTRINOConfig> fromJson(const Json& json);

  static std::filesystem::path defaultPath();  // configDir()/config.json
  // Nothing when the file is missing, unreadable or rejected.
  static std::optional<NEUTRINOConfig> load(const std::filesystem::path& path = defaultPath());
  // Throws FileError.
  void save(const std::filesystem::path& path = defaultPath()) const;
};

}  // namespace melvo
