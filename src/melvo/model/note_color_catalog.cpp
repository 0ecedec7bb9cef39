#include "melvo/model/note_color_catalog.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo {

const std::array<NoteColorRow, 26>& noteColorCatalog() {
  static const std::array<NoteColorRow, 26> rows{{
      {"#33CCBB", N_("ブルーグリーン")},
      {"#FFCC11", N_("オレンジ")},
      {"#FFEE11", N_("イエロー")},
      {"#FFBBCC", N_("ピンク")},
      {"#DD4444", N_("レッド")},
      {"#3366CC", N_("ブルー")},
      {"#33AAEE", N_("スカイブルー")},
      {"#FFDD44", N_("ゴールド")},
      {"#FF6666", N_("コーラルレッド")},
      {"#BBDD22", N_("ライムグリーン")},
      {"#FFCCAA", N_("アプリコット")},
      {"#99CCFF", N_("ペールブルー")},
      {"#FFAACC", N_("ローズピンク")},
      {"#99EEDD", N_("ミントグリーン")},
      {"#FF6699", N_("マゼンタピンク")},
      {"#00BBDD", N_("ターコイズ")},
      {"#FF7722", N_("バーミリオン")},
      {"#0077DD", N_("コバルトブルー")},
      {"#BB6688", N_("モーブ")},
      {"#8888CC", N_("ラベンダー")},
      {"#CCAA88", N_("キャメル")},
      {"#DDAACC", N_("ライラック")},
      {"#FFBB00", N_("アンバー")},
      {"#FF66BB", N_("フューシャ")},
      {"#33DD99", N_("スプリンググリーン")},
      {"#BB88EE", N_("バイオレット")},
  }};
  return rows;
}

const std::string& noteColorHex(std::size_t i) {
  static const std::vector<std::string> softened = [] {
    std::vector<std::string> v;
    for (const auto& row : noteColorCatalog()) v.push_back(softenColor(row.baseHex, 0.5));
    return v;
  }();
  return softened.at(i);
}

namespace {

double toLinear(double c) {
  return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}
double toGamma(double c) {
  return c <= 0.0031308 ? 12.92 * c : 1.055 * std::pow(c, 1.0 / 2.4) - 0.055;
}

bool parseHex(std::string_view hex, double rgb[3]) {
  if (hex.size() != 7 || hex[0] != '#') return false;
  for (int k = 0; k < 3; ++k) {
    unsigned v = 0;
    for (int j = 0; j < 2; ++j) {
      char c = hex[1 + 2 * k + j];
      int d = (c >= '0' && c <= '9')   ? c - '0'
              : (c >= 'a' && c <= 'f') ? c - 'a' + 10
              : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                       : -1;
      if (d < 0) return false;
      v = v * 16 + static_cast<unsigned>(d);
    }
    rgb[k] = v / 255.0;
  }
  return true;
}

}  // namespace

std::string softenColor(std::string_view hex, double factor) {
  double rgb[3];
  if (!parseHex(hex, rgb)) return std::string(hex);
  double r = toLinear(rgb[0]), g = toLinear(rgb[1]), b = toLinear(rgb[2]);
  // sRGB (linear) to OKLab.
  double l = std::cbrt(0.4122214708 * r + 0.5363325363 * g + 0.0514459929 * b);
  double m = std::cbrt(0.2119034982 * r + 0.6806995451 * g + 0.1073969566 * b);
  double s = std::cbrt(0.0883024619 * r + 0.2817188376 * g + 0.6299787005 * b);
  double L = 0.2104542553 * l + 0.7936177850 * m - 0.0040720468 * s;
  double A = 1.9779984951 * l - 2.4285922050 * m + 0.4505937099 * s;
  double B = 0.0259040371 * l + 0.7827717662 * m - 0.8086757660 * s;
  // Paler, same hue: lighter and less chroma.
  const double k = std::clamp(factor, 0.0, 1.0) / 2;
  L = L + (1 - L) * k;
  A *= 1 - k;
  B *= 1 - k;
  // And back.
  l = L + 0.3963377774 * A + 0.2158037573 * B;
  m = L - 0.1055613458 * A - 0.0638541728 * B;
  s = L - 0.0894841775 * A - 1.2914855480 * B;
  l = l * l * l, m = m * m * m, s = s * s * s;
  double out[3] = {4.0767416621 * l - 3.3077115913 * m + 0.2309699292 * s,
                   -1.2684380046 * l + 2.6097574011 * m - 0.3413193965 * s,
                   -0.0041960863 * l - 0.7034186147 * m + 1.7076147010 * s};
  int bytes[3];
  for (int i = 0; i < 3; ++i) {
    double v = toGamma(std::clamp(out[i], 0.0, 1.0));
    bytes[i] = static_cast<int>(std::lround(std::clamp(v, 0.0, 1.0) * 255));
  }
  char buf[8];
  std::snprintf(buf, sizeof buf, "#%02X%02X%02X", bytes[0], bytes[1], bytes[2]);
  return buf;
}

std::string migrateColor(std::string_view hex) {
  const std::string upper = [&] {
    std::string u(hex);
    for (char& c : u)
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return u;
  }();
  const auto& rows = noteColorCatalog();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (upper == rows[i].baseHex) return noteColorHex(i);
  }
  return std::string(hex);
}

}  // namespace melvo
