#include "melvo/interchange/musicxml_parse_error.h"

#include "melvo/platform/i18n.h"

namespace melvo {

MusicXMLParseError MusicXMLParseError::notXML() {
  static const char* key =
      N_("このファイルは MusicXML ではないようです（XML の形になっていません）。ほかのソフトから "
         "MusicXML（.musicxml）か MIDI（.mid）で書き出して開いてください。");
  return MusicXMLParseError(Kind::notXML, key, tr(key));
}

MusicXMLParseError MusicXMLParseError::mxlUnzipFailed() {
  static const char* key =
      N_("この .mxl（圧縮した MusicXML）を開けませんでした。途中で切れているか、壊れています。"
         "書き出したソフトで、もう一度書き出すか、ダウンロードし直してください。");
  return MusicXMLParseError(Kind::mxlUnzipFailed, key, tr(key));
}

MusicXMLParseError MusicXMLParseError::mxlNoScore() {
  static const char* key =
      N_("この .mxl（圧縮した MusicXML）の中に、楽譜が見つかりませんでした。書き出したソフトで、"
         "MusicXML として書き出し直してください。");
  return MusicXMLParseError(Kind::mxlNoScore, key, tr(key));
}

MusicXMLParseError MusicXMLParseError::tooManyMeasures(int limit) {
  static const char* key =
      N_("繰り返し記号（反復・D.C.・D.S.）を展開すると %d "
         "小節を超えるため、読み込みを止めました。繰り返し記号の置き方を確かめてください。");
  MusicXMLParseError e(Kind::tooManyMeasures, key, substitute(tr(key), {std::to_string(limit)}));
  e.limit_ = limit;
  return e;
}

MusicXMLParseError MusicXMLParseError::durationOutOfRange(const std::string& text,
                                                          const std::string& measure) {
  static const char* key =
      N_("この MusicXML の %@ 小節目に、現実的でない長さの音符があります（duration=%@）。"
         "ファイルが壊れている可能性があります。書き出したソフトで、もう一度書き出してください。");
  return MusicXMLParseError(Kind::durationOutOfRange, key, substitute(tr(key), {measure, text}));
}

MusicXMLParseError MusicXMLParseError::durationUnreadable(const std::string& text,
                                                          const std::string& measure) {
  static const char* key =
      N_("この MusicXML の %@ 小節目に、長さを数として読めない音符があります（duration=%@）。"
         "書き出したソフトで、もう一度書き出してください。");
  return MusicXMLParseError(Kind::durationUnreadable, key, substitute(tr(key), {measure, text}));
}

MusicXMLParseError MusicXMLParseError::divisionsUnreadable(const std::string& text,
                                                           const std::string& measure) {
  static const char* key =
      N_("この MusicXML の %@ 小節目の分解能（divisions=%@）を、1 "
         "以上の10進の数として読めません。音の長さを決められないため、読み込みを止めました。"
         "書き出したソフトで、もう一度書き出してください。");
  return MusicXMLParseError(Kind::divisionsUnreadable, key, substitute(tr(key), {measure, text}));
}

MusicXMLParseError MusicXMLParseError::brokenXML(long line) {
  static const char* key =
      N_("この MusicXML は途中で切れているか、壊れているため読めませんでした（%d "
         "行目）。書き出したソフトで、もう一度書き出してください。");
  MusicXMLParseError e(Kind::brokenXML, key, substitute(tr(key), {std::to_string(line)}));
  e.line_ = line;
  return e;
}

MusicXMLParseError MusicXMLParseError::noNotes() {
  static const char* key =
      N_("この MusicXML "
         "には音符がありません。ファイルが壊れているか、別の形式かもしれません。楽譜ソフトで "
         "MusicXML として書き出し直してから開いてください。");
  return MusicXMLParseError(Kind::noNotes, key, tr(key));
}

}  // namespace melvo
