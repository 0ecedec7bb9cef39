// The preferences store: one JSON object in preferences.json in the configuration folder.
// Keys of lists that Melvo keeps begin "melvo." ("melvo.recentFiles", "melvo.takeHistory").
// Each change is written at once; the file is small. Several processes may share it (a serve
// and a render, say): every change re-reads the file under a lock and writes it back with only
// its own key changed, so no process erases what another one stored meanwhile.
#pragma once

#include <filesystem>
#include <functional>
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
  // Read-modify-write of one key, with the file locked from the read to the write: `change`
  // gets the stored value (null when absent) and returns the new one. Returns what was stored.
  Json update(std::string_view key, const std::function<Json(const Json& stored)>& change);
  void reload();

  const std::filesystem::path& path() const { return path_; }

 private:
  void write();
  std::filesystem::path lockPath() const;
  std::filesystem::path path_;
  Json values_ = Json::object();
};

}  // namespace melvo
