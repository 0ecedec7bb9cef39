// Stand-in for the engine's score converter: MusicXML in, full and mono labels out, with the
// engine's complaints about lyrics and notes it cannot sing.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "kana_reading.h"
#include "stand_in.h"

using namespace standin;

namespace {

void usage() {
  std::printf(
      "usage: musicXMLtoLabel SCORE.musicxml FULL.lab MONO.lab\n"
      "\n"
      "Stand-in test double for the NEUTRINO score converter, built with Melvo for its tests\n"
      "and demo. It is not the engine and cannot sing; point Melvo at your own NEUTRINO folder.\n");
}

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "%s\n", message.c_str());
  std::exit(1);
}

std::int64_t units(double sec) {
  return static_cast<std::int64_t>(std::llround(sec * 1e7));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    usage();
    return 0;
  }
  if (argc < 4) {
    usage();
    return 1;
  }
  Score score;
  try {
    score = readScore(argv[1]);
  } catch (const std::exception& e) {
    fail(std::string("Error: cannot read the score: ") + e.what());
  }

  // The engine wants a score that starts with a rest; it adds a bar of rest when it does not,
  // and from then on counts bars one higher than the file.
  int barOffset = 0;
  if (score.notes.empty() || score.notes.front().pitch >= 0) {
    const std::int64_t shift = score.firstMeasureTicks;
    for (auto& n : score.notes) n.tick += shift;
    for (auto& t : score.tempos)
      if (t.tick > 0) t.tick += shift;
    score.notes.insert(score.notes.begin(), ScoreNote{0, shift, -1, "", false, 0});
    barOffset = 1;
    std::printf("Added a rest to the first measure\n");
  }

  std::vector<Label> labels;
  std::string lastVowel;
  std::int64_t lastSungEnd = -1;
  int noteIndex = 0;
  for (std::size_t i = 0; i < score.notes.size(); ++i) {
    const ScoreNote& n = score.notes[i];
    const double s0 = score.seconds(n.tick), s1 = score.seconds(n.tick + n.duration);
    const int measure = n.measure + barOffset;
    if (n.pitch < 0) {
      const bool edge = i == 0 || i + 1 == score.notes.size();
      if (!labels.empty() && (labels.back().symbol == "pau" || labels.back().symbol == "sil"))
        labels.back().end = units(s1);
      else
        labels.push_back({units(s0), units(s1), edge ? "sil" : "pau", -1, -1, measure});
      continue;
    }
    if (n.pitch < 23)
      fail("Error: note pitch " + std::to_string(n.pitch) + " is out of range in measure " +
           std::to_string(measure));
    const std::string& lyric = n.lyric;
    // Tests make the engine stop on a lyric that Melvo passes, to follow the log back.
    static const char* refused = std::getenv("MELVO_STANDIN_REFUSE_LYRIC");
    if (refused && lyric == refused)
      fail("Undefined lyric `" + lyric + "` in measure " + std::to_string(measure));
    const KanaReading reading = readKana(lyric);
    std::vector<std::string> phonemes;
    if (reading.onlyChouon) {
      if (lastVowel.empty() || lastSungEnd != n.tick)
        fail("Undefined lyric `" + lyric + "` in measure " + std::to_string(measure));
      phonemes.push_back(lastVowel);
    } else {
      if (reading.units.empty())
        fail("Undefined lyric `" + lyric + "` in measure " + std::to_string(measure));
      const int count = reading.phonemeCount();
      if (count > 8)
        fail("Error: " + std::to_string(count) + " phonemes on one note in measure " +
             std::to_string(measure) + " (at most 8)");
      for (const auto& unit : reading.units)
        for (const auto& p : unit) phonemes.push_back(p);
    }
    // Consonants before the first vowel sit just before the note, borrowed from what
    // precedes it; the rest shares the note.
    std::size_t lead = 0;
    while (lead < phonemes.size() && !isVowel(phonemes[lead]) && phonemes[lead] != "cl") ++lead;
    if (lead == phonemes.size()) lead = 0;
    double consonantStart = s0;
    if (lead > 0 && !labels.empty()) {
      const double prevStart = labels.back().start / 1e7;
      consonantStart = s0 - std::min(0.04 * static_cast<double>(lead), (s0 - prevStart) / 2);
      labels.back().end = units(consonantStart);
    }
    for (std::size_t k = 0; k < lead; ++k) {
      const double a = consonantStart + (s0 - consonantStart) * static_cast<double>(k) / lead;
      const double b = consonantStart + (s0 - consonantStart) * static_cast<double>(k + 1) / lead;
      labels.push_back({units(a), units(b), phonemes[k], n.pitch, noteIndex, measure});
    }
    const std::size_t body = phonemes.size() - lead;
    for (std::size_t k = 0; k < body; ++k) {
      const double a = s0 + (s1 - s0) * static_cast<double>(k) / static_cast<double>(body);
      const double b = s0 + (s1 - s0) * static_cast<double>(k + 1) / static_cast<double>(body);
      labels.push_back({units(a), units(b), phonemes[lead + k], n.pitch, noteIndex, measure});
    }
    for (auto it = phonemes.rbegin(); it != phonemes.rend(); ++it)
      if (isVowel(*it) && *it != "N") {
        lastVowel = *it;
        break;
      }
    lastSungEnd = n.tick + n.duration;
    ++noteIndex;
  }
  if (labels.empty() || labels.back().symbol != "sil") {
    const std::int64_t end = labels.empty() ? 0 : labels.back().end;
    if (!labels.empty() && labels.back().symbol == "pau")
      labels.back().symbol = "sil";
    else
      labels.push_back({end, end + units(0.5), "sil", -1, -1, 0});
  }
  try {
    writeLabels(argv[2], labels, true);
    writeLabels(argv[3], labels, false);
  } catch (const std::exception& e) {
    fail(std::string("Error: ") + e.what());
  }
  std::printf("Wrote %zu labels for %d notes\n", labels.size(), noteIndex);
  return 0;
}
