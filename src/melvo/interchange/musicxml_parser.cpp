#include "melvo/interchange/musicxml_parser.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <tuple>
#include <type_traits>
#include <unordered_map>

#include "melvo/checking/lyric_rules.h"
#include "melvo/interchange/midi_file_reader.h"
#include "melvo/interchange/musicxml_parse_error.h"
#include "melvo/interchange/score_decoder.h"
#include "melvo/model/note_color_catalog.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/pcre_pattern.h"
#include "melvo/platform/text.h"
#include "melvo/platform/uuid_sequence.h"

namespace melvo {

namespace {

namespace nk = notice_kinds;

// One ceiling for every reader: the refusal is MIDIFileParser::TooManyNotes with its words.
static_assert(MusicXMLParser::kNoteLimit == MIDIFileParser::kNoteLimit);

// Positions times ticks per quarter can pass 64 bits in a hostile file before the division.
__extension__ typedef __int128 Wide;

// ---- Element names -----------------------------------------------------------------------------

enum class El : std::uint8_t {
  other,
  part,
  measure,
  note,
  rest,
  chord,
  cue,
  unpitched,
  fermata,
  breathMark,
  caesura,
  glide,  // scoop, plop, doit, falloff
  glissando,
  slide,
  wavyLine,
  tremolo,
  play,
  elision,
  humming,
  laughing,
  scorePart,
  partName,
  time,
  beats,
  beatType,
  swing,
  straight,
  grace,
  tie,
  tied,
  lyric,
  text,
  extend,
  slur,
  backup,
  forward,
  transpose,
  chromatic,
  octaveChange,
  direction,
  metronome,
  beatUnit,
  beatUnitDot,
  perMinute,
  offset,
  sound,
  words,
  divisions,
  fifths,
  voice,
  staff,
  step,
  octave,
  alter,
  displayStep,
  displayOctave,
  duration,
  notehead,
  type,
  ipa,
  workTitle,
  movementTitle,
  attributes,
  notations,
  articulations,
  ornaments,
  accidentalMark,
  dot,
};

El elementOf(std::string_view name) {
  static const std::unordered_map<std::string_view, El> names{
      {"part", El::part},
      {"measure", El::measure},
      {"note", El::note},
      {"rest", El::rest},
      {"chord", El::chord},
      {"cue", El::cue},
      {"unpitched", El::unpitched},
      {"fermata", El::fermata},
      {"breath-mark", El::breathMark},
      {"caesura", El::caesura},
      {"scoop", El::glide},
      {"plop", El::glide},
      {"doit", El::glide},
      {"falloff", El::glide},
      {"glissando", El::glissando},
      {"slide", El::slide},
      {"wavy-line", El::wavyLine},
      {"tremolo", El::tremolo},
      {"play", El::play},
      {"elision", El::elision},
      {"humming", El::humming},
      {"laughing", El::laughing},
      {"score-part", El::scorePart},
      {"part-name", El::partName},
      {"time", El::time},
      {"beats", El::beats},
      {"beat-type", El::beatType},
      {"swing", El::swing},
      {"straight", El::straight},
      {"grace", El::grace},
      {"tie", El::tie},
      {"tied", El::tied},
      {"lyric", El::lyric},
      {"text", El::text},
      {"extend", El::extend},
      {"slur", El::slur},
      {"backup", El::backup},
      {"forward", El::forward},
      {"transpose", El::transpose},
      {"chromatic", El::chromatic},
      {"octave-change", El::octaveChange},
      {"direction", El::direction},
      {"metronome", El::metronome},
      {"beat-unit", El::beatUnit},
      {"beat-unit-dot", El::beatUnitDot},
      {"per-minute", El::perMinute},
      {"offset", El::offset},
      {"sound", El::sound},
      {"words", El::words},
      {"divisions", El::divisions},
      {"fifths", El::fifths},
      {"voice", El::voice},
      {"staff", El::staff},
      {"step", El::step},
      {"octave", El::octave},
      {"alter", El::alter},
      {"display-step", El::displayStep},
      {"display-octave", El::displayOctave},
      {"duration", El::duration},
      {"notehead", El::notehead},
      {"type", El::type},
      {"ipa", El::ipa},
      {"work-title", El::workTitle},
      {"movement-title", El::movementTitle},
      {"attributes", El::attributes},
      {"notations", El::notations},
      {"articulations", El::articulations},
      {"ornaments", El::ornaments},
      {"accidental-mark", El::accidentalMark},
      {"dot", El::dot},
  };
  const auto it = names.find(name);
  return it == names.end() ? El::other : it->second;
}

const char* attribute(const XML_Char** attrs, const char* name) {
  for (; attrs && *attrs; attrs += 2)
    if (std::strcmp(attrs[0], name) == 0) return attrs[1];
  return nullptr;
}

bool attributeIs(const XML_Char** attrs, const char* name, std::string_view value) {
  const char* v = attribute(attrs, name);
  return v != nullptr && text::trimWhitespaceAndNewlines(v) == value;
}

// ---- Numbers -----------------------------------------------------------------------------------

// A decimal number as notation programs write it: sign, digits with an optional point, an
// optional exponent, white space around. Anything else is not a number.
std::optional<double> readNumber(std::string_view raw) {
  std::string_view s = text::trimWhitespaceAndNewlines(raw);
  if (s.empty()) return std::nullopt;
  std::size_t i = 0;
  if (s[i] == '+' || s[i] == '-') ++i;
  std::size_t digits = 0;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++digits;
  if (i < s.size() && s[i] == '.') {
    ++i;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++digits;
  }
  if (digits == 0) return std::nullopt;
  if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
    ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    std::size_t exp = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++exp;
    if (exp == 0) return std::nullopt;
  }
  if (i != s.size()) return std::nullopt;
  if (s[0] == '+') s.remove_prefix(1);
  double value = 0;
  const auto r = std::from_chars(s.data(), s.data() + s.size(), value);
  if (r.ec != std::errc() || !std::isfinite(value)) return std::nullopt;
  return value;
}

std::optional<int> readInt(std::string_view raw) {
  const auto v = readNumber(raw);
  if (!v || std::abs(*v) > 1e6) return std::nullopt;
  return static_cast<int>(std::lround(*v));
}

// A note value in quarter notes.
std::optional<double> noteValueQuarters(std::string_view type) {
  static constexpr std::array<std::pair<std::string_view, double>, 12> values{{
      {"maxima", 32},
      {"long", 16},
      {"breve", 8},
      {"whole", 4},
      {"half", 2},
      {"quarter", 1},
      {"eighth", 0.5},
      {"16th", 0.25},
      {"32nd", 0.125},
      {"64th", 0.0625},
      {"128th", 0.03125},
      {"256th", 0.015625},
  }};
  type = text::trimWhitespaceAndNewlines(type);
  for (const auto& [name, q] : values)
    if (name == type) return q;
  return std::nullopt;
}

// MusicXML loudness is a percentage of forte, which is velocity 90. A silent note would be
// taken for a ghost note, so the softest is 1.
std::optional<int> velocityOf(std::string_view percent) {
  const auto v = readNumber(percent);
  if (!v || *v < 0) return std::nullopt;
  return static_cast<int>(std::clamp<double>(std::round(*v * 0.9), 1, 127));
}

double dotted(double quarters, int dots) {
  double total = quarters, add = quarters;
  for (int i = 0; i < dots && i < 8; ++i) total += (add /= 2);
  return total;
}

std::string numberText(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.2f", v);
  std::string s = buf;
  while (!s.empty() && s.back() == '0') s.pop_back();
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s;
}

// ---- Note ids ----------------------------------------------------------------------------------

using IdSource = UuidSequence;

// ---- The reader --------------------------------------------------------------------------------

struct Note {
  NoteEvent ev;
  int staff = 1;
  bool chordMember = false;
  bool sungLyric = false;  // a lyric of the sung line, not a held "ー"
};

struct VoiceState {
  int slurDepth = 0;
  bool extendOpen = false;
  bool prevHasLyric = false;
};

struct PendingGrace {
  int pitch = 60;
  std::string lyric;
  bool slash = false;
  std::optional<double> stealPrev, stealFollow;
  std::optional<std::int64_t> makeTimeTicks;
  double nominalQuarters = 0.125;
  bool chord = false;
  int staff = 1;
  std::int64_t rawTick = 0;
};

struct VerseRec {
  std::string key;
  Uuid noteID;
  std::int64_t rawTick = 0;
  std::string text;
};

struct PartBuffer {
  std::string id;
  std::map<int, std::vector<Note>> notesByVoice;
  std::map<int, int> staffOfVoice;
  std::map<int, VoiceState> voiceState;
  std::map<int, std::vector<PendingGrace>> pendingGraces;
  std::vector<VerseRec> otherVerses;
  int pitchedCount = 0, unpitchedCount = 0, unpitchedLyricCount = 0;
  std::int64_t pickupShift = 0;
  int measureCount = 0;
  int staves = 1;
  std::string sungKey = "1";
};

struct TieKey {
  int part, voice, pitch;
  bool operator<(const TieKey& o) const {
    return std::tie(part, voice, pitch) < std::tie(o.part, o.voice, o.pitch);
  }
};

struct TempoRec {
  std::int64_t tick;
  double bpm;
  int part;
  bool fromSound;
};

struct TSRec {
  std::int64_t tick;
  int numerator, denominator, part;
};

using Fixes = std::vector<std::vector<SuggestionAction>>;

struct NoticeRec {
  const ImportNoticeKind* kind;
  int part;  // -1: the whole song
  std::optional<Uuid> noteID;
  std::int64_t rawTick;
  std::optional<std::string> text;
  int count = 1;
  Fixes fixes = {};  // per button of the kind
};

// Grace syllables that had no room and were joined to their main note's lyric: what the
// notice's button needs to give them a note of their own again.
struct GraceRestore {
  std::size_t notice;  // index into the reader's notices
  Uuid mainID;
  std::string mainLyric;
  std::vector<PendingGrace> graces;
};

// A rit. or accel. of a part: from its words to the next tempo of the part, the next
// "a tempo" or the part's end. The tempo map keeps the score's steady tempo; the notice's
// button writes the change in steps.
struct RitRec {
  std::size_t notice;
  int part;
  std::int64_t from, to = -1;
  double bpm, factor;
  double origin;                 // the speed before the first rit. of a chain
  std::optional<double> backTo;  // "a tempo": the speed the span returns to
};

struct KeyRec {
  std::int64_t tick;
  int fifths, part;
  bool sounding;  // the part's transposition applied
};

struct LyricLine {
  std::string key = "1";
  std::string text;
  int texts = 0;
  std::vector<std::string> pieces;  // each <text>, for splitting what one note cannot hold
  bool elision = false;
  std::optional<std::string> extend;
  std::optional<std::string> special;
};

class Reader {
 public:
  Reader(int unitScale, std::vector<std::vector<std::string>> lyricKeys)
      : unitScale_(unitScale), lyricKeys_(std::move(lyricKeys)) {}

  MusicDocument run(std::string_view text,
                    const std::vector<MusicXMLUnfolder::FlowProblem>& problems,
                    std::string_view fallbackTitle);

 private:
  static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char** attrs) {
    static_cast<Reader*>(self)->start(name, attrs);
  }
  static void XMLCALL onEnd(void* self, const XML_Char* name) {
    static_cast<Reader*>(self)->end(name);
  }
  static void XMLCALL onText(void* self, const XML_Char* s, int len) {
    auto* r = static_cast<Reader*>(self);
    if (r->wantText_) r->text_.append(s, static_cast<std::size_t>(len));
  }

  void start(const XML_Char* name, const XML_Char** attrs);
  void end(const XML_Char* name);
  void fail(std::exception_ptr e) {
    if (!error_) error_ = std::move(e);
    XML_StopParser(parser_, XML_FALSE);
  }

  El parent(std::size_t up = 1) const {
    return stack_.size() > up ? stack_[stack_.size() - 1 - up] : El::other;
  }
  PartBuffer* part() { return pi_ >= 0 ? &parts_[static_cast<std::size_t>(pi_)] : nullptr; }

  // Time.
  std::int64_t toTicks(std::int64_t div) const {
    const Wide t = static_cast<Wide>(div) * ppq_ / divisions_;
    return static_cast<std::int64_t>(std::clamp<Wide>(t, -maxTick, maxTick));
  }
  // Each duration fits the song, but a hostile file can add up many.
  static std::int64_t advanced(std::int64_t pos, std::int64_t by) {
    return by > kMaxPos - pos ? kMaxPos : pos + by;
  }
  static constexpr std::int64_t kMaxPos = std::int64_t(1) << 60;
  std::int64_t tickAt(std::int64_t div) const {
    return std::clamp<std::int64_t>(measureStartTick_ + toTicks(div), 0, maxTick);
  }
  std::optional<std::int64_t> readDuration();
  std::string placeText(std::int64_t posDiv, std::string_view extra = {}) const;
  // Returns the record's index, for fixes settled at the end.
  std::size_t notice(const ImportNoticeKind& kind, std::optional<Uuid> noteID, std::int64_t rawTick,
                     std::optional<std::string> text = std::nullopt, int count = 1) {
    notices_.push_back({&kind, pi_, noteID, rawTick, std::move(text), count});
    return notices_.size() - 1;
  }

  void beginPart(const XML_Char** attrs);
  void endPart();
  void beginMeasure(const XML_Char** attrs);
  void endMeasure();
  void endTime();
  void endNote();
  void endDirection();
  void addTempo(double bpm, bool fromSound, std::int64_t rawTick, const std::string& where);
  void closeRit(std::int64_t rawTick, std::optional<double> backTo = std::nullopt);
  void settleFixes(MusicDocument& doc, const std::unordered_map<Uuid, int>& trackOf);
  void scanWords(const std::string& words, std::int64_t rawTick, bool& tempoGiven);
  void placeGraces(PartBuffer& p, int voice, Note& main);
  void flushGraces(PartBuffer& p, int voice, bool atPartEnd);
  int voiceNumber(std::string_view text);
  MusicDocument finish(const std::vector<MusicXMLUnfolder::FlowProblem>& problems,
                       std::string_view fallbackTitle);

  int unitScale_;
  std::vector<std::vector<std::string>> lyricKeys_;
  XML_Parser parser_ = nullptr;
  std::exception_ptr error_;
  IdSource ids_;
  std::size_t soundingNoteCount_ = 0;

  std::vector<El> stack_;
  std::string text_;
  bool wantText_ = false;

  std::string workTitle_, movementTitle_;
  std::vector<PartBuffer> parts_;
  std::unordered_map<std::string, std::string> partNameByID_;
  std::optional<std::string> scorePartID_;
  int pi_ = -1;
  std::map<std::string, int> voiceIDs_;

  // Time position.
  std::int64_t ppq_ = 480;
  std::int64_t divisions_ = 1;
  std::int64_t segBaseTick_ = 0, measureStartTick_ = 0;
  std::int64_t posDiv_ = 0, chordStartPosDiv_ = 0, measureMaxPosDiv_ = 0;
  bool measureActive_ = false, measureImplicit_ = false;
  std::string measureNumberText_;
  int irregularCount_ = 0;

  // Meter.
  int tsNumerator_ = 4, tsDenominator_ = 4;
  std::vector<std::pair<std::string, std::string>> timeGroups_;
  std::optional<std::string> timeBeatsPending_;
  std::vector<TSRec> tsRecs_;
  std::vector<KeyRec> keyRecs_;

  // The note being read.
  struct CurrentNote {
    bool isRest = false, isChord = false, tieStart = false, tieStop = false, isCue = false,
         isUnpitched = false, isGrace = false, graceSlash = false;
    std::string step = "C";
    int octave = 4;
    double alter = 0;
    std::optional<std::string> pitchUnreadable;
    std::int64_t duration = 0;
    int voice = 1, staff = 1;
    bool voiceSeen = false;
    std::string type;
    std::optional<double> stealPrev, stealFollow;
    std::optional<std::int64_t> makeTime;  // in divisions
    int velocity = 100;
    bool fermata = false, breath = false;
    std::vector<std::string> ornaments, glides;
    std::optional<std::string> notehead, ipa;
    int slurStarts = 0, slurStops = 0;
    int dots = 0;
    std::vector<LyricLine> lyrics;
  } note_;
  bool inNote_ = false;
  std::optional<LyricLine> lyric_;
  std::map<TieKey, std::size_t> tieMap_;
  std::int64_t pendingDuration_ = 0;

  // Directions.
  bool inDirection_ = false;
  std::int64_t dirStartPosDiv_ = 0;
  std::optional<double> dirSoundTempo_, dirMetronomeBPM_;
  std::optional<std::string> dirTempoText_;
  std::int64_t dirOffsetDiv_ = 0;
  bool dirOffsetSound_ = false, dirSwing_ = false;
  std::vector<std::string> dirWords_;
  bool inMetronome_ = false;
  std::optional<std::string> metroBeatUnit_, metroBeatUnit2_, metroPerMinute_;
  int metroDots_ = 0, metroDots2_ = 0, metroUnitsSeen_ = 0;
  bool swingStraight_ = false, inSoundSwing_ = false;
  std::vector<TempoRec> tempoRecs_;
  std::map<int, double> runningBpm_;
  std::vector<RitRec> rits_;
  std::map<int, std::size_t> ritChain_;  // part to its open rit. or accel.
  std::vector<GraceRestore> graceRestores_;

  int transposeSemitones_ = 0, transposeChromatic_ = 0, transposeOctave_ = 0;
  int partVelocity_ = 100;
  std::vector<NoticeRec> notices_;
};

// ---- Element handlers --------------------------------------------------------------------------

void Reader::start(const XML_Char* name, const XML_Char** attrs) {
  if (error_) return;
  const El e = elementOf(name);
  const El up = stack_.empty() ? El::other : stack_.back();
  stack_.push_back(e);
  text_.clear();
  wantText_ = false;
  switch (e) {
    case El::part:
      beginPart(attrs);
      break;
    case El::measure:
      if (up == El::part) beginMeasure(attrs);
      break;
    case El::scorePart:
      if (const char* id = attribute(attrs, "id")) scorePartID_ = id;
      break;
    case El::note:
      inNote_ = true;
      note_ = CurrentNote{};
      note_.velocity = partVelocity_;
      if (const char* v = attribute(attrs, "dynamics"))
        note_.velocity = velocityOf(v).value_or(partVelocity_);
      break;
    case El::rest:
      if (inNote_) note_.isRest = true;
      break;
    case El::chord:
      if (inNote_) note_.isChord = true;
      break;
    case El::cue:
      if (up == El::note) note_.isCue = true;
      break;
    case El::unpitched:
      if (inNote_) note_.isUnpitched = true;
      break;
    case El::grace:
      if (inNote_) {
        note_.isGrace = true;
        note_.graceSlash = attributeIs(attrs, "slash", "yes");
        if (const char* v = attribute(attrs, "steal-time-previous"))
          note_.stealPrev = readNumber(v);
        if (const char* v = attribute(attrs, "steal-time-following"))
          note_.stealFollow = readNumber(v);
        if (const char* v = attribute(attrs, "make-time"))
          if (const auto d = readNumber(v); d && *d > 0 && *d < 1e12)
            note_.makeTime = std::llround(*d * unitScale_);
      }
      break;
    case El::tie:
    case El::tied:
      if (inNote_) {
        const char* t = attribute(attrs, "type");
        const std::string_view type = t ? std::string_view(t) : std::string_view();
        if (type == "start" || type == "continue") note_.tieStart = true;
        if (type == "stop" || type == "continue") note_.tieStop = true;
      }
      break;
    case El::slur:
      if (inNote_) {
        const char* t = attribute(attrs, "type");
        const std::string_view type = t ? std::string_view(t) : std::string_view();
        if (type == "start") ++note_.slurStarts;
        if (type == "stop") ++note_.slurStops;
      }
      break;
    case El::fermata:
      if (inNote_ && up == El::notations) note_.fermata = true;
      break;
    case El::breathMark:
    case El::caesura:
      if (inNote_ && up == El::articulations) note_.breath = true;
      break;
    case El::glide:
      if (inNote_) note_.glides.emplace_back(name);
      break;
    case El::glissando:
    case El::slide:
      if (inNote_ && !attributeIs(attrs, "type", "stop")) note_.glides.emplace_back(name);
      break;
    case El::wavyLine:
      if (inNote_ && up == El::ornaments && !attributeIs(attrs, "type", "stop"))
        note_.ornaments.emplace_back(name);
      break;
    case El::lyric:
      if (inNote_) {
        lyric_ = LyricLine{};
        if (const char* n = attribute(attrs, "number")) {
          const std::string_view k = text::trimWhitespaceAndNewlines(n);
          if (!k.empty()) lyric_->key = std::string(k);
        }
      }
      break;
    case El::extend:
      if (lyric_ && up == El::lyric) {
        const char* t = attribute(attrs, "type");
        lyric_->extend = t ? std::string(t) : std::string("start");
      }
      break;
    case El::elision:
      if (lyric_) lyric_->elision = true;
      break;
    case El::humming:
    case El::laughing:
      if (lyric_) lyric_->special = name;
      break;
    case El::backup:
    case El::forward:
      pendingDuration_ = 0;
      break;
    case El::direction:
      inDirection_ = true;
      dirStartPosDiv_ = posDiv_;
      dirSoundTempo_.reset();
      dirMetronomeBPM_.reset();
      dirTempoText_.reset();
      dirOffsetDiv_ = 0;
      dirOffsetSound_ = false;
      dirSwing_ = false;
      dirWords_.clear();
      metroBeatUnit_.reset();
      metroBeatUnit2_.reset();
      metroPerMinute_.reset();
      metroDots_ = metroDots2_ = metroUnitsSeen_ = 0;
      break;
    case El::metronome:
      inMetronome_ = true;
      break;
    case El::offset:
      dirOffsetSound_ = attributeIs(attrs, "sound", "yes");
      wantText_ = true;
      break;
    case El::sound:
      if (const char* t = attribute(attrs, "tempo")) {
        const auto bpm = readNumber(t);
        if (inDirection_) {
          dirSoundTempo_ = bpm ? *bpm : 0.0;
          dirTempoText_ = t;
        } else if (measureActive_) {
          // A bare <sound> in a measure sets the tempo where it stands.
          addTempo(bpm ? *bpm : 0.0, true, tickAt(posDiv_), t);
        }
      }
      // Loudness from here on in this part, in the order the file gives it.
      if (const char* v = attribute(attrs, "dynamics"))
        partVelocity_ = velocityOf(v).value_or(partVelocity_);
      break;
    case El::swing:
      if (up == El::sound) {
        inSoundSwing_ = true;
        swingStraight_ = false;
      }
      break;
    case El::straight:
      if (inSoundSwing_) swingStraight_ = true;
      break;
    case El::time:
      if (up == El::attributes) {
        timeGroups_.clear();
        timeBeatsPending_.reset();
      }
      break;
    case El::text:
    case El::partName:
    case El::beats:
    case El::beatType:
    case El::chromatic:
    case El::octaveChange:
    case El::beatUnit:
    case El::perMinute:
    case El::words:
    case El::divisions:
    case El::fifths:
    case El::voice:
    case El::staff:
    case El::step:
    case El::octave:
    case El::alter:
    case El::displayStep:
    case El::displayOctave:
    case El::duration:
    case El::notehead:
    case El::type:
    case El::ipa:
    case El::workTitle:
    case El::movementTitle:
      wantText_ = true;
      break;
    case El::attributes:
      break;
    case El::dot:
      if (inNote_ && up == El::note) ++note_.dots;
      break;
    case El::tremolo:
    case El::other:
      // Every child of <ornaments> is one: trill-mark, turn, mordent, tremolo, ...
      if (inNote_ && up == El::ornaments) {
        note_.ornaments.emplace_back(name);
      } else if (up == El::attributes && std::strcmp(name, "staves") == 0) {
        wantText_ = true;
      }
      break;
    default:
      break;
  }
}

void Reader::end(const XML_Char* name) {
  if (stack_.empty() || error_) return;
  const El e = stack_.back();
  stack_.pop_back();
  const El up = stack_.empty() ? El::other : stack_.back();
  const std::string_view value = text_;
  switch (e) {
    case El::part:
      endPart();
      break;
    case El::measure:
      if (up == El::part) endMeasure();
      break;
    case El::workTitle:
      workTitle_ = std::string(text::trimWhitespaceAndNewlines(value));
      break;
    case El::movementTitle:
      movementTitle_ = std::string(text::trimWhitespaceAndNewlines(value));
      break;
    case El::partName:
      if (up == El::scorePart && scorePartID_)
        partNameByID_[*scorePartID_] = std::string(text::trimWhitespaceAndNewlines(value));
      break;
    case El::divisions: {
      const auto v = readNumber(value);
      const double scaled = v ? *v * unitScale_ : 0;
      if (!v || scaled < 0.5 || scaled > 1e12) {
        fail(std::make_exception_ptr(MusicXMLParseError::divisionsUnreadable(
            std::string(text::trimWhitespaceAndNewlines(value)), measureNumberText_)));
        break;
      }
      const std::int64_t next = std::llround(scaled);
      if (next != divisions_) {
        // Positions already taken in this measure are in the old unit.
        const auto rescale = [&](std::int64_t d) {
          return static_cast<std::int64_t>(static_cast<Wide>(d) * next / divisions_);
        };
        posDiv_ = rescale(posDiv_);
        chordStartPosDiv_ = rescale(chordStartPosDiv_);
        measureMaxPosDiv_ = rescale(measureMaxPosDiv_);
        dirStartPosDiv_ = rescale(dirStartPosDiv_);
        divisions_ = next;
      }
      break;
    }
    case El::duration: {
      const auto d = readDuration();
      if (!d) break;
      if (up == El::note && inNote_)
        note_.duration = *d;
      else if (up == El::backup || up == El::forward)
        pendingDuration_ = *d;
      break;
    }
    case El::backup:
      posDiv_ = std::max<std::int64_t>(0, posDiv_ - pendingDuration_);
      break;
    case El::forward:
      posDiv_ = advanced(posDiv_, pendingDuration_);
      measureMaxPosDiv_ = std::max(measureMaxPosDiv_, posDiv_);
      break;
    case El::beats:
      if (up == El::time) timeBeatsPending_ = std::string(value);
      break;
    case El::beatType:
      if (up == El::time) {
        timeGroups_.emplace_back(timeBeatsPending_.value_or("4"), std::string(value));
        timeBeatsPending_.reset();
      }
      break;
    case El::time:
      if (up == El::attributes) endTime();
      break;
    case El::fifths:
      if (measureActive_ && up == El::other) {
        if (const auto f = readInt(value))
          keyRecs_.push_back({tickAt(posDiv_), std::clamp(*f, -7, 7), pi_, false});
      }
      break;
    case El::attributes:
      // <transpose> comes after <key> in the same attributes: the key is written, the song
      // keeps the sounding one.
      for (auto it = keyRecs_.rbegin(); it != keyRecs_.rend() && !it->sounding; ++it) {
        it->sounding = true;
        int f = it->fifths + ((transposeSemitones_ * 7) % 12 + 12) % 12;
        while (f > 7) f -= 12;
        it->fifths = f;
      }
      break;
    case El::other:
      if (up == El::attributes && std::strcmp(name, "staves") == 0 && part()) {
        if (const auto n = readInt(value)) part()->staves = std::max(part()->staves, *n);
      }
      break;
    case El::chromatic:
      if (up == El::transpose) transposeChromatic_ = readInt(value).value_or(0);
      break;
    case El::octaveChange:
      if (up == El::transpose) transposeOctave_ = readInt(value).value_or(0);
      break;
    case El::transpose:
      transposeSemitones_ = std::clamp(transposeChromatic_ + 12 * transposeOctave_, -48, 48);
      transposeChromatic_ = transposeOctave_ = 0;
      break;
    case El::step:
    case El::displayStep:
      if (inNote_) {
        const std::string_view s = text::trimWhitespaceAndNewlines(value);
        if (s.size() == 1 && std::string_view("ABCDEFG").find(s[0]) != std::string_view::npos)
          note_.step = std::string(s);
        else
          note_.pitchUnreadable = s.empty() ? "step=" : "step=?";
      }
      break;
    case El::octave:
    case El::displayOctave:
      if (inNote_) {
        const auto o = readNumber(value);
        if (o && *o == std::floor(*o) && *o >= -1 && *o <= 9)
          note_.octave = static_cast<int>(*o);
        else
          note_.pitchUnreadable = "octave=" + std::string(text::trimWhitespaceAndNewlines(value));
      }
      break;
    case El::alter:
      if (inNote_) {
        const auto a = readNumber(value);
        if (a && std::abs(*a) <= 3)
          note_.alter = *a;
        else
          note_.pitchUnreadable = "alter=" + std::string(text::trimWhitespaceAndNewlines(value));
      }
      break;
    case El::voice:
      if (inNote_ && up == El::note) {
        note_.voice = voiceNumber(value);
        note_.voiceSeen = true;
      }
      break;
    case El::staff:
      if (inNote_ && up == El::note) note_.staff = std::clamp(readInt(value).value_or(1), 1, 99);
      break;
    case El::type:
      if (inNote_ && up == El::note) note_.type = std::string(value);
      break;
    case El::notehead:
      if (inNote_) {
        const std::string_view h = text::trimWhitespaceAndNewlines(value);
        if (!h.empty() && h != "normal" && h != "none") note_.notehead = std::string(h);
      }
      break;
    case El::text:
      if (lyric_ && up == El::lyric) {
        lyric_->text.append(value);
        lyric_->pieces.emplace_back(text::trimLyric(value));
        ++lyric_->texts;
      }
      break;
    case El::ipa:
      if (inNote_) note_.ipa = std::string(value);
      break;
    case El::lyric:
      if (lyric_ && inNote_) note_.lyrics.push_back(std::move(*lyric_));
      lyric_.reset();
      break;
    case El::note:
      if (inNote_) endNote();
      inNote_ = false;
      break;
    case El::beatUnit:
      if (inMetronome_) {
        if (metroUnitsSeen_++ == 0)
          metroBeatUnit_ = std::string(value);
        else
          metroBeatUnit2_ = std::string(value);
      }
      break;
    case El::beatUnitDot:
      if (inMetronome_) ++(metroUnitsSeen_ <= 1 ? metroDots_ : metroDots2_);
      break;
    case El::perMinute:
      if (inMetronome_) metroPerMinute_ = std::string(value);
      break;
    case El::metronome:
      inMetronome_ = false;
      break;
    case El::words:
      if (inDirection_) dirWords_.emplace_back(value);
      break;
    case El::offset:
      if (inDirection_) {
        if (const auto v = readNumber(value))
          dirOffsetDiv_ = std::llround(std::clamp(*v * unitScale_, -1e15, 1e15));
      }
      break;
    case El::swing:
      if (inSoundSwing_ && !swingStraight_) dirSwing_ = true;
      inSoundSwing_ = false;
      break;
    case El::direction:
      endDirection();
      inDirection_ = false;
      break;
    default:
      break;
  }
  text_.clear();
  wantText_ = false;
}

int Reader::voiceNumber(std::string_view raw) {
  const std::string_view s = text::trimWhitespaceAndNewlines(raw);
  int v = 0;
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  if (r.ec == std::errc() && r.ptr == s.data() + s.size() && v >= 0 && v < 1000) return v;
  // Voices named with words get numbers of their own, above what files use.
  const auto [it, added] = voiceIDs_.emplace(std::string(s), 1000 + int(voiceIDs_.size()));
  return it->second;
}

std::optional<std::int64_t> Reader::readDuration() {
  const std::string written(text::trimWhitespaceAndNewlines(text_));
  const auto v = readNumber(written);
  if (!v) {
    fail(std::make_exception_ptr(
        MusicXMLParseError::durationUnreadable(written, measureNumberText_)));
    return std::nullopt;
  }
  const double scaled = *v * unitScale_;
  // Beyond the song's tick range, or negative: no program means this.
  if (scaled < 0 || scaled / double(divisions_) * double(ppq_) > double(maxTick)) {
    fail(std::make_exception_ptr(
        MusicXMLParseError::durationOutOfRange(written, measureNumberText_)));
    return std::nullopt;
  }
  return std::llround(scaled);
}

std::string Reader::placeText(std::int64_t posDiv, std::string_view extra) const {
  const double beatDiv = double(divisions_) * 4.0 / std::max(1, tsDenominator_);
  const std::string beat = numberText(1.0 + double(posDiv) / beatDiv);
  std::string out = trf("元の%@小節目（%@拍）", {measureNumberText_, beat});
  if (!extra.empty()) out.append(" ").append(extra);
  return out;
}

void Reader::beginPart(const XML_Char** attrs) {
  PartBuffer p;
  if (const char* id = attribute(attrs, "id")) p.id = id;
  const std::size_t ordinal = parts_.size();
  if (ordinal < lyricKeys_.size() && !lyricKeys_[ordinal].empty()) {
    const auto& keys = lyricKeys_[ordinal];
    // Verse 1 is sung where it exists; otherwise the line the part names first.
    p.sungKey = std::find(keys.begin(), keys.end(), "1") != keys.end() ? "1" : keys.front();
  }
  parts_.push_back(std::move(p));
  pi_ = static_cast<int>(parts_.size()) - 1;
  divisions_ = 1;
  segBaseTick_ = measureStartTick_ = 0;
  posDiv_ = chordStartPosDiv_ = measureMaxPosDiv_ = 0;
  tsNumerator_ = tsDenominator_ = 4;
  transposeSemitones_ = 0;
  partVelocity_ = 100;
  tieMap_.clear();
  runningBpm_[pi_] = 120;
}

void Reader::endPart() {
  closeRit(segBaseTick_);
  if (PartBuffer* p = part()) {
    std::vector<int> voices;
    for (const auto& [v, list] : p->pendingGraces) voices.push_back(v);
    for (int v : voices) flushGraces(*p, v, true);
  }
}

void Reader::beginMeasure(const XML_Char** attrs) {
  measureActive_ = true;
  measureStartTick_ = segBaseTick_;
  posDiv_ = chordStartPosDiv_ = measureMaxPosDiv_ = 0;
  measureImplicit_ = attributeIs(attrs, "implicit", "yes");
  const char* orig = attribute(attrs, "melvo-orig");
  const char* number = attribute(attrs, "number");
  measureNumberText_ = orig ? orig : number ? number : "?";
}

void Reader::endMeasure() {
  measureActive_ = false;
  PartBuffer* p = part();
  if (!p) return;
  const std::int64_t content = toTicks(measureMaxPosDiv_);
  const std::int64_t meter = ppq_ * 4 * tsNumerator_ / std::max(1, tsDenominator_);
  std::int64_t length = std::max(content, meter);
  if (content > 0 && content < meter && p->measureCount == 0) {
    // A pickup: the part moves right so that the song starts on a bar line.
    p->pickupShift = meter - content;
    length = content;
  } else if (content > 0 && content < meter && measureImplicit_) {
    // A bar split in two around a repeat or a line end: its parts keep their length.
    length = content;
    ++irregularCount_;
    notice(nk::meterRebarred, std::nullopt, measureStartTick_, placeText(0));
  } else if (content > meter) {
    ++irregularCount_;
    notice(nk::meterRebarred, std::nullopt, measureStartTick_, placeText(0));
  }
  segBaseTick_ = std::min(maxTick, segBaseTick_ + length);
  ++p->measureCount;
}

void Reader::endTime() {
  // 3+2 beats, or several groups such as 3/8 + 2/4: one meter of the summed beats over the
  // common denominator.
  bool additive = timeGroups_.size() > 1;
  long long denominator = 1;
  std::vector<std::pair<long long, long long>> groups;
  for (const auto& [beatsText, typeText] : timeGroups_) {
    long long beats = 0;
    for (std::string_view piece : text::split(beatsText, '+')) {
      beats += readInt(piece).value_or(0);
      if (piece.size() != beatsText.size()) additive = true;
    }
    const long long type = std::max(1, readInt(typeText).value_or(4));
    groups.emplace_back(beats, type);
    denominator = std::lcm(denominator, type);
    if (denominator > 1024) denominator = 1024;
  }
  if (groups.empty()) return;
  long long numerator = 0;
  for (const auto& [beats, type] : groups) numerator += beats * (denominator / type);
  if (numerator <= 0) return;  // senza misura or nonsense: the meter stays
  tsNumerator_ = static_cast<int>(std::min<long long>(numerator, 1024));
  tsDenominator_ = static_cast<int>(denominator);
  const std::int64_t at = measureStartTick_;
  if (additive)
    notice(nk::additiveMeter, std::nullopt, at,
           placeText(0, std::to_string(numerator) + "/" + std::to_string(denominator)));
  int num = tsNumerator_, den = tsDenominator_;
  const bool denOK = den == 1 || den == 2 || den == 4 || den == 8 || den == 16 || den == 32;
  if (num > 64 || !denOK) {
    const std::string written = std::to_string(num) + "/" + std::to_string(den);
    if (!denOK) {
      // The nearest power of two keeps the bar about as long.
      int best = 4;
      for (int d : {1, 2, 4, 8, 16, 32})
        if (std::abs(d - den) < std::abs(best - den)) best = d;
      num = std::max(1, static_cast<int>(std::lround(double(num) * best / den)));
      den = best;
    }
    num = std::clamp(num, 1, 64);
    notice(nk::meterClamped, std::nullopt, at, placeText(0, written));
  }
  tsRecs_.push_back({at, num, den, pi_});
}

void Reader::addTempo(double bpm, bool fromSound, std::int64_t rawTick, const std::string& where) {
  if (!(bpm > 0)) {
    notice(nk::mxTempoOutOfRange, std::nullopt, rawTick, placeText(dirStartPosDiv_, where));
    return;
  }
  if (bpm > 1000) {
    notice(nk::mxTempoOutOfRange, std::nullopt, rawTick, placeText(dirStartPosDiv_, where));
    bpm = 1000;
  }
  bpm = std::max(bpm, 1.0);
  tempoRecs_.push_back({rawTick, bpm, pi_, fromSound});
  runningBpm_[pi_] = bpm;
  closeRit(rawTick);
}

void Reader::closeRit(std::int64_t rawTick, std::optional<double> backTo) {
  const auto open = ritChain_.find(pi_);
  if (open == ritChain_.end()) return;
  RitRec& r = rits_[open->second];
  r.to = std::max(r.from, rawTick);
  r.backTo = backTo;
  ritChain_.erase(open);
}

// "♩=120", "♪ = c. 96", "𝅗𝅥.=60" and metric modulations "♩=♩." inside words.
void Reader::scanWords(const std::string& words, std::int64_t rawTick, bool& tempoGiven) {
  static const PcrePattern mark(
      "([\\x{1D15D}-\\x{1D161}\\x{2669}\\x{266A}\\x{ECA2}-\\x{ECAA}])\\s*((?:[.\\x{ECB7}\\x{"
      "1D16D}]\\s*)*)=\\s*(?:(?:c|ca|circa)\\.?\\s*|~\\s*|約\\s*)?([0-9]+(?:[.,][0-9]+)?)",
      PcrePattern::utf);
  static const PcrePattern modulation(
      "([\\x{1D15D}-\\x{1D161}\\x{2669}\\x{266A}\\x{ECA2}-\\x{ECAA}])\\s*((?:[.\\x{ECB7}\\x{"
      "1D16D}]\\s*)*)=\\s*([\\x{1D15D}-\\x{1D161}\\x{2669}\\x{266A}\\x{ECA2}-\\x{ECAA}])\\s*((?:[."
      "\\x{ECB7}\\x{1D16D}]\\s*)*)",
      PcrePattern::utf);
  static const PcrePattern tempoWord(
      "^\\s*(?:grave|largo|larghetto|lento|adagio|adagietto|andante|andantino|moderato|"
      "allegretto|allegro|vivace|vivo|presto|prestissimo|tempo\\s+(?:i|primo)|a\\s+tempo)\\b",
      PcrePattern::caseless | PcrePattern::utf);
  static const PcrePattern aTempo("^\\s*(?:a\\s+tempo|tempo\\s+(?:i|primo))\\b",
                                  PcrePattern::caseless | PcrePattern::utf);
  static const PcrePattern fasterWord("^\\s*(?:accel|string)",
                                      PcrePattern::caseless | PcrePattern::utf);
  static const PcrePattern ritWord(
      "^\\s*(?:rit|ritard|ritardando|riten|ritenuto|rall|rallentando|accel|accelerando|allarg|"
      "allargando|string|stringendo)\\b",
      PcrePattern::caseless | PcrePattern::utf);

  const auto glyphQuarters = [](std::string_view glyph, std::string_view dotsText) {
    std::size_t i = 0;
    const char32_t c = text::nextScalar(glyph, i);
    double q = 1;
    switch (c) {
      case 0x1D15D:
      case 0xECA2:
        q = 4;
        break;
      case 0x1D15E:
      case 0xECA3:
      case 0xECA4:
        q = 2;
        break;
      case 0x1D160:
      case 0x266A:
      case 0xECA7:
      case 0xECA8:
        q = 0.5;
        break;
      case 0x1D161:
      case 0xECA9:
      case 0xECAA:
        q = 0.25;
        break;
      default:
        q = 1;
        break;
    }
    int dots = 0;
    for (std::size_t j = 0; j < dotsText.size();) {
      const char32_t d = text::nextScalar(dotsText, j);
      if (d == '.' || d == 0xECB7 || d == 0x1D16D) ++dots;
    }
    return dotted(q, dots);
  };

  PcrePattern::Match m;
  if (!tempoGiven && modulation.find(words, m)) {
    const double from = glyphQuarters(m.groups[1], m.groups[2]);
    const double to = glyphQuarters(m.groups[3], m.groups[4]);
    const double bpm = runningBpm_[pi_] * to / from;
    notice(nk::mxMetricModulation, std::nullopt, rawTick, placeText(dirStartPosDiv_, words));
    addTempo(bpm, false, rawTick, words);
    tempoGiven = true;
    return;
  }
  if (!tempoGiven && mark.find(words, m)) {
    std::string number(m.groups[3]);
    std::replace(number.begin(), number.end(), ',', '.');
    const double perMinute = readNumber(number).value_or(0);
    addTempo(perMinute * glyphQuarters(m.groups[1], m.groups[2]), false, rawTick, words);
    tempoGiven = true;
    return;
  }
  if (ritWord.matches(words)) {
    const std::size_t at =
        notice(nk::ritAccel, std::nullopt, rawTick, placeText(dirStartPosDiv_, words));
    // A second rit. before the tempo is back goes on from where the first one ended.
    double bpm = runningBpm_[pi_], origin = bpm;
    if (const auto open = ritChain_.find(pi_); open != ritChain_.end()) {
      const RitRec& before = rits_[open->second];
      bpm = before.bpm * before.factor;
      origin = before.origin;
      closeRit(rawTick);
    }
    rits_.push_back(
        {at, pi_, rawTick, -1, bpm, fasterWord.matches(words) ? 1.2 : 0.8, origin, std::nullopt});
    ritChain_[pi_] = rits_.size() - 1;
  } else if (!tempoGiven && tempoWord.matches(words)) {
    notice(tempoRecs_.empty() ? nk::wordsOnlyTempoDefault : nk::wordsOnlyTempo, std::nullopt,
           rawTick, placeText(dirStartPosDiv_, words));
    if (aTempo.matches(words))
      if (const auto open = ritChain_.find(pi_); open != ritChain_.end())
        closeRit(rawTick, rits_[open->second].origin);
  }
}

void Reader::endDirection() {
  if (!measureActive_ || !part()) return;
  const std::int64_t rawTick = tickAt(dirStartPosDiv_ + (dirOffsetSound_ ? dirOffsetDiv_ : 0));
  bool tempoGiven = false;
  // Metronome first: its value is what the <sound> beside it usually repeats.
  std::optional<double> metronomeBPM;
  if (metroBeatUnit_ && metroBeatUnit2_) {
    const auto a = noteValueQuarters(*metroBeatUnit_), b = noteValueQuarters(*metroBeatUnit2_);
    if (a && b && !dirSoundTempo_) {
      const double bpm = runningBpm_[pi_] * dotted(*b, metroDots2_) / dotted(*a, metroDots_);
      notice(nk::mxMetricModulation, std::nullopt, rawTick, placeText(dirStartPosDiv_));
      addTempo(bpm, false, rawTick, "");
      tempoGiven = true;
    }
  } else if (metroBeatUnit_ && metroPerMinute_) {
    const auto unit = noteValueQuarters(*metroBeatUnit_);
    // "c. 120" and the like: the first number in the text.
    std::string_view pm = *metroPerMinute_;
    std::size_t at = 0;
    while (at < pm.size() && !(pm[at] >= '0' && pm[at] <= '9')) ++at;
    std::size_t stop = at;
    while (stop < pm.size() && ((pm[stop] >= '0' && pm[stop] <= '9') || pm[stop] == '.')) ++stop;
    const auto perMinute = readNumber(pm.substr(at, stop - at));
    if (unit) metronomeBPM = perMinute.value_or(0) * dotted(*unit, metroDots_);
  }
  if (dirSoundTempo_) {
    addTempo(*dirSoundTempo_, true, rawTick, dirTempoText_.value_or(""));
    tempoGiven = true;
  } else if (metronomeBPM) {
    addTempo(*metronomeBPM, false, rawTick, metroPerMinute_.value_or(""));
    tempoGiven = true;
  }
  for (const std::string& w : dirWords_) scanWords(w, rawTick, tempoGiven);
  if (dirSwing_) notice(nk::swing, std::nullopt, rawTick, placeText(dirStartPosDiv_));
}

// ---- Notes -------------------------------------------------------------------------------------

void Reader::endNote() {
  PartBuffer* p = part();
  if (!p || !measureActive_) return;
  CurrentNote& n = note_;
  // Without <voice>, each staff is a voice of its own, as notation programs number them.
  if (!n.voiceSeen && n.staff > 1) n.voice = (n.staff - 1) * 4 + 1;
  const int voice = n.voice;
  const std::int64_t startDiv = n.isChord ? chordStartPosDiv_ : posDiv_;
  if (!n.isGrace && !n.isChord) {
    chordStartPosDiv_ = posDiv_;
    posDiv_ = advanced(posDiv_, n.duration);
    measureMaxPosDiv_ = std::max(measureMaxPosDiv_, posDiv_);
  }
  const std::int64_t rawTick = tickAt(startDiv);
  if (n.isCue) {
    notice(nk::cueNotesDropped, std::nullopt, rawTick, placeText(startDiv));
    return;
  }

  // The line that is sung, and the others, which are reported.
  const LyricLine* chosen = nullptr;
  for (const LyricLine& line : n.lyrics)
    if (line.key == p->sungKey && !chosen) chosen = &line;
  std::string lyric;
  if (chosen) {
    lyric = std::string(text::trimLyric(chosen->text));
    if (chosen->special) {
      notice(nk::mxHummingLaughing, std::nullopt, rawTick, placeText(startDiv, *chosen->special));
    }
  }

  if (n.isRest) {
    if (!lyric.empty()) notice(nk::lyricOnRest, std::nullopt, rawTick, placeText(startDiv, lyric));
    if (n.fermata) notice(nk::fermataOnRest, std::nullopt, rawTick, placeText(startDiv));
    VoiceState& vs = p->voiceState[voice];
    vs.prevHasLyric = false;
    vs.extendOpen = false;
    vs.slurDepth = std::max(0, vs.slurDepth + n.slurStarts - n.slurStops);
    return;
  }

  // Pitch.
  static constexpr std::array<int, 7> stepSemis{9, 11, 0, 2, 4, 5, 7};  // A..G
  const int step = stepSemis[static_cast<std::size_t>(n.step[0] - 'A')];
  const double roundedAlter = std::round(n.alter);
  int pitch = (n.octave + 1) * 12 + step + static_cast<int>(roundedAlter);
  if (n.pitchUnreadable) pitch = 60;
  pitch = std::clamp(pitch + (n.isUnpitched ? 0 : transposeSemitones_), 0, 127);
  if (n.isUnpitched) {
    ++p->unpitchedCount;
    if (!lyric.empty()) ++p->unpitchedLyricCount;
  } else {
    ++p->pitchedCount;
  }

  if (n.isGrace) {
    PendingGrace g;
    g.pitch = pitch;
    g.lyric = lyric;
    g.slash = n.graceSlash;
    g.stealPrev = n.stealPrev;
    g.stealFollow = n.stealFollow;
    if (n.makeTime) g.makeTimeTicks = std::max<std::int64_t>(1, toTicks(*n.makeTime));
    g.nominalQuarters = dotted(noteValueQuarters(n.type).value_or(0.125), n.dots);
    g.chord = n.isChord;
    g.staff = n.staff;
    g.rawTick = rawTick;
    p->pendingGraces[voice].push_back(std::move(g));
    return;
  }

  auto& notes = p->notesByVoice[voice];
  p->staffOfVoice.emplace(voice, n.staff);
  const std::int64_t duration = std::max<std::int64_t>(1, toTicks(n.duration));
  const TieKey key{pi_, voice, pitch};

  // A tie's second half lengthens the first where they meet.
  if (n.tieStop) {
    if (const auto it = tieMap_.find(key); it != tieMap_.end()) {
      NoteEvent& partner = notes[it->second].ev;
      const std::size_t partnerIndex = it->second;
      tieMap_.erase(it);
      if (partner.endTick() == rawTick) {
        partner.duration = std::min(maxTick, partner.duration + duration);
        if (n.tieStart) tieMap_[key] = partnerIndex;
        if (!n.isChord) {
          VoiceState& vs = p->voiceState[voice];
          vs.slurDepth = std::max(0, vs.slurDepth + n.slurStarts - n.slurStops);
        }
        if (n.fermata) notice(nk::fermata, partner.id, rawTick, placeText(startDiv));
        if (n.breath) {
          partner.hasBreathAfter = true;
          notice(nk::breathConverted, partner.id, rawTick, placeText(startDiv));
        }
        flushGraces(*p, voice, false);
        return;
      }
      notice(nk::mxTieAcrossGap, partner.id, partner.tick, placeText(startDiv));
    }
  }

  Note out;
  out.staff = n.staff;
  out.chordMember = n.isChord;
  out.ev = NoteEvent::make(ids_.next(), rawTick, duration, pitch, n.velocity);
  out.ev.hasBreathAfter = n.breath;

  // Elided syllables sing on one note, unless together they hold more phonemes than the
  // engine reads on a note: then each gets a note of its own.
  std::vector<std::string> split;
  if (chosen && (chosen->elision || chosen->texts > 1) && !lyric.empty()) {
    if (!n.isChord && chosen->pieces.size() > 1 && countPhonemes(lyricForExport(lyric)) > 8 &&
        duration >= std::int64_t(chosen->pieces.size()))
      split = chosen->pieces;
    else
      notice(nk::elision, out.ev.id, rawTick, placeText(startDiv, lyric));
  }

  VoiceState& vs = p->voiceState[voice];
  if (!n.isChord) {
    const bool inSlur = vs.slurDepth > 0;
    if (lyric.empty() && (inSlur || vs.extendOpen) && vs.prevHasLyric) {
      lyric = "ー";
      notice(nk::mxSlurMelisma, out.ev.id, rawTick, placeText(startDiv));
    } else {
      out.sungLyric = !lyric.empty();
    }
    vs.slurDepth = std::max(0, vs.slurDepth + n.slurStarts - n.slurStops);
    if (chosen && chosen->extend) {
      const std::string& t = *chosen->extend;
      vs.extendOpen = t == "start" || t == "continue";
    } else if (out.sungLyric) {
      vs.extendOpen = false;
    }
    vs.prevHasLyric = !lyric.empty();
  } else {
    out.sungLyric = !lyric.empty();
  }
  out.ev.lyric = std::move(lyric);

  if (n.pitchUnreadable)
    notice(nk::mxUnreadablePitch, out.ev.id, rawTick, placeText(startDiv, *n.pitchUnreadable));
  if (roundedAlter != n.alter)
    notice(nk::microtones, out.ev.id, rawTick, placeText(startDiv, "alter=" + numberText(n.alter)));
  if (n.fermata) notice(nk::fermata, out.ev.id, rawTick, placeText(startDiv));
  if (n.breath) notice(nk::breathConverted, out.ev.id, rawTick, placeText(startDiv));
  if (!n.ornaments.empty())
    notice(nk::ornaments, out.ev.id, rawTick, placeText(startDiv, n.ornaments.front()));
  if (!n.glides.empty())
    notice(nk::glissando, out.ev.id, rawTick, placeText(startDiv, n.glides.front()));
  if (n.notehead)
    notice(nk::mxSpecialNoteheads, out.ev.id, rawTick, placeText(startDiv, *n.notehead));
  if (n.ipa) notice(nk::mxPronunciationMarks, out.ev.id, rawTick, placeText(startDiv, *n.ipa));
  for (const LyricLine& line : n.lyrics) {
    if (&line == chosen) continue;
    const std::string verse(text::trimLyric(line.text));
    if (!verse.empty()) p->otherVerses.push_back({line.key, out.ev.id, rawTick, verse});
  }

  if (!n.isChord) placeGraces(*p, voice, out);
  std::vector<Note> extra;
  if (!split.empty() && out.ev.duration >= std::int64_t(split.size())) {
    notice(nk::mxSyllablesSplit, out.ev.id, out.ev.tick, placeText(startDiv, out.ev.lyric));
    const std::int64_t total = out.ev.duration, each = total / std::int64_t(split.size());
    out.ev.duration = each;
    out.ev.lyric = split[0];
    for (std::size_t i = 1; i < split.size(); ++i) {
      Note piece = out;
      piece.ev.id = ids_.next();
      piece.ev.tick = out.ev.tick + each * std::int64_t(i);
      piece.ev.duration = i + 1 == split.size() ? total - each * std::int64_t(i) : each;
      piece.ev.lyric = split[i];
      piece.ev.hasBreathAfter = out.ev.hasBreathAfter;
      extra.push_back(std::move(piece));
    }
    out.ev.hasBreathAfter = false;
  }
  notes.push_back(std::move(out));
  for (Note& piece : extra) notes.push_back(std::move(piece));
  // A tie continues from the last piece.
  if (n.tieStart) tieMap_[key] = notes.size() - 1;
  soundingNoteCount_ += 1 + extra.size();
  if (soundingNoteCount_ > MusicXMLParser::kNoteLimit)
    fail(std::make_exception_ptr(MIDIFileParser::TooManyNotes()));
}

// Grace notes with a lyric are sung: they take their time from the note before (when they
// ask to) or from the main note. Graces without a lyric are ornaments the engine cannot sing.
void Reader::placeGraces(PartBuffer& p, int voice, Note& main) {
  auto found = p.pendingGraces.find(voice);
  if (found == p.pendingGraces.end() || found->second.empty()) return;
  std::vector<PendingGrace> graces = std::move(found->second);
  p.pendingGraces.erase(found);

  std::vector<PendingGrace> sung;
  for (PendingGrace& g : graces) {
    if (g.lyric.empty())
      notice(nk::gracesWithoutLyric, main.ev.id, g.rawTick, std::nullopt);
    else
      sung.push_back(std::move(g));
  }
  if (sung.empty()) return;

  // A grace that makes its own time lasts that long; any other, its written value.
  const auto weight = [&](const PendingGrace& g) {
    return g.makeTimeTicks ? double(*g.makeTimeTicks) : g.nominalQuarters * double(ppq_);
  };
  std::vector<std::size_t> slots;  // index of the first grace of each time slot
  double nominalSum = 0;
  bool stealPrev = false, allMakeTime = true;
  std::optional<double> stealFollow;
  for (std::size_t i = 0; i < sung.size(); ++i) {
    if (!sung[i].chord || slots.empty()) {
      slots.push_back(i);
      nominalSum += weight(sung[i]);
      allMakeTime = allMakeTime && sung[i].makeTimeTicks;
    }
    if (sung[i].stealPrev) stealPrev = true;
    if (sung[i].stealFollow) stealFollow = sung[i].stealFollow;
  }
  const auto count = static_cast<std::int64_t>(slots.size());
  const std::int64_t nominal = std::max<std::int64_t>(count, std::llround(nominalSum));

  auto& notes = p.notesByVoice[voice];
  Note* prev = nullptr;
  for (auto it = notes.rbegin(); it != notes.rend(); ++it)
    if (!it->chordMember) {
      prev = &*it;
      break;
    }

  std::int64_t start = -1, take = 0;
  if (stealPrev && prev && prev->ev.endTick() == main.ev.tick) {
    double pct = 0;
    for (const auto& g : sung) pct += g.stealPrev.value_or(0);
    take = std::min<std::int64_t>(std::llround(prev->ev.duration * std::min(pct, 100.0) / 100.0),
                                  prev->ev.duration - 1);
    if (take >= count) {
      prev->ev.duration -= take;
      start = main.ev.tick - take;
    }
  } else {
    // The bar's length is fixed by the score, so time a grace makes comes out of its main
    // note too, as long as that keeps a tick; a written value takes at most half of it.
    take = stealFollow   ? std::llround(main.ev.duration * std::min(*stealFollow, 100.0) / 100.0)
           : allMakeTime ? nominal
                         : std::min(nominal, main.ev.duration / 2);
    take = std::min(take, main.ev.duration - 1);
    if (take >= count) {
      start = main.ev.tick;
      main.ev.tick += take;
      main.ev.duration -= take;
    }
  }

  if (start < 0) {
    // No room: the syllables join the main note's lyric, and the notice can undo that.
    std::string joined;
    for (const auto& g : sung) joined += g.lyric;
    const std::string mainLyric = main.ev.lyric;
    const bool mainWasMelisma = mainLyric == "ー";
    main.ev.lyric = joined + (mainWasMelisma ? std::string() : mainLyric);
    main.sungLyric = true;
    const std::size_t at = notice(nk::twoLyricsOnOneNote, main.ev.id, main.ev.tick, main.ev.lyric);
    graceRestores_.push_back({at, main.ev.id, mainLyric, std::move(sung)});
    return;
  }

  // Each slot's share in proportion to its written value, the last taking what is left.
  std::int64_t at = start;
  for (std::size_t s = 0; s < slots.size(); ++s) {
    const std::size_t first = slots[s];
    const std::size_t last = s + 1 < slots.size() ? slots[s + 1] : sung.size();
    std::int64_t len = s + 1 == slots.size()
                           ? start + take - at
                           : std::max<std::int64_t>(
                                 1, std::llround(double(take) * weight(sung[first]) / nominalSum));
    len = std::max<std::int64_t>(
        1, std::min(len, start + take - at - std::int64_t(slots.size() - s - 1)));
    for (std::size_t i = first; i < last; ++i) {
      Note g;
      g.staff = sung[i].staff;
      g.chordMember = i != first;
      g.sungLyric = true;
      g.ev = NoteEvent::make(ids_.next(), at, len, sung[i].pitch, 100, sung[i].lyric);
      notes.push_back(std::move(g));
      if (++soundingNoteCount_ > MusicXMLParser::kNoteLimit)
        fail(std::make_exception_ptr(MIDIFileParser::TooManyNotes()));
    }
    at += len;
  }
  p.voiceState[voice].prevHasLyric = true;
}

// Graces that found no note of their own to lean on.
void Reader::flushGraces(PartBuffer& p, int voice, bool atPartEnd) {
  auto found = p.pendingGraces.find(voice);
  if (found == p.pendingGraces.end()) return;
  for (const PendingGrace& g : found->second) {
    if (g.lyric.empty())
      notice(nk::gracesWithoutLyric, std::nullopt, g.rawTick, std::nullopt);
    else
      notice(nk::mxGraceNotPlaced, std::nullopt, g.rawTick, g.lyric);
  }
  p.pendingGraces.erase(found);
  (void)atPartEnd;
}

// ---- Finishing ---------------------------------------------------------------------------------

MusicDocument Reader::run(std::string_view text,
                          const std::vector<MusicXMLUnfolder::FlowProblem>& problems,
                          std::string_view fallbackTitle) {
  parser_ = XML_ParserCreate(nullptr);
  if (!parser_) throw std::bad_alloc();
  struct Free {
    XML_Parser p;
    ~Free() { XML_ParserFree(p); }
  } guard{parser_};
  XML_SetUserData(parser_, this);
  XML_SetElementHandler(parser_, &Reader::onStart, &Reader::onEnd);
  XML_SetCharacterDataHandler(parser_, &Reader::onText);
  stack_.reserve(32);

  // In slices, since expat counts lengths in int.
  constexpr std::size_t kSlice = 1 << 24;
  std::size_t at = 0;
  do {
    const std::size_t len = std::min(kSlice, text.size() - at);
    const bool last = at + len == text.size();
    const XML_Status status = XML_Parse(parser_, text.data() + at, static_cast<int>(len), last);
    if (error_) std::rethrow_exception(error_);
    if (status != XML_STATUS_OK)
      throw MusicXMLParseError::brokenXML(static_cast<long>(XML_GetCurrentLineNumber(parser_)));
    at += len;
  } while (at < text.size());
  return finish(problems, fallbackTitle);
}

// The buttons that need the song as it ends: the notes where they finally stand, the ticks
// moved by each part's pickup.
void Reader::settleFixes(MusicDocument& doc, const std::unordered_map<Uuid, int>& trackOf) {
  using S = ValidationIssue::Suggestion;
  const auto shiftOf = [&](int part) {
    return part >= 0 && part < int(parts_.size()) ? parts_[std::size_t(part)].pickupShift : 0;
  };
  const auto song = [&](std::int64_t raw, int part) {
    return std::clamp<std::int64_t>(raw + shiftOf(part), 0, maxTick);
  };

  // A rit. slows by a fifth over its span, an accel. speeds up by as much, one step a beat.
  for (const RitRec& r : rits_) {
    const std::int64_t from = song(r.from, r.part), to = song(r.to, r.part);
    if (r.to < 0 || to <= from) continue;
    const std::int64_t steps = std::clamp<std::int64_t>((to - from) / ppq_, 1, 64);
    S::SetTempos change{from, r.backTo ? to + 1 : to, {}};
    for (std::int64_t i = 0; i < steps; ++i) {
      const double bpm = r.bpm * (1 + (r.factor - 1) * double(i + 1) / double(steps));
      change.points.push_back(
          {from + (to - from) * i / steps, std::clamp(std::round(bpm * 100) / 100, 1.0, 1000.0)});
    }
    if (r.backTo) change.points.push_back({to, *r.backTo});
    notices_[r.notice].fixes = {{std::move(change)}};
  }

  if (graceRestores_.empty()) return;
  std::unordered_map<Uuid, const NoteEvent*> mains;
  for (const GraceRestore& g : graceRestores_) mains.emplace(g.mainID, nullptr);
  for (const MusicTrack& t : doc.tracks)
    for (const NoteEvent& n : t.notes)
      if (auto it = mains.find(n.id); it != mains.end()) it->second = &n;
  // The graces are cut from the front of their main note, which gets its own lyric back.
  for (const GraceRestore& g : graceRestores_) {
    const NoteEvent* main = mains[g.mainID];
    const auto track = trackOf.find(g.mainID);
    const auto count = std::int64_t(g.graces.size());
    if (!main || track == trackOf.end() || main->duration - 1 < count) continue;
    double written = 0;
    for (const PendingGrace& p : g.graces)
      written += p.makeTimeTicks ? double(*p.makeTimeTicks) : p.nominalQuarters * double(ppq_);
    const std::int64_t take =
        std::clamp<std::int64_t>(std::min<std::int64_t>(std::llround(written), main->duration / 2),
                                 count, main->duration - 1);
    S::AddNotes add{track->second, {}};
    const std::int64_t each = take / count;
    for (std::int64_t i = 0; i < count; ++i) {
      const PendingGrace& p = g.graces[std::size_t(i)];
      add.notes.push_back(
          {main->tick + each * i, i + 1 == count ? take - each * i : each, p.pitch, p.lyric});
    }
    notices_[g.notice].fixes = {
        {S::SetLyrics{{{main->id, g.mainLyric}}},
         S::SetTiming{{{main->id, main->tick + take, main->duration - take}}}, std::move(add)}};
  }
}

MusicDocument Reader::finish(const std::vector<MusicXMLUnfolder::FlowProblem>& problems,
                             std::string_view fallbackTitle) {
  MusicDocument doc;
  doc.ppq = ppq_;
  doc.tracks.clear();
  std::unordered_map<Uuid, int> trackOf;  // of the notes that notices name
  std::map<int, int> partTrack;
  std::vector<NoticeRec> late;  // found while choosing tracks, placed on their tracks

  const auto shiftOf = [&](int partIndex) {
    return partIndex >= 0 && partIndex < int(parts_.size())
               ? parts_[static_cast<std::size_t>(partIndex)].pickupShift
               : 0;
  };

  for (int pIndex = 0; pIndex < int(parts_.size()); ++pIndex) {
    PartBuffer& p = parts_[static_cast<std::size_t>(pIndex)];
    std::size_t noteCount = 0;
    for (const auto& [v, list] : p.notesByVoice) noteCount += list.size();
    if (noteCount == 0) continue;
    const auto nameIt = partNameByID_.find(p.id);
    const std::string partName = nameIt != partNameByID_.end() ? nameIt->second : std::string();

    // Drums: nothing in the part has a pitch or a lyric.
    if (p.pitchedCount == 0 && p.unpitchedLyricCount == 0) {
      late.push_back({&nk::percussionDropped, -1, std::nullopt, 0,
                      partName.empty() ? p.id : partName, int(noteCount)});
      continue;
    }

    const std::int64_t shift = p.pickupShift;
    std::map<int, int> lyricCount;
    for (const auto& [v, list] : p.notesByVoice)
      for (const Note& n : list) lyricCount[v] += n.sungLyric ? 1 : 0;
    int mainVoice = -1, best = 0;
    for (const auto& [v, c] : lyricCount)
      if (c > best) best = c, mainVoice = v;

    const auto makeTrack = [&](std::string name, std::vector<const std::vector<Note>*> sources,
                               bool muted) {
      std::vector<NoteEvent> events;
      for (const auto* src : sources)
        for (const Note& n : *src) {
          NoteEvent e = n.ev;
          e.tick = addTicks(e.tick, shift);
          events.push_back(std::move(e));
        }
      const auto byTick = [](const NoteEvent& a, const NoteEvent& b) { return a.tick < b.tick; };
      // One voice is already in time order.
      if (!std::is_sorted(events.begin(), events.end(), byTick))
        std::stable_sort(events.begin(), events.end(), byTick);
      const int index = int(doc.tracks.size());
      MusicTrack t;
      t.name = std::move(name);
      t.isMuted = muted;
      t.notes = NoteList(std::move(events));
      doc.tracks.push_back(std::move(t));
      return index;
    };
    const auto voiceName = [&](int v) {
      const int staff = p.staffOfVoice.count(v) ? p.staffOfVoice.at(v) : 1;
      const std::string vs = std::to_string(v >= 1000 ? v - 999 : v);
      return p.staves >= 2 ? trf("%d段目の声部%d", {std::to_string(staff), vs})
                           : trf("声部%d", {vs});
    };
    const std::string baseName = partName;

    if (mainVoice < 0) {
      // No lyrics at all: the part stays one track, as the score shows it.
      std::vector<const std::vector<Note>*> all;
      for (const auto& [v, list] : p.notesByVoice) all.push_back(&list);
      partTrack[pIndex] = makeTrack(baseName, all, false);
    } else {
      const int mainTrack = makeTrack(baseName, {&p.notesByVoice.at(mainVoice)}, false);
      partTrack[pIndex] = mainTrack;
      // Where the sung line rests, for telling which accompanying notes would have sounded in
      // the gaps.
      std::vector<std::pair<std::int64_t, std::int64_t>> sounding;
      for (const Note& n : p.notesByVoice.at(mainVoice))
        sounding.emplace_back(n.ev.tick, n.ev.endTick());
      std::sort(sounding.begin(), sounding.end());
      std::vector<std::pair<std::int64_t, std::int64_t>> merged;
      for (const auto& s : sounding) {
        if (!merged.empty() && s.first <= merged.back().second)
          merged.back().second = std::max(merged.back().second, s.second);
        else
          merged.push_back(s);
      }
      // Whether the sung line sounds all through [from, to).
      const auto covered = [&](std::int64_t from, std::int64_t to) {
        auto it = std::upper_bound(merged.begin(), merged.end(),
                                   std::pair<std::int64_t, std::int64_t>(from, maxTick + 1));
        return it != merged.begin() && std::prev(it)->second >= to;
      };
      for (const auto& [v, list] : p.notesByVoice) {
        if (v == mainVoice) continue;
        const std::string name = baseName.empty() ? voiceName(v) : baseName + " " + voiceName(v);
        if (lyricCount[v] > 0) {
          // A second singing line: its own track, sung when the user selects it.
          const int t = makeTrack(name, {&list}, false);
          late.push_back({&nk::mxUnsungLyricLine, -2 - t, std::nullopt,
                          addTicks(list.front().ev.tick, shift), doc.tracks[std::size_t(t)].name,
                          lyricCount[v]});
        } else {
          const int t = makeTrack(name, {&list}, true);
          using S = ValidationIssue::Suggestion;
          for (const Note& n : list) {
            if (covered(n.ev.tick, n.ev.endTick())) continue;
            // Back into the rests of the sung line, where it sounded in the score.
            const std::int64_t tick = addTicks(n.ev.tick, shift);
            Fixes back{{S::RemoveNotes{{n.ev.id}},
                        S::AddNotes{mainTrack, {{tick, n.ev.duration, n.ev.pitch, n.ev.lyric}}}}};
            late.push_back({&nk::mxVoiceWithoutLyrics, -2 - t, n.ev.id, tick,
                            doc.tracks[std::size_t(t)].name, 1, std::move(back)});
          }
        }
      }
    }
    if (p.pitchedCount == 0) {
      late.push_back({&nk::spokenPart, -2 - partTrack[pIndex], std::nullopt, 0,
                      partName.empty() ? p.id : partName, 1});
    }

    // Other verses: verse 2 has its kind; the rest one kind per line. The button sings the
    // verse on the notes that have it.
    std::map<std::string, std::vector<const VerseRec*>> byKey;
    for (const VerseRec& v : p.otherVerses) byKey[v.key].push_back(&v);
    for (const auto& [key, recs] : byKey) {
      const ImportNoticeKind& kind = key == "2" ? nk::secondVerse : otherVerseNoticeKind(key);
      for (const VerseRec* r : recs) {
        std::string where = key == "2" ? r->text : key + ": " + r->text;
        Fixes sing{{ValidationIssue::Suggestion::SetLyrics{{{r->noteID, r->text}}}}};
        late.push_back(
            {&kind, pIndex, r->noteID, r->rawTick, std::move(where), 1, std::move(sing)});
      }
    }
  }
  if (doc.tracks.empty()) throw MusicXMLParseError::noNotes();

  // Only the notes that notices name: a map of every note cost more than the rest of this step.
  for (const NoticeRec& r : notices_)
    if (r.noteID) trackOf.emplace(*r.noteID, -1);
  for (const NoticeRec& r : late)
    if (r.noteID) trackOf.emplace(*r.noteID, -1);
  for (const GraceRestore& g : graceRestores_) trackOf.emplace(g.mainID, -1);
  if (!trackOf.empty())
    for (std::size_t t = 0; t < doc.tracks.size(); ++t)
      for (const NoteEvent& n : doc.tracks[t].notes)
        if (const auto it = trackOf.find(n.id); it != trackOf.end()) it->second = int(t);
  std::erase_if(trackOf, [](const auto& entry) { return entry.second < 0; });

  for (std::size_t i = 0; i < doc.tracks.size(); ++i) {
    if (doc.tracks[i].name.empty()) doc.tracks[i].name = "Track " + std::to_string(i + 1);
    doc.tracks[i].colorHex = noteColorHex(i % noteColorCatalog().size());
  }

  // Tempo map: each record moved with its part; on one tick the lower part wins, and within a
  // part a <sound> beats a metronome mark.
  std::vector<TempoRec> tempos = tempoRecs_;
  for (TempoRec& r : tempos)
    r.tick = std::clamp<std::int64_t>(r.tick + shiftOf(r.part), 0, maxTick);
  std::stable_sort(tempos.begin(), tempos.end(), [](const TempoRec& a, const TempoRec& b) {
    return std::tie(a.tick, a.part) < std::tie(b.tick, b.part) ||
           (a.tick == b.tick && a.part == b.part && a.fromSound && !b.fromSound);
  });
  doc.tempoMap.clear();
  for (std::size_t i = 0; i < tempos.size(); ++i) {
    if (i > 0 && tempos[i].tick == tempos[i - 1].tick) continue;
    doc.tempoMap.push_back({tempos[i].tick, tempos[i].bpm});
  }
  if (doc.tempoMap.empty() || doc.tempoMap.front().tick != 0)
    doc.tempoMap.insert(doc.tempoMap.begin(), TempoEvent{0, 120});
  {
    std::vector<TempoEvent> kept;
    for (const TempoEvent& t : doc.tempoMap)
      if (kept.empty() || kept.back().bpm != t.bpm) kept.push_back(t);
    doc.tempoMap = std::move(kept);
  }

  // Meters: the first meter of a part stands at the song's start, later ones move with the
  // part; on one tick the lower part wins.
  std::vector<TSRec> meters = tsRecs_;
  for (TSRec& r : meters)
    r.tick = r.tick == 0 ? 0 : std::clamp<std::int64_t>(r.tick + shiftOf(r.part), 0, maxTick);
  std::stable_sort(meters.begin(), meters.end(), [](const TSRec& a, const TSRec& b) {
    return std::tie(a.tick, a.part) < std::tie(b.tick, b.part);
  });
  doc.timeSignatures.clear();
  for (const TSRec& r : meters) {
    if (!doc.timeSignatures.empty() && doc.timeSignatures.back().tick == r.tick) continue;
    if (!doc.timeSignatures.empty() && doc.timeSignatures.back().numerator == r.numerator &&
        doc.timeSignatures.back().denominator == r.denominator)
      continue;
    doc.timeSignatures.push_back({r.tick, r.numerator, r.denominator});
  }
  if (doc.timeSignatures.empty() || doc.timeSignatures.front().tick != 0)
    doc.timeSignatures.insert(doc.timeSignatures.begin(), TimeSignatureEvent{});

  // Keys: of the first part that became a track and names a key (a drum part left out, or a
  // first part without any key, must not leave the song in C). Parts disagree only by
  // transposition or by mistake, so one part's map is the song's.
  doc.keySignatures.clear();
  int keyPart = -1;
  for (const KeyRec& k : keyRecs_)
    if (partTrack.count(k.part) && (keyPart < 0 || k.part < keyPart)) keyPart = k.part;
  for (const KeyRec& k : keyRecs_) {
    if (k.part != keyPart) continue;
    const KeySignatureEvent e{k.tick == 0 ? 0 : addTicks(k.tick, shiftOf(k.part)), k.fifths};
    if (!doc.keySignatures.empty() && doc.keySignatures.back().tick == e.tick)
      doc.keySignatures.back() = e;
    else if (doc.keySignatures.empty() || doc.keySignatures.back().fifths != e.fifths)
      doc.keySignatures.push_back(e);
  }
  if (doc.keySignatures.empty() || doc.keySignatures.front().tick != 0)
    doc.keySignatures.insert(doc.keySignatures.begin(), KeySignatureEvent{});

  doc.title = !workTitle_.empty()       ? workTitle_
              : !movementTitle_.empty() ? movementTitle_
                                        : "Untitled";
  if (doc.title == "Untitled" && !fallbackTitle.empty()) doc.title = std::string(fallbackTitle);

  // The jumps the unfolding could not follow, then what the passes found.
  const int firstTrack = 0;
  for (const auto& problem : problems) {
    const bool ds = problem.kind == MusicXMLUnfolder::FlowProblem::Kind::dsWithoutSegno;
    doc.addNotice(ds ? nk::dsWithoutSegno : nk::mxCodaNotFound, firstTrack, std::nullopt, 0,
                  trf("元の%@小節目", {problem.measure}) + " " + problem.text);
  }
  const auto resolve = [&](const NoticeRec& r) {
    std::optional<int> track;
    std::int64_t tick = r.rawTick;
    if (r.part <= -2) {
      track = -2 - r.part;  // already on the song's time
    } else {
      tick = std::clamp<std::int64_t>(tick + shiftOf(r.part), 0, maxTick);
      if (r.noteID)
        if (const auto it = trackOf.find(*r.noteID); it != trackOf.end()) track = it->second;
      if (!track && r.part >= 0)
        if (const auto it = partTrack.find(r.part); it != partTrack.end()) track = it->second;
      // A note that was lengthened or dropped after the record: the place keeps its time.
      if (r.noteID && !trackOf.count(*r.noteID)) {
        doc.addNotice(*r.kind, track, std::nullopt, tick, r.text, {}, r.count);
        return;
      }
    }
    doc.addNotice(*r.kind, track, r.noteID, tick, r.text, r.fixes, r.count);
  };
  settleFixes(doc, trackOf);
  for (const NoticeRec& r : notices_) resolve(r);
  for (const NoticeRec& r : late) resolve(r);
  return doc;
}

}  // namespace

// ---- Entry points ------------------------------------------------------------------------------

std::vector<std::vector<std::string>> MusicXMLParser::lyricLinesByPart(std::string_view text) {
  // A plain search rather than a second XML pass: the main pass must stay the only one.
  std::vector<std::vector<std::string>> out;
  const auto isTagEnd = [&](std::size_t at) {
    return at < text.size() && (text[at] == ' ' || text[at] == '>' || text[at] == '/' ||
                                text[at] == '\t' || text[at] == '\n' || text[at] == '\r');
  };
  std::size_t at = 0;
  while ((at = text.find('<', at)) != std::string_view::npos) {
    ++at;
    if (at >= text.size() || (text[at] != 'p' && text[at] != 'l')) continue;
    if (text.compare(at, 4, "part") == 0 && isTagEnd(at + 4)) {
      out.emplace_back();
    } else if (text.compare(at, 5, "lyric") == 0 && isTagEnd(at + 5) && !out.empty()) {
      const std::size_t close = text.find('>', at);
      const std::string_view tag =
          text.substr(at, close == std::string_view::npos ? text.size() - at : close - at);
      std::string key = "1";
      if (const std::size_t n = tag.find("number"); n != std::string_view::npos) {
        std::size_t q = tag.find_first_of("\"'", n);
        if (q != std::string_view::npos) {
          const std::size_t e = tag.find(tag[q], q + 1);
          if (e != std::string_view::npos) {
            const std::string_view k =
                text::trimWhitespaceAndNewlines(tag.substr(q + 1, e - q - 1));
            if (!k.empty()) key = std::string(k);
          }
        }
      }
      auto& keys = out.back();
      if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(std::move(key));
    }
  }
  return out;
}

MusicDocument MusicXMLParser::parseText(std::string_view text, int unitScale,
                                        const std::vector<MusicXMLUnfolder::FlowProblem>& problems,
                                        std::string_view fallbackTitle) {
  Reader reader(std::max(1, unitScale), lyricLinesByPart(text));
  return reader.run(text, problems, fallbackTitle);
}

MusicDocument MusicXMLParser::parseBytes(std::string_view bytes, bool containerByName,
                                         std::string_view fallbackTitle) {
  MusicXMLUnfolder::Result unfolded =
      MusicXMLUnfolder::unfold(decodeScoreBytes(bytes, containerByName));
  const int scale = fractionalUnitScale(unfolded.text);
  return parseText(unfolded.text, scale, unfolded.problems, fallbackTitle);
}

MusicDocument MusicXMLParser::parse(const std::filesystem::path& path) {
  MusicXMLUnfolder::Result unfolded = MusicXMLUnfolder::unfold(decodeScore(path));
  const int scale = fractionalUnitScale(unfolded.text);
  return parseText(unfolded.text, scale, unfolded.problems, path.stem().string());
}

}  // namespace melvo
