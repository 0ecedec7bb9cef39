// The 26 track colours. Rows hold the base colour; what users see and documents store is
// the base softened by 0.5.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace melvo {

struct NoteColorRow {
  const char* baseHex;
  const char* colorName;  // catalogue key
};

const std::array<NoteColorRow, 26>& noteColorCatalog();
// The stored colour of row i (softened).
const std::string& noteColorHex(std::size_t i);

// A paler colour of the same hue: lightness moves toward white and chroma shrinks in OKLab
// by `factor`/2. Output "#RRGGBB"; text that is not "#" and six hex digits comes back as is.
std::string softenColor(std::string_view hex, double factor);

// Colours stored before the palette was softened: a base colour (any case) becomes its
// softened form; anything else stays.
std::string migrateColor(std::string_view hex);

}  // namespace melvo
