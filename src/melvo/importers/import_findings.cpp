#include "melvo/importers/import_findings.h"

#include "melvo/model/music_document.h"

namespace melvo {

namespace {

std::optional<std::string> shown(const std::string& text) {
  if (text.empty()) return std::nullopt;
  return text;
}

template <class Entry>
void addAll(MusicDocument& document, std::optional<int> track, const ImportNoticeKind& kind,
            const std::vector<Entry>& entries) {
  for (const Entry& e : entries) document.addNotice(kind, track, e.id, e.tick, shown(e.text));
}

}  // namespace

void ImportFindings::addNoteParams(const Uuid& id, std::int64_t tick,
                                   std::vector<std::string> names) {
  if (auto it = noteParamIndex.find(id); it != noteParamIndex.end()) {
    auto& known = noteParams[it->second].names;
    known.insert(known.end(), names.begin(), names.end());
    return;
  }
  noteParamIndex.emplace(id, noteParams.size());
  noteParams.push_back({id, tick, std::move(names)});
}

bool ImportFindings::empty() const {
  return noteParams.empty() && curves.empty() && pitchWhole.empty() && silent.empty() &&
         phoneme.empty() && rap.empty() && falsetto.empty() && breath.empty() && suffix.empty() &&
         hyphen.empty() && glottal.empty() && hint.empty() && hintNoKana.empty() &&
         vowelLink.empty() && foreignNotes.empty() && foreignVoice.empty() && dropped.empty() &&
         pitchFix.empty() && tooLong.empty() && beyondExport.empty() && beyondTick.empty() &&
         vcShort.empty() && utauBreath.empty() && broken.empty();
}

void ImportFindings::addNotices(MusicDocument& document, std::optional<int> track) const {
  namespace k = notice_kinds;
  // Parameters and curves of the source both say the same: something that shaped the voice
  // there has no form here.
  for (const NoteParams& p : noteParams) {
    std::string text;
    for (const std::string& name : p.names) text += (text.empty() ? "" : ", ") + name;
    document.addNotice(k::synthParameters, track, p.id, p.tick, shown(text));
  }
  addAll(document, track, k::synthParameters, curves);
  addAll(document, track, k::pitchOffsetWhole, pitchWhole);
  addAll(document, track, k::silentInSource, silent);
  for (const Phoneme& p : phoneme)
    document.addNotice(p.kana ? k::phonemeOverride : k::phonemeOverrideNoKana, track, p.id, p.tick,
                       shown(p.text));
  addAll(document, track, k::rapNotes, rap);
  addAll(document, track, k::falsetto, falsetto);
  addAll(document, track, k::breathConverted, breath);
  addAll(document, track, k::utauSuffixRemoved, suffix);
  addAll(document, track, k::openUtauHyphen, hyphen);
  addAll(document, track, k::glottalOnlyLyric, glottal);
  addAll(document, track, k::phoneticHintRemoved, hint);
  addAll(document, track, k::phoneticHintWithoutKana, hintNoKana);
  addAll(document, track, k::cvvcVowelLink, vowelLink);
  addAll(document, track, k::foreignLanguageNotes, foreignNotes);
  for (const ForeignVoice& v : foreignVoice)
    document.addNotice(k::foreignVoiceTrack, track, std::nullopt, 0, shown(v.text), {},
                       v.count > 0 ? v.count : 1);
  addAll(document, track, k::utauNoteDropped, dropped);
  addAll(document, track, k::utauPitchReplaced, pitchFix);
  addAll(document, track, k::utauLengthTooLong, tooLong);
  addAll(document, track, k::utauBeyondExportLimit, beyondExport);
  addAll(document, track, k::utauBeyondTickLimit, beyondTick);
  addAll(document, track, k::utauVCLinkedShort, vcShort);
  addAll(document, track, k::utauBreathNote, utauBreath);
  addAll(document, track, k::utauBrokenChars, broken);
}

}  // namespace melvo
