// The instruments the preview can sound the score with, by General MIDI program.
#pragma once

#include <optional>
#include <string_view>

namespace melvo {

enum class PreviewInstrument { piano, choir, flute, organ, synth };

inline constexpr PreviewInstrument allPreviewInstruments[] = {
    PreviewInstrument::piano, PreviewInstrument::choir, PreviewInstrument::flute,
    PreviewInstrument::organ, PreviewInstrument::synth};

// The stored name ("piano", ...), also what the preference "melvo.previewInstrument" holds.
std::string_view rawValue(PreviewInstrument instrument);
std::optional<PreviewInstrument> previewInstrumentNamed(std::string_view raw);
// The General MIDI program (0-based) the bank is asked for.
int programNumber(PreviewInstrument instrument);

}  // namespace melvo
