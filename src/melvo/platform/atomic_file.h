// Whole-file writes that a crash cannot tear: the bytes go to a temporary file in the same
// folder, are flushed to disk, and the file is renamed over the target.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

namespace melvo {

class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws FileError with the path and the system's reason.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);
// Throws FileError when the file cannot be read.
std::string readFile(const std::filesystem::path& path);

}  // namespace melvo
