// The stand-in engine: a test double with the engine's command lines, files and failure
// behaviour, so that the driver can be tested end to end without the real engine. It sings a
// buzz through two vowel resonances, which is enough to hear and measure timing and pitch.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace standin {

// One note of the first part, ties joined; rests have pitch -1.
struct ScoreNote {
  std::int64_t tick = 0;
  std::int64_t duration = 0;
  int pitch = -1;
  std::string lyric;
  bool hasLyric = false;
  int measure = 1;  // as numbered in the file
};

struct TempoMark {
  std::int64_t tick = 0;
  double bpm = 120;
};

struct Score {
  int divisions = 480;
  std::int64_t firstMeasureTicks = 0;
  std::vector<ScoreNote> notes;  // rests included, in time order
  std::vector<TempoMark> tempos;
  double seconds(std::int64_t tick) const;
};

// Throws std::runtime_error with the parser's message and line.
Score readScore(const std::string& path);

// A line of our labels. The full labels carry the pitch and the note after the symbol:
// "<start> <end> <symbol>/P:<midi>/N:<note index>/M:<measure>"; mono labels only the symbol.
struct Label {
  std::int64_t start = 0;  // 100 ns units
  std::int64_t end = 0;
  std::string symbol;
  int pitch = -1;
  int note = -1;
  int measure = 0;
};

std::vector<Label> readLabels(const std::string& path);  // throws std::runtime_error
void writeLabels(const std::string& path, const std::vector<Label>& labels, bool full);

// Failure switches for tests: MELVO_STANDIN_MODE / MELVO_STANDIN_DELAY_MS in the environment,
// else `mode=` / `delay_ms=` in stand-in.conf of the voice folder, else of the bin folder.
struct Behaviour {
  // "", "hang", "hang-run" (hangs only when given work, so a start check passes), "crash",
  // "missing-library", "slow"
  std::string mode;
  int delayMs = 700;
};
Behaviour behaviour(const std::string& voiceFolder);
// Acts on hang, crash and missing-library; returns for the others.
void applyStartFailures(const Behaviour& b, const char* toolName);
// Waits for ever, deaf to SIGTERM: only SIGKILL ends it.
[[noreturn]] void hang(const char* toolName);
// One step of work: sleeps in slow mode, crashes in crash mode at the given step.
void step(const Behaviour& b, int index);

bool isVowel(const std::string& phoneme);
bool isVoiced(const std::string& phoneme);

}  // namespace standin
