// Opening a 200,000-note single-part score of about 75 MB, laid out the way notation programs
// write it (positions, stems, beams, a lyric on every note), against a bare expat parse of the
// same file with empty handlers, side by side. Goals: the open within 2x of the bare parse,
// its peak memory under 4x the file size. The peak is taken in a child process, so that the
// generator's own buffers do not count.
#include <benchmark/benchmark.h>
#include <expat.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "melvo/interchange/musicxml_parser.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/log.h"

namespace {

using namespace melvo;
namespace fs = std::filesystem;

const fs::path& scoreFile() {
  static const fs::path path = [] {
    const fs::path p =
        fs::temp_directory_path() / ("melvo-bench-" + std::to_string(getpid()) + ".musicxml");
    const char* steps[] = {"C", "D", "E", "F", "G", "A", "B"};
    const char* lyrics[] = {"あ", "か", "さ", "た", "な", "きゃ", "ら", "ん", "しゅ", "ぽ"};
    std::string s;
    s.reserve(80u << 20);
    s += "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n"
         "<!DOCTYPE score-partwise PUBLIC \"-//Recordare//DTD MusicXML 3.1 Partwise//EN\" "
         "\"http://www.musicxml.org/dtds/partwise.dtd\">\n<score-partwise version=\"3.1\">\n"
         "  <work>\n    <work-title>Bench</work-title>\n  </work>\n  <part-list>\n"
         "    <score-part id=\"P1\">\n      <part-name>Voice</part-name>\n    </score-part>\n"
         "  </part-list>\n  <part id=\"P1\">\n";
    const int notes = int(MusicXMLParser::kNoteLimit);
    for (int i = 0; i < notes; ++i) {
      if (i % 8 == 0) {
        if (i > 0) s += "      </measure>\n";
        s += "    <measure number=\"" + std::to_string(i / 8 + 1) + "\" width=\"312.45\">\n";
        if (i == 0)
          s += "      <attributes>\n        <divisions>2</divisions>\n        <key>\n"
               "          <fifths>0</fifths>\n          </key>\n        <time>\n"
               "          <beats>4</beats>\n          <beat-type>4</beat-type>\n"
               "          </time>\n        <clef>\n          <sign>G</sign>\n"
               "          <line>2</line>\n          </clef>\n        </attributes>\n"
               "      <direction placement=\"above\">\n        <direction-type>\n"
               "          <metronome parentheses=\"no\">\n            <beat-unit>quarter"
               "</beat-unit>\n            <per-minute>120</per-minute>\n            </metronome>\n"
               "          </direction-type>\n        <sound tempo=\"120\"/>\n"
               "        </direction>\n";
      }
      char buf[1024];
      std::snprintf(buf, sizeof buf,
                    "      <note default-x=\"%d.52\">\n"
                    "        <pitch>\n          <step>%s</step>\n          <octave>%d</octave>\n"
                    "          </pitch>\n        <duration>1</duration>\n        <voice>1</voice>\n"
                    "        <type>eighth</type>\n        <stem>up</stem>\n"
                    "        <beam number=\"1\">%s</beam>\n"
                    "        <lyric number=\"1\" default-x=\"6.58\">\n"
                    "          <syllabic>single</syllabic>\n"
                    "          <text>%s</text>\n"
                    "          </lyric>\n        </note>\n",
                    13 + (i % 8) * 36, steps[i % 7], 4 + (i / 7) % 2, i % 2 ? "end" : "begin",
                    lyrics[i % 10]);
      s += buf;
    }
    s += "      </measure>\n    </part>\n  </score-partwise>\n";
    std::ofstream(p, std::ios::binary) << s;
    return p;
  }();
  return path;
}

// MELVO_BENCH_KEEP=1 leaves the score behind for a profiler.
struct Remove {
  ~Remove() {
    if (std::getenv("MELVO_BENCH_KEEP")) return;
    std::error_code ec;
    fs::remove(scoreFile(), ec);
  }
};

void XMLCALL noStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL noEnd(void*, const XML_Char*) {}
void XMLCALL noText(void*, const XML_Char*, int) {}

// Reading the file and letting expat see every element and character: the least a reader
// that builds anything must do.
void BM_BareExpatParse(benchmark::State& state) {
  for (auto _ : state) {
    const std::string bytes = readFile(scoreFile());
    XML_Parser p = XML_ParserCreate(nullptr);
    XML_SetElementHandler(p, noStart, noEnd);
    XML_SetCharacterDataHandler(p, noText);
    const bool ok = XML_Parse(p, bytes.data(), int(bytes.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(p);
    if (!ok) state.SkipWithError("expat refused the score");
  }
  state.counters["MB"] = double(fs::file_size(scoreFile())) / 1e6;
}
BENCHMARK(BM_BareExpatParse)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_OpenScore(benchmark::State& state) {
  log::setSink([](const std::string&) {});
  std::size_t notes = 0;
  for (auto _ : state) {
    const MusicDocument d = MusicXMLParser::parse(scoreFile());
    benchmark::DoNotOptimize(notes = d.totalNoteCount());
  }
  state.counters["notes"] = double(notes);
  // One more open in a child, whose peak resident size is all its own work plus what it
  // inherited resident from here.
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  state.counters["parentMB"] = double(resident) * double(sysconf(_SC_PAGESIZE)) / 1e6;
  const pid_t child = fork();
  if (child == 0) {
    const MusicDocument d = MusicXMLParser::parse(scoreFile());
    _exit(d.totalNoteCount() > 0 ? 0 : 1);
  }
  int status = 0;
  struct rusage usage {};
  wait4(child, &status, 0, &usage);
  const double fileMB = double(fs::file_size(scoreFile())) / 1e6;
  state.counters["peakMB"] = double(usage.ru_maxrss) / 1e3;
  state.counters["peakPerFile"] = double(usage.ru_maxrss) / 1e3 / fileMB;
}
BENCHMARK(BM_OpenScore)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const Remove cleanup;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
