// Finds the elements "<name …/>" and "<name …>…</name>" of a raw score text, exactly as the
// pattern "<name(?=[\s/>])([^>]*?)(?:/>|>([\s\S]*?)</name>)" would, but with memchr and memmem:
// measures and parts are the bulk of a score, and a pattern walks them a character at a time
// (several times slower), gives up on megabyte matches at its match limit, and searches again
// from every unclosed start, which makes a damaged file quadratic. Here every byte is looked at
// a bounded number of times.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

namespace melvo {

struct ElementMatch {
  std::size_t begin = 0, end = 0;  // offsets of the whole element in the subject
  std::string_view attributes;     // between the name and ">" (or "/>")
  std::string_view content;        // between the tags; empty for "<name …/>"
  bool empty = false;              // written "<name …/>"
};

inline std::size_t findBytes(std::string_view hay, std::string_view needle, std::size_t from) {
  if (from > hay.size() || hay.size() - from < needle.size()) return std::string_view::npos;
  const void* p = memmem(hay.data() + from, hay.size() - from, needle.data(), needle.size());
  return p ? static_cast<std::size_t>(static_cast<const char*>(p) - hay.data())
           : std::string_view::npos;
}

// Calls f(const ElementMatch&) for each element in text order; f returns false to stop.
template <class F>
void forEachElement(std::string_view subject, std::string_view name, F&& f) {
  const std::string open = "<" + std::string(name);
  const std::string close = "</" + std::string(name) + ">";
  // Once a start finds no closing tag, no later start can, and only empty forms are left.
  bool closable = true;
  std::size_t at = 0;
  while ((at = findBytes(subject, open, at)) != std::string_view::npos) {
    const std::size_t after = at + open.size();
    if (after >= subject.size()) return;
    const char c = subject[after];
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r' && c != '\f' && c != '\v' && c != '/' &&
        c != '>') {
      at = after;
      continue;
    }
    const std::size_t gt = subject.find('>', after);
    if (gt == std::string_view::npos) return;
    ElementMatch m;
    m.begin = at;
    if (gt > after && subject[gt - 1] == '/') {
      m.end = gt + 1;
      m.attributes = subject.substr(after, gt - 1 - after);
      m.empty = true;
    } else {
      const std::size_t end = closable ? findBytes(subject, close, gt + 1) : std::string_view::npos;
      if (end == std::string_view::npos) {
        closable = false;
        at = gt + 1;
        continue;
      }
      m.end = end + close.size();
      m.attributes = subject.substr(after, gt - after);
      m.content = subject.substr(gt + 1, end - gt - 1);
    }
    if (!f(static_cast<const ElementMatch&>(m))) return;
    at = m.end;
  }
}

}  // namespace melvo
