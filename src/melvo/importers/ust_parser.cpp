#include "melvo/importers/ust_parser.h"

#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include <charconv>
#include <cmath>

#include "melvo/checking/kana_table.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/importers/import_findings.h"
#include "melvo/model/sung_line.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/charset.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo {

const char* const kTooManyNotesKey = N_(
    "このファイルは音の数が多すぎるため（%d 音を越えています）、開きませんでした。元のソフトで曲を"
    "いくつかに分けて書き出してから開いてください。");

namespace {

constexpr const char* kDecodingFailed =
    N_("UST の文字コードを判別できませんでした（Shift-JIS・UTF-8 などを試しました）。UTAU "
       "で開いて保存し直すか、文字コードを UTF-8 にして保存し直してから開いてください。");
constexpr const char* kNoNotes =
    N_("UST 内に音符が見つかりませんでした。UTAU で開いて音符が在るか確かめ、保存し直してから開い"
       "てください。");

constexpr std::size_t kNoteLimit = 200000;
constexpr std::int64_t kTicksPerQuarter = 480;
constexpr std::int64_t kOneBar = 4 * kTicksPerQuarter;
// A consonant link that does not lead into the next note is taken for the tail of the note
// before only while it is this short (an eighth note).
constexpr std::int64_t kShortLink = kTicksPerQuarter / 2;

// ---- Encoding ----

struct Decoded {
  std::string text;
  std::optional<std::string> guessedName;  // set for the encodings beyond UTF-8 and Shift-JIS
};

bool holdsLyricLine(std::string_view s) {
  return s.find("Lyric=") != std::string_view::npos;
}

// How well the lyrics fit the script of a song: the Japanese and the legacy Chinese and
// Korean sets accept much the same bytes, but not as the same text. `clean` when no lyric
// holds a scalar that no song would (half-width kana, symbols, rare ideographs).
struct Fit {
  long score = 0;
  bool clean = true;
};

// The legacy Chinese and Korean sets overlap so far that Korean read as Chinese gives
// common ideographs, and Chinese read as Korean gives syllables. What tells them apart is
// which reading yields the characters songs are made of: the most frequent syllables of
// Korean lyrics and the most frequent characters of Chinese ones (both scripts of it).
bool isFrequentLyricScalar(char32_t c) {
  static constexpr std::u32string_view kFrequent =
      U"이다는의에가하고을를지기서사한로도리자어아나시일대인수정보게해주전들그면소상우라만것내오부"
      U"있요니까네랑마음너날밤별꿈눈물바람늘노래세난또없을잊길속안보여줘워봐요해줘어떻게같은모든"
      U"的一是不了在人有我他这个们中来上大为和国地到以说时要就出会可也你对生能而子那得于着下自之"
      U"年过发后作里用道行所然家种事成方多经么去法学如都同现当没动面起看定天分还进好小部其些主样"
      U"理心她本前开但因只从想实日爱情风梦月花雨夜歌泪春們個這來為國說時會對過發後裡種經麼學現當"
      U"沒動還進開實從愛夢淚風歡聲誰讓";
  return kFrequent.find(c) != std::u32string_view::npos;
}

Fit plausibility(std::string_view s) {
  Fit fit;
  std::size_t pos = 0;
  while ((pos = s.find("Lyric=", pos)) != std::string_view::npos) {
    pos += 6;
    std::size_t end = s.find('\n', pos);
    if (end == std::string_view::npos) end = s.size();
    std::string_view lyric = s.substr(pos, end - pos);
    std::size_t i = 0;
    while (i < lyric.size()) {
      const char32_t c = text::nextScalar(lyric, i);
      if (isFrequentLyricScalar(c)) {
        fit.score += 3;
      } else if (c < 0x80 || inKanaRange(c) || (c >= 0xAC00 && c <= 0xD7A3) ||
                 (c >= 0x4E00 && c < 0x8C00) || c == U'強' || c == U'弱' || c == U'息' ||
                 c == U'吸' || c == U'↑' || c == U'↓') {
        fit.score += 1;
      } else if (c >= 0x4E00 && c <= 0x9FFF) {
        // Common ideographs lie low in the block; a wrong decoding scatters over all of it.
      } else {
        fit.score -= 2;
        fit.clean = false;
      }
    }
    pos = end;
  }
  return fit;
}

// Every byte sequence becomes text; what the set does not define becomes U+FFFD.
std::optional<std::string> decodeLenient(std::string_view bytes, const char* name) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open(name, &status);
  if (U_FAILURE(status)) return std::nullopt;
  icu::UnicodeString u(bytes.data(), static_cast<int32_t>(bytes.size()), converter, status);
  ucnv_close(converter);
  if (U_FAILURE(status)) return std::nullopt;
  std::string out;
  u.toUTF8String(out);
  // ICU substitutes some unassigned single bytes with SUB; one mark for everything unread.
  std::string cleaned;
  cleaned.reserve(out.size());
  for (char ch : out) {
    if (ch == '\x1A') {
      text::appendScalar(cleaned, text::kReplacement);
    } else {
      cleaned.push_back(ch);
    }
  }
  return cleaned;
}

Decoded decodeUst(std::string_view bytes) {
  if (text::startsWith(bytes, "\xEF\xBB\xBF")) bytes.remove_prefix(3);
  std::optional<std::string> firstReadable;
  if (text::isValidUtf8(bytes)) {
    if (holdsLyricLine(bytes)) return {std::string(bytes), std::nullopt};
    firstReadable = std::string(bytes);
  }
  std::optional<Decoded> best;
  long bestScore = 0;
  if (auto s = charset::decodeShiftJIS(bytes)) {
    if (holdsLyricLine(*s)) {
      const Fit fit = plausibility(*s);
      if (fit.clean) return {std::move(*s), std::nullopt};
      best = Decoded{std::move(*s), std::nullopt};
      bestScore = fit.score;
    } else if (!firstReadable) {
      firstReadable = std::move(s);
    }
  }
  // A file cut inside its last character: the Japanese sets with that character unread.
  if (!best && !firstReadable) {
    for (std::size_t cut = 1; cut <= 3 && cut < bytes.size(); ++cut) {
      std::string_view head = bytes.substr(0, bytes.size() - cut);
      std::optional<std::string> s;
      if (text::isValidUtf8(head)) {
        s = std::string(head);
      } else {
        s = charset::decodeShiftJIS(head);
      }
      if (s && holdsLyricLine(*s)) {
        text::appendScalar(*s, text::kReplacement);
        return {std::move(*s), std::nullopt};
      }
    }
  }
  for (const char* name : {"GB18030", "Big5", "EUC-KR"}) {
    auto s = charset::decode(bytes, name);
    if (!s || !holdsLyricLine(*s)) continue;
    const long score = plausibility(*s).score;
    if (!best || score > bestScore) {
      best = Decoded{std::move(*s), std::string(name)};
      bestScore = score;
    }
  }
  if (best) return std::move(*best);
  if (firstReadable) return {std::move(*firstReadable), std::nullopt};
  // Nothing reads as a whole: the Japanese set, with what it cannot read marked.
  if (auto s = decodeLenient(bytes, "windows-31j"); s && holdsLyricLine(*s))
    return {std::move(*s), std::nullopt};
  throw USTParser::ParseError(USTParser::ParseError::Case::decodingFailed);
}

// ---- Values ----

enum class IntRead { ok, unreadable, tooLarge };

IntRead readCount(std::string_view s, std::int64_t& out) {
  s = text::trimWhitespace(s);
  if (s.empty()) return IntRead::unreadable;
  for (char c : s)
    if (c < '0' || c > '9') return IntRead::unreadable;
  const auto r = std::from_chars(s.data(), s.data() + s.size(), out);
  if (r.ec == std::errc::result_out_of_range) return IntRead::tooLarge;
  if (r.ec != std::errc{}) return IntRead::unreadable;
  return out > maxTick ? IntRead::tooLarge : IntRead::ok;
}

std::optional<int> readPitch(std::string_view s) {
  s = text::trimWhitespace(s);
  int v = 0;
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  if (s.empty() || r.ec != std::errc{} || r.ptr != s.data() + s.size()) return std::nullopt;
  if (v < 0 || v > 127) return std::nullopt;
  return v;
}

std::optional<double> readTempo(std::string_view s) {
  std::string t(text::trimWhitespace(s));
  for (char& c : t)
    if (c == ',') c = '.';  // written by tools running in a decimal-comma locale
  double v = 0;
  const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
  if (t.empty() || r.ec != std::errc{} || r.ptr != t.data() + t.size()) return std::nullopt;
  if (!std::isfinite(v) || v < 1 || v > 1000) return std::nullopt;
  return v;
}

// ---- Sections ----

// "#0000", "#12", "#0": a note; other names (#SETTING, #VERSION, #TRACKEND, #PREV...) are not.
bool isNoteSection(std::string_view name) {
  if (name.size() < 2 || name[0] != '#') return false;
  for (char c : name.substr(1))
    if (c < '0' || c > '9') return false;
  return true;
}

bool isSettingSection(std::string_view name) {
  return name == "#SETTING" || name == "SETTING";
}

struct Sections {
  std::vector<USTParser::RawNote> notes;
  bool closed = false;  // a section after the last note, as every writer ends the file
  std::optional<std::string> tempo;
  std::string projectName;
};

Sections readSections(std::string_view text) {
  Sections out;
  enum class In { none, setting, note, other } in = In::none;
  USTParser::RawNote* note = nullptr;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text::trimWhitespaceAndNewlines(text.substr(pos, end - pos));
    pos = end + 1;
    if (line.empty()) continue;
    if (line.front() == '[' && line.back() == ']' && line.size() >= 2) {
      std::string_view name = text::trimWhitespace(line.substr(1, line.size() - 2));
      if (isNoteSection(name)) {
        if (out.notes.size() >= kNoteLimit)
          throw ImportError(kTooManyNotesKey, trf(kTooManyNotesKey, {std::to_string(kNoteLimit)}));
        out.notes.emplace_back();
        out.notes.back().fields.reserve(16);
        out.closed = false;
        note = &out.notes.back();
        in = In::note;
      } else {
        in = isSettingSection(name) ? In::setting : In::other;
        note = nullptr;
        out.closed = !out.notes.empty();
      }
      continue;
    }
    const std::size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    std::string_view key = text::trimWhitespace(line.substr(0, eq));
    std::string_view value = line.substr(eq + 1);
    if (in == In::setting) {
      if (key == "Tempo") out.tempo = std::string(value);
      if (key == "ProjectName") out.projectName = std::string(text::trimWhitespace(value));
    } else if (in == In::note && note) {
      note->fields.emplace_back(key, value);
    }
  }
  return out;
}

// ---- Lyrics ----

bool isRestLyric(std::string_view s) {
  static constexpr std::string_view rests[] = {"", "R", "r", "rest", "Rest", "REST", "pau", "sil"};
  for (std::string_view r : rests)
    if (s == r) return true;
  return false;
}

bool isVowelName(std::string_view s) {
  return s == "a" || s == "i" || s == "u" || s == "e" || s == "o" || s == "n" || s == "N";
}

bool isAsciiWord(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) return false;
  return true;
}

// VCV spelling "a か", "- か", "* か": the vowel or mark before the space is how the sample
// was recorded; the kana after it is what is sung.
std::optional<std::string_view> vcvKana(std::string_view s) {
  const std::size_t space = s.find(' ');
  if (space == std::string_view::npos) return std::nullopt;
  std::string_view head = s.substr(0, space);
  std::string_view tail = text::trimWhitespace(s.substr(space + 1));
  if (!(isVowelName(head) || head == "-" || head == "*" || head == "ん")) return std::nullopt;
  if (tail.empty() || !hasKana(tail)) return std::nullopt;
  return tail;
}

// The consonant the lyric starts with, as the engine's phonemes spell it; empty for a vowel.
std::string leadingConsonant(std::string_view lyric) {
  if (auto kana = vcvKana(lyric)) lyric = *kana;
  const LyricReading reading = readLyric(lyric);
  if (reading.units.empty()) return {};
  std::string_view unit = reading.units.front();
  std::string_view first = unit.substr(0, unit.find(' '));
  if (isVowelName(first) || first == "cl" || first == "ー") return {};
  return std::string(first);
}

// Tags after a kana lyric: strength, pitch and colour suffixes ("強", "↑", "D4", "_2").
bool isTagScalar(char32_t c) {
  return c == U'強' || c == U'弱' || c == U'↑' || c == U'↓' || c == U'%' || c == U'_' ||
         c == U' ' || c == U'#' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
         (c >= 'A' && c <= 'Z');
}

std::optional<std::string> withoutTags(std::string_view s) {
  std::size_t i = 0, kanaEnd = 0;
  while (i < s.size()) {
    const char32_t c = text::nextScalar(s, i);
    if (!inKanaRange(c)) break;
    kanaEnd = i;
  }
  if (kanaEnd == 0 || kanaEnd == s.size()) return std::nullopt;
  std::size_t j = kanaEnd;
  while (j < s.size())
    if (!isTagScalar(text::nextScalar(s, j))) return std::nullopt;
  return std::string(s.substr(0, kanaEnd));
}

struct Builder {
  MusicDocument document;
  ImportFindings findings;
  std::vector<NoteEvent> notes;
  std::int64_t cursor = 0;
  int lastPitch = 60;
  double tempo = 120;

  // The note sung just before `cursor`, with no gap between.
  NoteEvent* adjacentPrevious() {
    if (notes.empty() || notes.back().endTick() != cursor) return nullptr;
    return &notes.back();
  }
};

std::string placeText(std::string_view lyric, std::string_view key, std::string_view value) {
  std::string t(lyric);
  if (!t.empty()) t += ' ';
  t += '(';
  t += key;
  t += '=';
  t += value;
  t += ')';
  return t;
}

void readTempoField(Builder& b, const USTParser::RawNote& raw) {
  const std::string_view* value = raw.field("Tempo");
  if (!value) return;
  if (auto bpm = readTempo(*value)) {
    if (*bpm == b.tempo) return;
    b.tempo = *bpm;
    auto& map = b.document.tempoMap;
    if (map.back().tick == b.cursor) {
      map.back().bpm = *bpm;
    } else {
      map.push_back({b.cursor, *bpm});
    }
    return;
  }
  b.document.addNotice(notice_kinds::utauTempoReplaced, std::nullopt, std::nullopt, b.cursor,
                       "Tempo=" + std::string(*value));
}

void readNote(Builder& b, USTParser::RawNote& raw, const USTParser::RawNote* next, bool cutShort) {
  readTempoField(b, raw);
  const std::string_view* lyricField = raw.field("Lyric");
  const std::string_view* lengthField = raw.field("Length");
  raw.lyric = lyricField ? std::string(text::trimWhitespace(*lyricField)) : std::string();
  raw.lengthShown = lengthField ? *lengthField : std::string();
  // A section without a lyric or a length is one cut short (or hand-edited past reading); so
  // is the last one of a file that ends inside it, before its pitch.
  if (!lyricField || !lengthField || (cutShort && !raw.field("NoteNum"))) {
    const char* missing = !lengthField ? "Length" : !lyricField ? "Lyric" : "NoteNum";
    b.findings.dropped.push_back({std::nullopt, b.cursor, placeText(raw.lyric, missing, "")});
    return;
  }
  switch (readCount(raw.lengthShown, raw.length)) {
    case IntRead::ok:
      if (raw.length > 0) break;
      [[fallthrough]];
    case IntRead::unreadable:
      b.findings.dropped.push_back(
          {std::nullopt, b.cursor, placeText(raw.lyric, "Length", raw.lengthShown)});
      return;
    case IntRead::tooLarge:
      raw.lengthTooLong = true;
      raw.length = kOneBar;
      break;
  }
  const std::int64_t tick = b.cursor;
  if (tick + raw.length > maxTick) {
    b.findings.beyondTick.push_back({std::nullopt, tick, raw.lyric});
    b.cursor = maxTick;
    return;
  }
  b.cursor = tick + raw.length;
  auto tooLong = [&](std::optional<Uuid> id) {
    if (raw.lengthTooLong)
      b.findings.tooLong.push_back({id, tick, placeText(raw.lyric, "Length", raw.lengthShown)});
  };

  std::string lyric = raw.lyric;
  const std::string shown = raw.lyric;
  const bool broken = lyric.find("\xEF\xBF\xBD") != std::string::npos;
  // Everything that leaves the time as a rest.
  if (isRestLyric(lyric)) return tooLong(std::nullopt);
  // Plain kana, nearly every note, has no marks, is no breath and no link: spare it the rules.
  const bool plainKana = isPlainKana(lyric);
  if (!plainKana) {
    if (auto bare = withoutUtauMarks(lyric); !bare || isRestLyric(*bare))
      return tooLong(std::nullopt);
  }

  b.cursor = tick;  // the previous note is judged as it ends here
  NoteEvent* previous = b.adjacentPrevious();
  b.cursor = tick + raw.length;

  if (!plainKana && isBreathMark(lyric)) {
    if (previous) previous->hasBreathAfter = true;
    b.findings.utauBreath.push_back({std::nullopt, tick, shown});
    return tooLong(std::nullopt);
  }
  if (auto kana = vcvKana(lyric)) lyric = std::string(*kana);
  // CVVC and VC links: "a e", "a -", "a k". They carry the tail of the note before.
  if (const std::size_t space = lyric.find(' '); space != std::string::npos) {
    std::string_view head = std::string_view(lyric).substr(0, space);
    std::string_view tail = text::trimWhitespace(std::string_view(lyric).substr(space + 1));
    if (isVowelName(head) && (isAsciiWord(tail) || tail == "-")) {
      const bool vowelTail = isVowelName(tail) || tail == "-";
      const bool leadsOn =
          vowelTail || (next && leadingConsonant(text::trimWhitespace(
                                    next->field("Lyric") ? *next->field("Lyric") : "")) == tail);
      if (leadsOn || raw.length <= kShortLink) {
        if (previous) {
          previous->duration += raw.length;
          if (leadsOn) {
            b.findings.vowelLink.push_back(
                {{previous->id, tick, shown}, raw.length, previous->lyric});
          } else {
            b.findings.vcShort.push_back({previous->id, tick, shown});
          }
        }
        return tooLong(std::nullopt);
      }
    }
  }
  std::optional<int> pitch;
  if (const std::string_view* nn = raw.field("NoteNum")) pitch = readPitch(*nn);
  if (!pitch) raw.pitchShown = raw.field("NoteNum") ? *raw.field("NoteNum") : std::string();
  raw.noteNum = pitch.value_or(b.lastPitch);

  enum class Told { none, hyphen, glottal, hint, hintNoKana };
  Told told = Told::none;
  bool tagsRemoved = false;
  if (lyric == "-") {
    lyric = "ー";
    told = Told::hyphen;
  } else if (lyric == "'") {
    if (!previous) {
      b.findings.glottal.push_back({{std::nullopt, tick, shown}, false});
      return tooLong(std::nullopt);
    }
    lyric = "ー";
    told = Told::glottal;
  } else {
    const std::size_t open = lyric.find('[');
    if (open != std::string::npos && lyric.back() == ']') {
      std::string before(text::trimWhitespace(std::string_view(lyric).substr(0, open)));
      if (hasKana(before)) {
        lyric = std::move(before);
        told = Told::hint;
      } else {
        told = Told::hintNoKana;
      }
    }
    if (told != Told::hintNoKana) {
      if (auto bare = withoutTags(lyric)) {
        lyric = std::move(*bare);
        tagsRemoved = true;
      }
    }
  }

  NoteEvent note = NoteEvent::make(Uuid::random(), tick, raw.length, raw.noteNum, 100, lyric);
  b.lastPitch = note.pitch;
  const Uuid id = note.id;
  if (raw.pitchShown)
    b.findings.pitchFix.push_back({id, tick, placeText(shown, "NoteNum", *raw.pitchShown)});
  tooLong(id);
  if (tagsRemoved) b.findings.suffix.push_back({id, tick, shown});
  switch (told) {
    case Told::none:
      break;
    case Told::hyphen:
      b.findings.hyphen.push_back({id, tick, shown});
      break;
    case Told::glottal:
      b.findings.glottal.push_back({{id, tick, shown}, true});
      break;
    case Told::hint:
      b.findings.hint.push_back({id, tick, shown});
      break;
    case Told::hintNoKana:
      b.findings.hintNoKana.push_back({id, tick, shown});
      break;
  }
  if (broken) b.findings.broken.push_back({id, tick, shown});
  b.notes.push_back(std::move(note));
}

}  // namespace

USTParser::ParseError::ParseError(Case c)
    : ImportError(c == Case::decodingFailed ? kDecodingFailed : kNoNotes,
                  tr(c == Case::decodingFailed ? kDecodingFailed : kNoNotes)),
      case_(c) {}

const std::string_view* USTParser::RawNote::field(std::string_view key) const {
  // Later keys win, as a hand-edited file that repeats a key means the last one.
  for (auto it = fields.rbegin(); it != fields.rend(); ++it)
    if (it->first == key) return &it->second;
  return nullptr;
}

MusicDocument USTParser::parse(const std::filesystem::path& path) {
  return parseBytes(readFile(path), path.stem().string());
}

MusicDocument USTParser::parseBytes(std::string_view bytes, std::string title) {
  Decoded decoded = decodeUst(bytes);
  Sections sections = readSections(decoded.text);
  if (sections.notes.empty()) throw ParseError(ParseError::Case::noNotes);

  Builder b;
  b.document.ppq = kTicksPerQuarter;
  b.document.title = sections.projectName.empty() ? std::move(title) : sections.projectName;
  if (decoded.guessedName)
    b.document.addNotice(notice_kinds::utauEncodingGuessed, std::nullopt, std::nullopt, 0,
                         *decoded.guessedName);
  if (sections.tempo) {
    if (auto bpm = readTempo(*sections.tempo)) {
      b.tempo = *bpm;
    } else {
      b.document.addNotice(notice_kinds::utauTempoReplaced, std::nullopt, std::nullopt, 0,
                           "Tempo=" + *sections.tempo);
    }
  }
  b.document.tempoMap = {TempoEvent{0, b.tempo}};
  b.notes.reserve(sections.notes.size());
  for (std::size_t i = 0; i < sections.notes.size(); ++i)
    readNote(b, sections.notes[i], i + 1 < sections.notes.size() ? &sections.notes[i + 1] : nullptr,
             !sections.closed && i + 1 == sections.notes.size());

  if (b.notes.empty() && b.findings.dropped.empty() && b.findings.beyondTick.empty())
    throw ParseError(ParseError::Case::noNotes);
  b.document.tracks.front().notes = NoteList(std::move(b.notes));
  if (auto report = exportLimitReport(b.document, 0)) {
    for (const NoteEvent& n : report->beyond)
      b.findings.beyondExport.push_back({n.id, n.tick, n.lyric});
  }
  b.findings.addNotices(b.document, 0);
  return std::move(b.document);
}

}  // namespace melvo
