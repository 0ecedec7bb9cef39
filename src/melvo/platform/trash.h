// Move to trash, the freedesktop.org way: the file goes to <trash>/files/NAME and a
// <trash>/info/NAME.trashinfo records where it came from and when, so a file manager can put
// it back.
#pragma once

#include <filesystem>

namespace melvo::trash {

// Returns the file's new place in the trash. Throws FileError when it cannot be moved; the
// file then stays where it was.
std::filesystem::path moveToTrash(const std::filesystem::path& path);

}  // namespace melvo::trash
