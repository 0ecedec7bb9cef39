// Writes out repeats, endings, D.C., D.S. and coda jumps in the text of a partwise score, so
// that the engine, which sings straight through, and the reader, which knows nothing of
// repeats, see the measures in performance order, each as often as it is played.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace melvo {

struct MusicXMLUnfolder {
  MusicXMLUnfolder() = delete;

  static constexpr int kMaxMeasures = 4000;

  // What one measure says about the flow.
  struct MeasureInfo {
    bool forwardRepeat = false;
    bool backwardRepeat = false;
    int times = 2;
    std::optional<std::vector<int>> endingStart;
    bool endingEnds = false;
    bool fine = false;
    bool daCapo = false;
    bool dalSegno = false;
    bool segno = false;
    bool coda = false;
    bool toCoda = false;
    // The words that made the D.S. or To Coda mark, for the notices; empty for a symbol.
    std::string dalSegnoWords, toCodaWords;

    bool hasFlowMark() const {
      return forwardRepeat || backwardRepeat || endingStart || endingEnds || fine || daCapo ||
             dalSegno || segno || coda || toCoda;
    }
  };

  struct UnfoldStats {
    int measuresOriginal = 0;
    int measuresUnfolded = 0;
    int repeatExpanded = 0;
    int jumpsResolved = 0;
    int voltaApplied = 0;
    int loopsCapped = 0;
    bool capped = false;
    int dsWithoutSegno = 0;
    int codaMissing = 0;
  };

  // A jump that could not be followed, for the reader's notices.
  struct FlowProblem {
    enum class Kind { dsWithoutSegno, codaMissing };
    Kind kind;
    std::string measure;  // the measure's own number in the file
    std::string text;     // the marking's words, or "D.S." / "To Coda" for a symbol
  };

  struct Result {
    std::string text;
    UnfoldStats stats;
    std::vector<FlowProblem> problems;
  };

  // The text with every part's measures in performance order. A copy's opening tag carries
  // melvo-pass (the pass it is played in) and melvo-orig (its old number); its number is its
  // place in the unfolded score. Text without flow marks comes back as it is. Throws
  // MusicXMLParseError::tooManyMeasures beyond kMaxMeasures.
  static Result unfold(std::string_view text);
  // The same, handing the text itself back when nothing is to be unfolded: a whole score is
  // not copied for nothing.
  static Result unfold(std::string&& text);

  // `owned`, when given, holds `text` and may be taken.
  static Result unfoldText(std::string_view text, std::string* owned);

  // The flow marks of one measure's text ("<measure ...>...</measure>").
  static MeasureInfo readMeasure(std::string_view measure);
  // The performance order: (measure index, pass) pairs.
  static std::vector<std::pair<int, int>> walk(const std::vector<MeasureInfo>& measures,
                                               UnfoldStats& stats,
                                               std::vector<std::size_t>* unfollowedDS = nullptr,
                                               std::vector<std::size_t>* missingCoda = nullptr);
};

}  // namespace melvo
