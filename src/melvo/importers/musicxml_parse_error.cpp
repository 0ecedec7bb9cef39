#include "melvo/importers/musicxml_parse_error.h"

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

}  // namespace melvo
