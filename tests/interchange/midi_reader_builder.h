// Builds small MIDI files byte by byte for the reader's tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

namespace melvo::test {

inline std::string vlq(std::uint32_t v) {
  std::string out(1, char(v & 0x7F));
  while (v >>= 7) out.insert(out.begin(), char(0x80 | (v & 0x7F)));
  return out;
}

inline std::string be(std::uint32_t v, int bytes) {
  std::string out;
  for (int i = bytes - 1; i >= 0; --i) out.push_back(char((v >> (8 * i)) & 0xFF));
  return out;
}

// One track's events; each call appends an event after `delta` ticks.
struct TrackBytes {
  std::string b;
  TrackBytes& raw(std::uint32_t delta, std::initializer_list<int> bytes) {
    b += vlq(delta);
    for (int x : bytes) b.push_back(char(x));
    return *this;
  }
  TrackBytes& on(std::uint32_t delta, int pitch, int ch = 0, int vel = 100) {
    return raw(delta, {0x90 | ch, pitch, vel});
  }
  TrackBytes& off(std::uint32_t delta, int pitch, int ch = 0) {
    return raw(delta, {0x80 | ch, pitch, 64});
  }
  TrackBytes& meta(std::uint32_t delta, int type, const std::string& body) {
    b += vlq(delta);
    b.push_back(char(0xFF));
    b.push_back(char(type));
    b += vlq(std::uint32_t(body.size()));
    b += body;
    return *this;
  }
  TrackBytes& lyric(std::uint32_t delta, const std::string& text) {
    return meta(delta, 0x05, text);
  }
  TrackBytes& text(std::uint32_t delta, const std::string& t) { return meta(delta, 0x01, t); }
  // A note of `length` ticks starting `delta` after the previous event, with its lyric.
  TrackBytes& sung(std::uint32_t delta, int pitch, std::uint32_t length, const std::string& l) {
    if (!l.empty()) lyric(delta, l), delta = 0;
    return on(delta, pitch).off(length, pitch);
  }
  std::string chunk(bool withEnd = true) const {
    const std::string body = withEnd ? b + std::string("\x00\xFF\x2F\x00", 4) : b;
    return "MTrk" + be(std::uint32_t(body.size()), 4) + body;
  }
};

inline std::string header(int format, int tracks, int division) {
  return "MThd" + be(6, 4) + be(format, 2) + be(tracks, 2) + be(division, 2);
}

inline std::string midiFile(std::initializer_list<TrackBytes> tracks, int division = 480) {
  std::string out = header(tracks.size() > 1 ? 1 : 0, int(tracks.size()), division);
  for (const TrackBytes& t : tracks) out += t.chunk();
  return out;
}

}  // namespace melvo::test
