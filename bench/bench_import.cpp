// The door for foreign files at full size. Each pair runs side by side in one program:
// - unfolding a 200,000-note score with a repeat every 8 bars, against one PCRE2 JIT scan of
//   the same text for its measures (goal: within 2x);
// - reading a 10 MB member of an .mxl, against zlib's own inflate of it (goal: within 1.5x).
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <memory>
#include <string>

#include "melvo/importers/musicxml_unfolder.h"
#include "melvo/importers/pcre_pattern.h"
#include "melvo/importers/zip_reader.h"

namespace {

using namespace melvo;

constexpr int kParts = 4, kMeasures = 2000, kNotesPerMeasure = 25;  // 200,000 notes

const std::string& score() {
  static const std::string text = [] {
    const char* steps = "CDEFGAB";
    std::string s =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<score-partwise version=\"3.1\">\n"
        "  <part-list>\n";
    for (int p = 1; p <= kParts; ++p)
      s += "    <score-part id=\"P" + std::to_string(p) + "\"><part-name>Voice " +
           std::to_string(p) + "</part-name></score-part>\n";
    s += "  </part-list>\n";
    for (int p = 1; p <= kParts; ++p) {
      s += "  <part id=\"P" + std::to_string(p) + "\">\n";
      for (int m = 0; m < kMeasures; ++m) {
        s += "    <measure number=\"" + std::to_string(m + 1) + "\" width=\"312.5\">\n";
        if (m % 8 == 0)
          s += "      <barline location=\"left\"><bar-style>heavy-light</bar-style>"
               "<repeat direction=\"forward\"/></barline>\n";
        for (int n = 0; n < kNotesPerMeasure; ++n) {
          s += "      <note default-x=\"";
          s += std::to_string(12 + n * 11);
          s += ".50\">\n        <pitch><step>";
          s += steps[(m + n) % 7];
          s += "</step><octave>4</octave></pitch>\n        <duration>1</duration>\n"
               "        <voice>1</voice>\n        <type>16th</type>\n        <stem>up</stem>\n"
               "        <lyric number=\"1\"><syllabic>single</syllabic><text>ら</text></lyric>\n"
               "      </note>\n";
        }
        if (m % 8 == 7)
          s += "      <barline location=\"right\"><bar-style>light-heavy</bar-style>"
               "<repeat direction=\"backward\"/></barline>\n";
        s += "    </measure>\n";
      }
      s += "  </part>\n";
    }
    return s + "</score-partwise>\n";
  }();
  return text;
}

void BM_UnfoldScore(benchmark::State& state) {
  const std::string& text = score();
  int measures = 0;
  for (auto _ : state) {
    auto result = MusicXMLUnfolder::unfold(text);
    measures = result.stats.measuresUnfolded;
    benchmark::DoNotOptimize(result.text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size() * state.iterations()));
  state.counters["MB"] = static_cast<double>(text.size()) / 1e6;
  state.counters["unfolded"] = measures;
}
BENCHMARK(BM_UnfoldScore)->Unit(benchmark::kMillisecond)->UseRealTime();

// The anchor: every measure of the file found once by the unfolder's own pattern.
void BM_PcreScanScore(benchmark::State& state) {
  const std::string& text = score();
  static const PcrePattern measure("<measure(?=[\\s/>])[^>]*?(?:/>|>[\\s\\S]*?</measure>)");
  int count = 0;
  for (auto _ : state) {
    count = 0;
    measure.forEach(text, [&](const PcrePattern::Match&) {
      ++count;
      return true;
    });
    benchmark::DoNotOptimize(count);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size() * state.iterations()));
  state.counters["measures"] = count;
}
BENCHMARK(BM_PcreScanScore)->Unit(benchmark::kMillisecond)->UseRealTime();

// A one-member archive as notation programs write it: local header, deflated data, directory.
struct Archive {
  std::string bytes, packed;
  std::size_t size = 0;
};

const Archive& archive() {
  static const Archive a = [] {
    Archive out;
    std::string member = score().substr(0, 10u * 1000 * 1000);
    out.size = member.size();
    uLongf bound = compressBound(static_cast<uLong>(member.size()));
    z_stream z{};
    deflateInit2(&z, 6, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    out.packed.resize(bound);
    z.next_in = reinterpret_cast<Bytef*>(member.data());
    z.avail_in = static_cast<uInt>(member.size());
    z.next_out = reinterpret_cast<Bytef*>(out.packed.data());
    z.avail_out = static_cast<uInt>(bound);
    deflate(&z, Z_FINISH);
    out.packed.resize(z.total_out);
    deflateEnd(&z);
    const auto crc = static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(member.data()), static_cast<uInt>(member.size())));
    auto put = [&](std::uint32_t v, int n) {
      for (int i = 0; i < n; ++i) out.bytes += static_cast<char>((v >> (8 * i)) & 0xFF);
    };
    const std::string name = "score.xml";
    const auto packedSize = static_cast<std::uint32_t>(out.packed.size());
    const auto size = static_cast<std::uint32_t>(member.size());
    put(0x04034B50, 4), put(20, 2), put(0, 2), put(8, 2), put(0, 4), put(crc, 4);
    put(packedSize, 4), put(size, 4), put(static_cast<std::uint32_t>(name.size()), 2), put(0, 2);
    out.bytes += name + out.packed;
    const auto directory = static_cast<std::uint32_t>(out.bytes.size());
    put(0x02014B50, 4), put(20, 2), put(20, 2), put(0, 2), put(8, 2), put(0, 4), put(crc, 4);
    put(packedSize, 4), put(size, 4), put(static_cast<std::uint32_t>(name.size()), 2);
    put(0, 2), put(0, 2), put(0, 2), put(0, 2), put(0, 4), put(0, 4);
    out.bytes += name;
    const auto directorySize = static_cast<std::uint32_t>(out.bytes.size()) - directory;
    put(0x06054B50, 4), put(0, 2), put(0, 2), put(1, 2), put(1, 2), put(directorySize, 4);
    put(directory, 4), put(0, 2);
    return out;
  }();
  return a;
}

void BM_ZipReadMember(benchmark::State& state) {
  const Archive& a = archive();
  const auto entry = ZipReader::entries(a.bytes)->front();
  for (auto _ : state) {
    auto member = ZipReader::read(entry, a.bytes);
    if (!member || member->size() != a.size) state.SkipWithError("member not read");
    benchmark::DoNotOptimize(member->data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(a.size * state.iterations()));
}
BENCHMARK(BM_ZipReadMember)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same member with its CRC checked, as the .mxl and .zip routes read it.
void BM_ZipReadMemberChecked(benchmark::State& state) {
  const Archive& a = archive();
  const auto entry = ZipReader::entries(a.bytes)->front();
  for (auto _ : state) {
    auto member = ZipReader::read(entry, a.bytes);
    if (!member || ZipReader::crc32(*member) != entry.crc32) state.SkipWithError("bad CRC");
    benchmark::DoNotOptimize(member->data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(a.size * state.iterations()));
}
BENCHMARK(BM_ZipReadMemberChecked)->Unit(benchmark::kMillisecond)->UseRealTime();

// The anchor: zlib alone, raw inflate of the same data into a fresh buffer of the known size.
void BM_ZlibInflate(benchmark::State& state) {
  const Archive& a = archive();
  for (auto _ : state) {
    std::unique_ptr<char[]> out(new char[a.size]);
    z_stream z{};
    inflateInit2(&z, -MAX_WBITS);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(a.packed.data()));
    z.avail_in = static_cast<uInt>(a.packed.size());
    z.next_out = reinterpret_cast<Bytef*>(out.get());
    z.avail_out = static_cast<uInt>(a.size);
    if (inflate(&z, Z_FINISH) != Z_STREAM_END) state.SkipWithError("inflate");
    inflateEnd(&z);
    benchmark::DoNotOptimize(out.get());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(a.size * state.iterations()));
}
BENCHMARK(BM_ZlibInflate)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
