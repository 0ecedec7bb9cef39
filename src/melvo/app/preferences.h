// The preferences store: one JSON object in preferences.json in the configuration folder.
// Keys of lists that Melvo keeps begin "melvo." ("melvo.recentFiles", "melvo.takeHistory").
// Each change is written at once; the file is small.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "melvo/platform/json.h"

namespace melvo {

class Preferences {
 public:
  // Reads the file; a missing or damaged file gives an empty store (logged when damaged).
  explicit Preferences(std::filesystem::path path = defaultPath());
  static std::filesystem::path defaultPath();

  const Json* get(std::string_view key) const { return values_.find(key); }
  bool boolValue(std::string_view key, bool fallback = false) const;
  // Both write the file; a failed write is logged and the value stays in memory.
  void set(std::string_view key, Json value);
  void remove(std::string_view key);
  void reload();

  const std::filesystem::path& path() const { return path_; }

 private:
  void write();
  std::filesystem::path path_;
  Json values_ = Json::object();
};

}  // namespace melvo
