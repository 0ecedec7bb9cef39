#include "melvo/playback/preview_instrument.h"

namespace melvo {

std::string_view rawValue(PreviewInstrument instrument) {
  switch (instrument) {
    case PreviewInstrument::piano:
      return "piano";
    case PreviewInstrument::choir:
      return "choir";
    case PreviewInstrument::flute:
      return "flute";
    case PreviewInstrument::organ:
      return "organ";
    case PreviewInstrument::synth:
      return "synth";
  }
  return "piano";
}

std::optional<PreviewInstrument> previewInstrumentNamed(std::string_view raw) {
  for (PreviewInstrument i : allPreviewInstruments)
    if (rawValue(i) == raw) return i;
  return std::nullopt;
}

int programNumber(PreviewInstrument instrument) {
  // Acoustic Grand Piano, Choir Aahs, Flute, Drawbar Organ, Lead 1 (square): each has a clear
  // attack or a steady tone, so a melody's pitches stay easy to follow.
  switch (instrument) {
    case PreviewInstrument::piano:
      return 0;
    case PreviewInstrument::choir:
      return 52;
    case PreviewInstrument::flute:
      return 73;
    case PreviewInstrument::organ:
      return 16;
    case PreviewInstrument::synth:
      return 80;
  }
  return 0;
}

}  // namespace melvo
