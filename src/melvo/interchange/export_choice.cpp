#include "melvo/interchange/export_choice.h"

#include "melvo/platform/i18n.h"

namespace melvo {

std::optional<ExportChoice> chooseExportTrack(const MusicDocument& document,
                                              std::optional<int> currentIndex) {
  // An audible voiced track, else the editor's own track, else any audible one.
  if (auto chosen = document.preferredSungTrack(currentIndex)) {
    ExportChoice choice{*chosen, {}};
    int noted = 0;
    for (const auto& t : document.tracks) noted += t.notes.empty() ? 0 : 1;
    if (noted > 1) {
      choice.message = trf(
          "歌わせるトラック「%@」だけを書き出します（NEUTRINO は複数のパートを続けて歌うため）。",
          {document.tracks[*chosen].name});
    }
    return choice;
  }
  if (auto fallback = document.fallbackTrackWhenAllMuted(currentIndex)) {
    return ExportChoice{*fallback, trf("全部のトラックが消音のため、トラック「%@"
                                       "」だけを書き出します。別のトラックを書き出す時は、そのトラ"
                                       "ックの消音を外してください。",
                                       {document.tracks[*fallback].name})};
  }
  return std::nullopt;
}

std::string suggestedMusicXMLFileName(const MusicDocument& document) {
  static constexpr std::string_view kIdeographicSpace = "\u3000";
  std::string name;
  name.reserve(document.title.size() + 9);
  const std::string_view title = document.title;
  for (std::size_t i = 0; i < title.size();) {
    if (title[i] == ' ') {
      name.push_back('_');
      ++i;
    } else if (title.substr(i, kIdeographicSpace.size()) == kIdeographicSpace) {
      name.push_back('_');
      i += kIdeographicSpace.size();
    } else {
      name.push_back(title[i++]);
    }
  }
  return name + ".musicxml";
}

std::string musicXMLExportDialogTitle() {
  return tr("MusicXML として書き出す（NEUTRINO 用に非圧縮 .musicxml）");
}

}  // namespace melvo
