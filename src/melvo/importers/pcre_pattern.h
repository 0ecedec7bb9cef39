// A compiled PCRE2 pattern (JIT where the machine allows) with the few match loops the raw
// score passes need. The passes run whole-file patterns such as "[\s\S]*?", which std::regex
// cannot (it recurses per character).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

struct pcre2_real_code_8;
struct pcre2_real_match_data_8;

namespace melvo {

class PcrePattern {
 public:
  enum Flags : unsigned {
    none = 0,
    caseless = 1,
    // Code points above U+00FF in the pattern, matched against UTF-8. Invalid UTF-8 in the
    // subject is tolerated (it simply does not match), never an error.
    utf = 2,
    // "^" and "$" at every line.
    multiline = 4,
  };

  // A pattern that does not compile is a programming error and aborts.
  explicit PcrePattern(const char* source, unsigned flags = none);
  ~PcrePattern();
  PcrePattern(const PcrePattern&) = delete;
  PcrePattern& operator=(const PcrePattern&) = delete;

  // One match and its groups. Unset groups are empty views whose data() is nullptr.
  struct Match {
    std::size_t begin = 0, end = 0;
    std::vector<std::string_view> groups;  // [0] is the whole match
    bool has(std::size_t g) const { return g < groups.size() && groups[g].data() != nullptr; }
  };

  // The first match at or after `from`.
  bool find(std::string_view subject, Match& match, std::size_t from = 0) const;
  bool matches(std::string_view subject) const {
    Match m;
    return find(subject, m);
  }
  // Calls f(const Match&) for each match left to right; f returns false to stop.
  template <class F>
  void forEach(std::string_view subject, F&& f) const {
    Match m;
    std::size_t from = 0;
    while (from <= subject.size() && find(subject, m, from)) {
      if (!f(static_cast<const Match&>(m))) return;
      from = m.end > m.begin ? m.end : m.end + 1;
    }
  }

 private:
  pcre2_real_code_8* code_ = nullptr;
  unsigned flags_ = none;
};

}  // namespace melvo
