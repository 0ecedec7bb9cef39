// The fixed catalogue of import notice kinds, and the key sets that the liveness and the score
// check consult. Texts are catalogue keys: N_() marks them for the extractor, tr() shows them.
// A kind whose importer has no words of its own yet carries an empty message, which is not
// marked, because an empty msgid is the catalogue's header.
#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "melvo/model/import_notice.h"
#include "melvo/platform/i18n.h"

namespace melvo {

namespace {

using Sev = ValidationIssue::Severity;
using Han = NoticeHandling;
using Cat = ValidationIssue::Category;

// Null only equals null: a kind without detail differs from one with an empty detail.
bool sameText(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return std::strcmp(a, b) == 0;
}

}  // namespace

bool ImportNoticeKind::operator==(const ImportNoticeKind& o) const {
  if (!sameText(key, o.key) || severity != o.severity || handling != o.handling ||
      category != o.category || !sameText(message, o.message) || !sameText(detail, o.detail) ||
      buttons.size() != o.buttons.size()) {
    return false;
  }
  return std::equal(buttons.begin(), buttons.end(), o.buttons.begin(), sameText);
}

std::string_view handlingName(NoticeHandling h) {
  switch (h) {
    case NoticeHandling::dropped:
      return "dropped";
    case NoticeHandling::converted:
      return "converted";
    case NoticeHandling::kept:
      return "kept";
  }
  return "";
}

// Long texts stay on one line each, so that they can be searched for as the catalogue has them.
// clang-format off
// --- Other singing software (project readers) -------------------------------------------------

const ImportNoticeKind notice_kinds::tsslnTracksUnreadable{
    "tsslnTracksUnreadable", Sev::warning, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::cevioNotesDropped{
    "cevioNotesDropped", Sev::warning, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::cevioPitchGuessed{
    "cevioPitchGuessed", Sev::warning, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::cevioLyricFromPhoneme{
    "cevioLyricFromPhoneme", Sev::warning, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::cevioTuningCurves{
    "cevioTuningCurves", Sev::info, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::cevioTempoFixed{
    "cevioTempoFixed", Sev::warning, Han::converted, Cat::tempoIssue, "", nullptr, {}};

// --- MIDI: lyric placement and channel choice ---------------------------------------------------

const ImportNoticeKind notice_kinds::midiTwoMelodiesSplit{
    "midiTwoMelodiesSplit", Sev::warning, Han::converted, Cat::polyphony,
    N_("歌詞の付いた音が同時に鳴る所が %d か所あります。後から始まる方の旋律を別のトラックに分けました。"), nullptr, {N_("1本に戻す")}};
const ImportNoticeKind notice_kinds::midiArpeggioMoved{
    "midiArpeggioMoved", Sev::info, Han::converted, Cat::polyphony, N_("分散和音の歌詞の無い音 %d 個を、ミュートした伴奏のトラックに移しました。"), nullptr, {}};
// The importer reports a moved note head under both keys, so both carry the same words.
const ImportNoticeKind notice_kinds::midiLyricMovedNote{
    "midiLyricMovedNote", Sev::info, Han::converted, Cat::importNotice,
    N_("MIDI の歌詞のうち %d 個は、その位置に音の始まりがありません。すぐ後ろの音の頭を歌詞の位置へ寄せて歌います。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::midiMelisma{
    "midiMelisma", Sev::info, Han::converted, Cat::importNotice,
    N_("歌詞の無い音 %d 個を、前の音を伸ばす「ー」にしました（MIDI のメリスマ）。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::midiLyricNotPlaced{
    "midiLyricNotPlaced", Sev::warning, Han::dropped, Cat::importNotice, N_("どの音の頭からも離れている歌詞が %d 個あります。音に付けていません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::midiLyricsTrackChosen{
    "midiLyricsTrackChosen", Sev::info, Han::converted, Cat::importNotice, N_("音の無いトラックの歌詞 %d 個を、位置が最もよく合うトラックの音に付けました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::midiOrphanLyricsDropped{
    "midiOrphanLyricsDropped", Sev::warning, Han::dropped, Cat::importNotice, N_("音の無いトラックの歌詞が %d 個あります。近くに音の頭が無いため、使っていません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::midiOrphanLyricsIgnored{
    "midiOrphanLyricsIgnored", Sev::info, Han::dropped, Cat::importNotice, N_("音の無いトラックの歌詞が %d 個あります。ほかのトラックに自分の歌詞があるため、使っていません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::midiTextNotLyrics{
    "midiTextNotLyrics", Sev::info, Han::dropped, Cat::importNotice,
    N_("音の頭にあるテキスト %d 個は、見出しとみなして歌詞にしていません。"), nullptr, {N_("歌詞として読む")}};
const ImportNoticeKind notice_kinds::midiLyricUnreadable{
    "midiLyricUnreadable", Sev::warning, Han::dropped, Cat::importNotice, N_("UTF-8 としても Shift-JIS としても読めない歌詞が %d 個あり、使っていません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::midiLyricGarbled{
    "midiLyricGarbled", Sev::warning, Han::kept, Cat::importNotice, N_("UTF-8 か Shift-JIS か決められない歌詞が %d 個あります。片方で読みましたが、文字化けしているかもしれません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::midiNearOnsetsMerged{
    "midiNearOnsetsMerged", Sev::info, Han::converted, Cat::chordAtSameTick,
    N_("歌のチャンネルを決められないため、1つの歌詞の近く（32分音符以内）に少しずれて始まる音 %d 個を、同じ時刻の和音として読みました（同じ歌詞を2度歌わないため）。"),
    nullptr, {}};
// A lyric lost inside a chord gets the split that also clears the chord away.
const ImportNoticeKind notice_kinds::midiLyricOverflowInChord{
    "midiLyricOverflowInChord", Sev::warning, Han::dropped, Cat::importNotice,
    N_("和音の中で、もう歌詞のある音に重なった歌詞が %d 個あり、歌っていません。"), nullptr, {N_("この音を分けて歌う")}};
const ImportNoticeKind notice_kinds::midiLyricOverflow{
    "midiLyricOverflow", Sev::warning, Han::dropped, Cat::importNotice,
    N_("もう歌詞のある音に重なった歌詞が %d 個あり、歌っていません。"), nullptr, {N_("音を分けて歌う")}};
const ImportNoticeKind notice_kinds::midiLyricAtNoteEnd{
    "midiLyricAtNoteEnd", Sev::warning, Han::dropped, Cat::importNotice, N_("音の終わり間際にある歌詞が %d 個あります。次の音に歌詞があるため、歌っていません。"), nullptr, {}};

// --- MIDI: file level ---------------------------------------------------------------------------

const ImportNoticeKind notice_kinds::midiMissingNoteOff{
    "midiMissingNoteOff", Sev::warning, Han::converted, Cat::importNotice,
    N_("終わり（Note Off）の無い音が %d 個ありました。同じチャンネルの次の音の始まりまで（無ければトラックの終わりまで、それも無ければ1拍）の長さにしました。長さが違う時は、ピアノロールで直してください。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::midiFileDamaged{
    "midiFileDamaged", Sev::warning, Han::dropped, Cat::importNotice,
    N_("MIDI ファイルに壊れた所（途中で切れている・長さが合わない・読めない並び）が %d か所あり、そこを飛ばして読めたところを開きました。音が足りない時は、ファイルをダウンロードし直すか、元のソフトで書き出し直してから開いてください。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::midiBrokenDivision{
    "midiBrokenDivision", Sev::warning, Han::converted, Cat::importNotice,
    N_("この MIDI は時間の単位（分解能）の値が壊れていたため、4分音符＝480 として読みました。音の長さや速さが元と違う時は、元のソフトで書き出し直してから開いてください。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::midiChannelsUndecided{
    "midiChannelsUndecided", Sev::warning, Han::kept, Cat::importNotice,
    N_("MIDI の %d チャンネルを1本のトラックに入れました（歌のチャンネルを決められません）"),
    nullptr, {}};

// --- Shared by several readers ------------------------------------------------------------------

const ImportNoticeKind notice_kinds::twoLyricsOnOneNote{
    "twoLyricsOnOneNote", Sev::warning, Han::converted, Cat::multiSyllable,
    N_("1つの音符に2つ目の歌詞を足した所が %d か所あります（置く場所の無い装飾音の歌詞など）。"),
    nullptr, {N_("装飾音を別の音に戻す")}};
const ImportNoticeKind notice_kinds::elision{
    "elision", Sev::info, Han::converted, Cat::multiSyllable,
    N_("1つの音符で2つ以上の音節を続けて歌う所（エリジオン）が %d か所あります。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::midiLyricWithoutOnset{
    "midiLyricWithoutOnset", Sev::info, Han::converted, Cat::importNotice,
    N_("MIDI の歌詞のうち %d 個は、その位置に音の始まりがありません。すぐ後ろの音の頭を歌詞の位置へ寄せて歌います。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::midiTinyGapsClosed{
    "midiTinyGapsClosed", Sev::info, Han::converted, Cat::shortRestBefore, N_("32分音符以下の短いすき間 %d か所を、前の音を伸ばしてふさぎました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::midiOrnamentNotes{
    "midiOrnamentNotes", Sev::warning, Han::converted, Cat::decoration, N_("トリルのような短い歌詞の無い音 %d 個を「ー」にしました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::secondVerse{
    "secondVerse", Sev::info, Han::dropped, Cat::importNotice,
    N_("2番の歌詞（%d音）があります。今は1番で歌います。"),
    nullptr, {N_("2番の歌詞で歌う")}};
const ImportNoticeKind notice_kinds::cueNotesDropped{
    "cueNotesDropped", Sev::info, Han::dropped, Cat::importNotice,
    N_("小さく書かれた音符（キュー）が %d 個ありました。歌う音ではないため、読み込んでいません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::fermata{
    "fermata", Sev::warning, Han::dropped, Cat::decoration,
    N_("フェルマータが %d か所あります。音の長さは楽譜どおりで、伸ばしていません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::fermataOnRest{
    "fermataOnRest", Sev::warning, Han::dropped, Cat::decoration,
    N_("休符の上のフェルマータが %d か所あります。休みの長さは楽譜どおりです。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::ornaments{
    "ornaments", Sev::info, Han::dropped, Cat::decoration,
    N_("トリルなどの装飾記号が %d か所あります。NEUTRINO は装飾を歌い分けないため、使っていません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::glissando{
    "glissando", Sev::info, Han::dropped, Cat::decoration,
    N_("グリッサンドやしゃくりの記号が %d か所あります。音の高さの動きは付けていません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::wordsOnlyTempo{
    "wordsOnlyTempo", Sev::warning, Han::dropped, Cat::tempoIssue,
    N_("数の無い速度の言葉（Allegro など）が %d か所あります。テンポは変えていません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::wordsOnlyTempoDefault{
    "wordsOnlyTempoDefault", Sev::warning, Han::dropped, Cat::tempoIssue,
    N_("数の無い速度の言葉（Allegro など）が %d か所あり、それより前にテンポがありません。♩=120 で読みました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::ritAccel{
    "ritAccel", Sev::warning, Han::dropped, Cat::tempoIssue,
    N_("rit. や accel. が %d か所あります。テンポは変えずに読みました。"),
    nullptr, {N_("テンポを少しずつ変える")}};
const ImportNoticeKind notice_kinds::swing{
    "swing", Sev::info, Han::dropped, Cat::tempoIssue,
    N_("スイングの指定が %d か所あります。8分音符は均等のまま読みました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::tempoInsideNote{
    "tempoInsideNote", Sev::info, Han::converted, Cat::tempoIssue,
    N_("音の途中でテンポが変わる所が %d か所あります。NEUTRINO は音の頭でしか変えられないため、音を2つに割ってタイでつなぎます。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::microtones{
    "microtones", Sev::info, Han::converted, Cat::importNotice,
    N_("四分音が %d つあります。半音に丸めました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::additiveMeter{
    "additiveMeter", Sev::info, Han::converted, Cat::timeSigIssue,
    N_("組み合わせの拍子（3+2/8 など）が %d か所あります。和の拍子として読みました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::meterClamped{
    "meterClamped", Sev::warning, Han::converted, Cat::timeSigIssue,
    N_("扱えない拍子が %d か所あります。近い拍子に直しました（元の拍子は場所の欄に出ています）。"),
    nullptr, {}};
// Kept word for word as its catalogue key, the trailing ellipsis included.
const ImportNoticeKind notice_kinds::meterRebarred{
    "meterRebarred", Sev::info, Han::converted, Cat::timeSigIssue,
    N_("拍子と長さが違う小節が %d か所あります。拍子どおりに小節を引き直しました（音の位置は変わりません…"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::dsWithoutSegno{
    "dsWithoutSegno", Sev::warning, Han::dropped, Cat::importNotice,
    N_("D.S. の戻り先（セーニョ）が見つからないので、繰り返しを展開していません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::percussionDropped{
    "percussionDropped", Sev::info, Han::dropped, Cat::importNotice,
    N_("音の高さの無い打楽器のパートが %d つありました。歌えないため、読み込んでいません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::spokenPart{
    "spokenPart", Sev::warning, Han::kept, Cat::importNotice,
    N_("音の高さの無い語りのパートが %d つあります。仮の高さで読みました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::singingStyleWords{
    "singingStyleWords", Sev::info, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::synthParameters{
    "synthParameters", Sev::info, Han::dropped, Cat::importNotice, N_("元のソフトの歌い方のパラメータやカーブが %d か所にあります。Melvo には同じものが無いため、使っていません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::lyricOnRest{
    "lyricOnRest", Sev::warning, Han::dropped, Cat::importNotice,
    N_("休符に付いた歌詞が %d 個あります。歌う音が無いため、使っていません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::gracesWithoutLyric{
    "gracesWithoutLyric", Sev::info, Han::dropped, Cat::decoration,
    N_("歌詞の無い装飾音が %d 個あります。歌わない飾りのため、読み込んでいません。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::pitchOffsetWhole{
    "pitchOffsetWhole", Sev::warning, Han::kept, Cat::importNotice, N_("元のソフトで音の高さが全体にずらされていた所が %d か所あります。ずらしたまま読みました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::silentInSource{
    "silentInSource", Sev::warning, Han::kept, Cat::ghostVelocity, N_("元のソフトで鳴らない設定の音が %d 個あります。そのまま残しました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::phonemeOverride{
    "phonemeOverride", Sev::warning, Han::kept, Cat::importNotice, N_("発音記号で指定された音が %d 個あります。歌詞のかなで歌います。"), nullptr, {}};
const ImportNoticeKind notice_kinds::rapNotes{
    "rapNotes", Sev::info, Han::kept, Cat::importNotice, N_("ラップ（語り）の音が %d 個あります。普通の音として歌います。"), nullptr, {}};
const ImportNoticeKind notice_kinds::tracksDropped{
    "tracksDropped", Sev::info, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::falsetto{
    "falsetto", Sev::info, Han::dropped, Cat::importNotice, N_("ファルセットの指定が %d か所あります。NEUTRINO には指定できないため、使っていません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::breathConverted{
    "breathConverted", Sev::info, Han::converted, Cat::importNotice,
    N_("ブレス記号が %d か所あります。その音の後ろのブレスとして読みました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::karaokeTextLyrics{
    "karaokeTextLyrics", Sev::info, Han::converted, Cat::importNotice, N_("カラオケの形式のテキスト %d 個を歌詞として読みました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::smpteMIDI{
    "smpteMIDI", Sev::info, Han::converted, Cat::tempoIssue,
    N_("この MIDI は時間を秒（SMPTE）で持っています。拍に直して読みました。"),
    N_("テンポは ♩=120 の1つにし、音の始まる秒は元のままにしました。…"),
    {}};

// --- MusicXML -----------------------------------------------------------------------------------

const ImportNoticeKind notice_kinds::mxSyllablesSplit{
    "mxSyllablesSplit", Sev::info, Han::converted, Cat::multiSyllable,
    N_("音素が多すぎて1つの音符では歌えない歌詞が %d 個ありました（NEUTRINO は1音に8個まで）。音節ごとに音符を分けました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxGraceNotPlaced{
    "mxGraceNotPlaced", Sev::warning, Han::dropped, Cat::decoration,
    N_("歌詞のある装飾音のうち %d 個は、置く場所が無く読み込めませんでした（歌詞は場所の欄に出ています）。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxMetricModulation{
    "mxMetricModulation", Sev::info, Han::converted, Cat::tempoIssue,
    N_("拍の置き換え（♩=♩. など）が %d か所あります。テンポに直して読みました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxSpecialNoteheads{
    "mxSpecialNoteheads", Sev::info, Han::dropped, Cat::decoration,
    N_("特別な符頭（× など）の音が %d 個あります。ふつうの音として読みました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxPronunciationMarks{
    "mxPronunciationMarks", Sev::info, Han::dropped, Cat::importNotice,
    N_("発音記号（IPA）が %d か所あります。発音記号は使わず、歌詞で歌います。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxCodaNotFound{
    "mxCodaNotFound", Sev::warning, Han::dropped, Cat::importNotice,
    N_("To Coda の飛び先（Coda）が見つからないので、跳ばずにそのまま歌います。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxTieAcrossGap{
    "mxTieAcrossGap", Sev::info, Han::dropped, Cat::importNotice,
    N_("間のあいたタイが %d か所あります。つながずに2つの音のままにしました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxSlurMelisma{
    "mxSlurMelisma", Sev::info, Han::converted, Cat::importNotice,
    N_("スラーや伸ばし線の中の歌詞の無い音 %d 個を、前の音を伸ばす「ー」にしました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxUnreadablePitch{
    "mxUnreadablePitch", Sev::warning, Han::converted, Cat::importNotice,
    N_("高さを読めない音が %d 個あります。仮の高さ（C4 など）に置きました。元の書き方は場所の欄に出ています。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxTempoOutOfRange{
    "mxTempoOutOfRange", Sev::warning, Han::converted, Cat::tempoIssue,
    N_("範囲（♩=1〜1000）の外のテンポが %d か所あります。1000 を超えるものは 1000 に、0 以下や数の無いものは前のテンポのままにしました。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxUnsungLyricLine{
    "mxUnsungLyricLine", Sev::info, Han::kept, Cat::importNotice,
    N_("このトラックにも歌詞のある線があります（%d音）。合成は選んでいるトラック1本だけを歌うため、このトラックは選んだ時だけ歌います。"),
    nullptr, {}};
const ImportNoticeKind notice_kinds::mxVoiceWithoutLyrics{
    "mxVoiceWithoutLyrics", Sev::info, Han::converted, Cat::importNotice,
    N_("歌が休む所に、歌詞の無い別の声部（ピアノの段など）の音が %d 個ありました。歌わない別のトラックに分けました。"),
    nullptr, {N_("歌のトラックに戻す")}};
const ImportNoticeKind notice_kinds::mxHummingLaughing{
    "mxHummingLaughing", Sev::info, Han::dropped, Cat::importNotice,
    N_("ハミングや笑い声の指定が %d か所あります。指定は使わず、歌詞のとおりに歌います。"),
    nullptr, {}};

// --- Piapro, common project checks, Synthesizer V -----------------------------------------------

const ImportNoticeKind notice_kinds::ppsfMutedNotes{
    "ppsfMutedNotes", Sev::info, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::ppsfTrackFlags{
    "ppsfTrackFlags", Sev::info, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::ppsfTempoCurve{
    "ppsfTempoCurve", Sev::warning, Han::converted, Cat::tempoIssue, "", nullptr, {}};
const ImportNoticeKind notice_kinds::sourceTempoClamped{
    "sourceTempoClamped", Sev::warning, Han::converted, Cat::tempoIssue, "", nullptr, {}};
const ImportNoticeKind notice_kinds::sourceTempoDuplicate{
    "sourceTempoDuplicate", Sev::info, Han::dropped, Cat::tempoIssue, "", nullptr, {}};
const ImportNoticeKind notice_kinds::sourceMeterDuplicate{
    "sourceMeterDuplicate", Sev::info, Han::dropped, Cat::timeSigIssue, "", nullptr, {}};
const ImportNoticeKind notice_kinds::sourceMeterBeforeStart{
    "sourceMeterBeforeStart", Sev::info, Han::converted, Cat::timeSigIssue, "", nullptr, {}};
const ImportNoticeKind notice_kinds::sourcePitchClamped{
    "sourcePitchClamped", Sev::warning, Han::converted, Cat::outOfRange, "", nullptr, {}};
const ImportNoticeKind notice_kinds::svpForeignVoiceGroup{
    "svpForeignVoiceGroup", Sev::info, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::svpBreathNote{
    "svpBreathNote", Sev::info, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::svpBreathSilenceRest{
    "svpBreathSilenceRest", Sev::info, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::svpNotesBeforeZero{
    "svpNotesBeforeZero", Sev::warning, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::svpNotesOnlyBeforeZero{
    "svpNotesOnlyBeforeZero", Sev::warning, Han::converted, Cat::importNotice, "", nullptr, {}};

// --- UTAU and OpenUtau --------------------------------------------------------------------------

const ImportNoticeKind notice_kinds::utauSuffixRemoved{
    "utauSuffixRemoved", Sev::info, Han::converted, Cat::utauResidue, N_("歌詞の後ろの記号（強・弱・↑・音名など）を %d か所で取りました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::openUtauHyphen{
    "openUtauHyphen", Sev::info, Han::converted, Cat::utauResidue, N_("OpenUtau の「-」%d 個を「ー」として読みました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::glottalOnlyLyric{
    "glottalOnlyLyric", Sev::info, Han::converted, Cat::utauResidue, N_("「'」だけの歌詞が %d 個あります。前の音に続く所は「ー」、それ以外は休符にしました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::phoneticHintRemoved{
    "phoneticHintRemoved", Sev::info, Han::converted, Cat::utauResidue, N_("歌詞の中の［…］の発音の指定を %d か所で取り、前のかなを残しました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::phoneticHintWithoutKana{
    "phoneticHintWithoutKana", Sev::warning, Han::converted, Cat::utauResidue, N_("かなの無い［…］の発音の指定だけの歌詞が %d 個あります。"), nullptr, {}};
const ImportNoticeKind notice_kinds::cvvcVowelLink{
    "cvvcVowelLink", Sev::info, Han::converted, Cat::utauResidue, N_("CVVC のつなぎの音 %d 個を、前の音の長さに足しました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::foreignLanguageNotes{
    "foreignLanguageNotes", Sev::warning, Han::kept, Cat::importNotice, N_("日本語以外の歌詞の音が %d 個あります。NEUTRINO の日本語の声では歌えないかもしれません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::foreignVoiceTrack{
    "foreignVoiceTrack", Sev::warning, Han::kept, Cat::importNotice, N_("日本語以外の声のトラックが %d つあります。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauTempoReplaced{
    "utauTempoReplaced", Sev::warning, Han::converted, Cat::tempoIssue, N_("読めないか範囲の外のテンポが %d か所あります。前のテンポ（無ければ ♩=120）にしました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauNoteDropped{
    "utauNoteDropped", Sev::warning, Han::dropped, Cat::importNotice, N_("長さや位置が読めない音が %d 個あり、読み込んでいません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauPitchReplaced{
    "utauPitchReplaced", Sev::warning, Han::converted, Cat::importNotice, N_("音の高さが無いか読めない音が %d 個あります。仮の高さにしました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauVCLinkedShort{
    "utauVCLinkedShort", Sev::info, Han::converted, Cat::utauResidue, N_("短いつなぎの音 %d 個を、前の音の長さに足しました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauBreathNote{
    "utauBreathNote", Sev::info, Han::converted, Cat::importNotice, N_("息の音 %d 個を、前の音の後の息継ぎと休符にしました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauLengthTooLong{
    "utauLengthTooLong", Sev::warning, Han::converted, Cat::importNotice, N_("長すぎて読めない長さの音が %d 個あり、4分音符4つ分の長さにしました。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauBeyondExportLimit{
    "utauBeyondExportLimit", Sev::warning, Han::kept, Cat::beyondExportLimit, N_("書き出せる範囲より後ろの音が %d 個あります。残しましたが、歌わせるには前へ動かしてください。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauBeyondTickLimit{
    "utauBeyondTickLimit", Sev::warning, Han::dropped, Cat::beyondExportLimit, N_("扱える位置より後ろの音が %d 個あり、読み込んでいません。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauEncodingGuessed{
    "utauEncodingGuessed", Sev::info, Han::converted, Cat::importNotice, N_("文字コードが UTF-8 でも Shift-JIS でもないため、推測して読みました（%d 件）。使った文字コードは場所の欄に出ています。"), nullptr, {}};
const ImportNoticeKind notice_kinds::utauBrokenChars{
    "utauBrokenChars", Sev::warning, Han::converted, Cat::importNotice, N_("読めない文字を含む歌詞が %d 個あります（「�」で表しています）。"), nullptr, {}};
const ImportNoticeKind notice_kinds::ustxUnreadLines{
    "ustxUnreadLines", Sev::warning, Han::dropped, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::ustxUnclosedQuote{
    "ustxUnclosedQuote", Sev::warning, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::ustxResolutionInvalid{
    "ustxResolutionInvalid", Sev::warning, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::ustxReadAsShiftJIS{
    "ustxReadAsShiftJIS", Sev::info, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::ustxTrackNoGuessed{
    "ustxTrackNoGuessed", Sev::info, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::ustxTrackNoInvalid{
    "ustxTrackNoInvalid", Sev::warning, Han::converted, Cat::importNotice, "", nullptr, {}};
const ImportNoticeKind notice_kinds::phonemeOverrideNoKana{
    "phonemeOverrideNoKana", Sev::warning, Han::kept, Cat::importNotice, N_("発音記号だけで、かなの歌詞が無い音が %d 個あります。"), nullptr, {}};

// clang-format on

// --- Lookup -------------------------------------------------------------------------------------

const std::vector<const ImportNoticeKind*>& allNoticeKinds() {
#define MELVO_NOTICE_KIND_ADDRESS(k) &notice_kinds::k,
  static const std::vector<const ImportNoticeKind*> kinds{
      MELVO_NOTICE_KINDS(MELVO_NOTICE_KIND_ADDRESS)};
#undef MELVO_NOTICE_KIND_ADDRESS
  return kinds;
}

const ImportNoticeKind* findNoticeKind(std::string_view key) {
  // Keyed by the macro's own spelling rather than each instance's `key`, so the table is sound
  // even when asked during another file's static initialisation, before the instances are.
#define MELVO_NOTICE_KIND_ENTRY(k) {#k, &notice_kinds::k},
  static const std::unordered_map<std::string_view, const ImportNoticeKind*> byKey{
      MELVO_NOTICE_KINDS(MELVO_NOTICE_KIND_ENTRY)};
#undef MELVO_NOTICE_KIND_ENTRY
  const auto it = byKey.find(key);
  if (it != byKey.end()) return it->second;
  if (key.starts_with(kOtherVersePrefix)) {
    const std::string_view verse = key.substr(kOtherVersePrefix.size());
    if (!verse.empty() && verse != "2") return &otherVerseNoticeKind(verse);
  }
  return nullptr;
}

const ImportNoticeKind& otherVerseNoticeKind(std::string_view verse) {
  static std::mutex mutex;
  // A deque: kinds handed out never move.
  static std::deque<std::pair<std::string, ImportNoticeKind>> kinds;
  std::lock_guard lock(mutex);
  std::string key(kOtherVersePrefix);
  key.append(verse);
  for (const auto& [k, kind] : kinds)
    if (k == key) return kind;
  auto& entry = kinds.emplace_back(std::move(key), ImportNoticeKind{});
  entry.second = ImportNoticeKind{
      entry.first.c_str(),
      Sev::info,
      Han::dropped,
      Cat::importNotice,
      N_("ほかの番の歌詞（%d音）があります。今は歌いません（どの番かは場所の欄に出ています）。"),
      nullptr,
      {N_("この番の歌詞で歌う")}};
  return entry.second;
}

namespace {

// A place of these kinds is about the lyric itself, so a lyric edit is the user's answer.
constexpr std::array<std::string_view, 17> kLyricSensitive{
    "twoLyricsOnOneNote",
    "elision",
    "midiLyricWithoutOnset",
    "midiLyricMovedNote",
    "midiOrnamentNotes",
    "midiMelisma",
    "openUtauHyphen",
    "glottalOnlyLyric",
    "phoneticHintWithoutKana",
    "phonemeOverride",
    "mxSlurMelisma",
    "mxTieAcrossGap",
    "midiLyricOverflow",
    "midiLyricGarbled",
    "phonemeOverrideNoKana",
    "cevioLyricFromPhoneme",
    "midiLyricOverflowInChord",
};

// These tell of the performance (held notes, voice colour, pitch), which no lyric edit answers.
constexpr std::array<std::string_view, 14> kAlwaysKept{
    "fermata",          "silentInSource",  "ornaments",         "glissando",          "falsetto",
    "rapNotes",         "spokenPart",      "singingStyleWords", "synthParameters",    "microtones",
    "pitchOffsetWhole", "breathConverted", "secondVerse",       "gracesWithoutLyric",
};

// The score check finds these itself on the very same notes; two rows would say it twice.
constexpr std::array<std::string_view, 2> kSuppressedByValidator{"twoLyricsOnOneNote", "elision"};

template <std::size_t N>
bool contains(const std::array<std::string_view, N>& set, std::string_view key) {
  return std::find(set.begin(), set.end(), key) != set.end();
}

}  // namespace

bool isLyricSensitiveNotice(std::string_view key) {
  return contains(kLyricSensitive, key);
}

bool isAlwaysKeptNotice(std::string_view key) {
  return contains(kAlwaysKept, key);
}

bool isSuppressedByValidatorFinding(std::string_view key) {
  return contains(kSuppressedByValidator, key);
}

}  // namespace melvo
