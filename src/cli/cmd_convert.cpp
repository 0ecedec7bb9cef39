// melvo convert IN OUT: open any readable song and write it in the format of OUT's extension.
// A .musicxml is the engine's score and holds one track; a .mid holds every track.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>

#include "cli/command.h"
#include "cli/open_song.h"
#include "melvo/interchange/export_choice.h"
#include "melvo/interchange/midi_file_writer.h"
#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo::cli {
namespace {

struct Options {
  std::string in, out;
  std::string trackText;  // parsed here, so that any bad number is a usage error (exit 2)
  bool trackGiven = false;
};

enum class Format { project, musicXML, midi };

// A track number as typed: digits only, no sign. A huge one saturates (no song has that many
// tracks) instead of overflowing into a small one.
std::optional<std::size_t> parseTrack(const std::string& text) {
  if (text.empty()) return std::nullopt;
  constexpr std::size_t kCeiling = 1'000'000'000'000;
  std::size_t n = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    n = std::min(kCeiling, n * 10 + static_cast<std::size_t>(c - '0'));
  }
  return n;
}

// The track for the engine's score: the one asked for, else the export choice. The choice's
// message goes to stderr so that stdout stays free for scripts.
std::optional<int> musicXMLTrack(const MusicDocument& d, const Options& o) {
  if (o.trackGiven) {
    const auto track = parseTrack(o.trackText);
    if (d.tracks.empty()) {
      printError(trf("トラック %@ はありません（この曲にはトラックがありません）", {o.trackText}));
      return std::nullopt;
    }
    if (!track || *track >= d.tracks.size()) {
      printError(trf("トラック %@ はありません（この曲のトラックは 0 から %@ までです）",
                     {o.trackText, std::to_string(d.tracks.size() - 1)}));
      return std::nullopt;
    }
    return static_cast<int>(*track);
  }
  if (auto choice = chooseExportTrack(d, std::nullopt)) {
    if (!choice->message.empty()) std::fprintf(stderr, "%s\n", choice->message.c_str());
    return choice->trackIndex;
  }
  // Nothing audible has notes: the first track with notes, or an empty score of track 1.
  for (std::size_t i = 0; i < d.tracks.size(); ++i)
    if (!d.tracks[i].notes.empty()) return static_cast<int>(i);
  return 0;
}

int convert(const Options& o) {
  const std::string ext = text::asciiLower(std::filesystem::path(o.out).extension().string());
  Format format;
  if (ext == ".nsproj") {
    format = Format::project;
  } else if (ext == ".musicxml") {
    format = Format::musicXML;
  } else if (ext == ".mid") {
    format = Format::midi;
  } else {
    printError(trf("この形式では書き出せません: %@", {o.out}));
    return 2;
  }
  if (o.trackGiven && format != Format::musicXML) {
    printError(tr("--track は .musicxml に書き出す時だけ使えます"));
    return 2;
  }
  if (o.trackGiven && !parseTrack(o.trackText)) {
    printError(trf("--track には 0 以上のトラック番号を指定してください: %@", {o.trackText}));
    return 2;
  }
  std::optional<MusicDocument> opened = openOrReport(o.in);
  if (!opened) return 1;
  MusicDocument& d = *opened;
  switch (format) {
    case Format::project:
      try {
        writeProject(d, o.out);
      } catch (const FileError& e) {
        printError(trf("保存に失敗しました: %@", {e.what()}));
        return 1;
      }
      return 0;
    case Format::musicXML: {
      const auto track = musicXMLTrack(d, o);
      if (!track) return 2;
      try {
        writeFileAtomically(o.out, MusicXMLExporter::render(d.singleTrackCopy(*track)));
      } catch (const FileError& e) {
        printError(trf("MusicXML書き出しに失敗: %@", {e.what()}));
        return 1;
      }
      return 0;
    }
    case Format::midi:
      try {
        writeFileAtomically(o.out, MIDIFileWriter::data(d));
      } catch (const FileError& e) {
        printError(trf("MIDI の書き出しに失敗: %@", {e.what()}));
        return 1;
      }
      return 0;
  }
  return 1;
}

const bool registered = registerCommand(
    {"convert", N_("曲を別の形式に書き出す（出力の拡張子で形式を選ぶ）"), 20,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("IN", opts->in, tr("読むファイル"))->required();
       sub.add_option("OUT", opts->out, tr("書くファイル（.nsproj、.musicxml、.mid）"))->required();
       auto* track =
           sub.add_option("--track", opts->trackText,
                          tr("書き出すトラックの番号（0 から数える。.musicxml の時だけ）"));
       track->type_name("N");
       sub.footer(
           tr(".musicxml は NEUTRINO に渡す楽譜で、トラックを1本だけ書き出します。--track "
              "が無い時は、消音でなく声の決まったトラックを選び、どれを選んだかを標準エラー"
              "に出します。.mid は消音のトラックも含めて全部のトラックを書き出します。"));
       sub.alias("export");
       return [opts, track] {
         opts->trackGiven = track->count() > 0;
         return convert(*opts);
       };
     }});

}  // namespace
}  // namespace melvo::cli
