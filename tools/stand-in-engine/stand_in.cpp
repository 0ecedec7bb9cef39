#include "stand_in.h"

#include <expat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace standin {

double Score::seconds(std::int64_t tick) const {
  double sec = 0;
  std::int64_t at = 0;
  double bpm = 120;
  for (const auto& t : tempos) {
    if (t.tick > tick) break;
    sec += static_cast<double>(t.tick - at) / divisions * 60.0 / bpm;
    at = t.tick;
    bpm = t.bpm > 0 ? t.bpm : 120;
  }
  return sec + static_cast<double>(tick - at) / divisions * 60.0 / bpm;
}

namespace {

struct Reader {
  Score score;
  std::vector<std::string> path;  // open elements
  std::string textBuf;
  int part = 0;
  int measure = 0;
  std::int64_t cursor = 0;
  std::int64_t measureStart = 0;
  bool firstMeasureDone = false;
  // The note being read.
  bool inNote = false;
  bool rest = false, tieStop = false;
  std::string step;
  int alter = 0, octave = 4;
  std::int64_t duration = 0;
  std::string lyric;
  bool hasLyric = false;
  bool joinNext = false;  // the last note ties into the next

  bool inFirstPart() const { return part == 1; }

  void start(const char* name, const char** attrs) {
    std::string n = name;
    path.push_back(n);
    textBuf.clear();
    auto attr = [&](const char* key) -> const char* {
      for (int i = 0; attrs[i]; i += 2)
        if (std::strcmp(attrs[i], key) == 0) return attrs[i + 1];
      return nullptr;
    };
    if (n == "part") {
      ++part;
    } else if (!inFirstPart()) {
      return;
    } else if (n == "measure") {
      ++measure;
      if (const char* num = attr("number")) measure = std::atoi(num);
      measureStart = cursor;
    } else if (n == "note") {
      inNote = true;
      rest = tieStop = false;
      step.clear();
      alter = 0;
      octave = 4;
      duration = 0;
      lyric.clear();
      hasLyric = false;
    } else if (n == "rest" && inNote) {
      rest = true;
    } else if (n == "tie" && inNote) {
      const char* type = attr("type");
      if (type && std::strcmp(type, "stop") == 0) tieStop = true;
    } else if (n == "sound") {
      if (const char* t = attr("tempo")) score.tempos.push_back({cursor, std::atof(t)});
    }
  }

  void end(const char* name) {
    std::string n = name;
    const std::string text = textBuf;
    textBuf.clear();
    path.pop_back();
    if (!inFirstPart()) return;
    if (n == "divisions") {
      score.divisions = std::max(1, std::atoi(text.c_str()));
    } else if (inNote && n == "step") {
      step = text;
    } else if (inNote && n == "alter") {
      alter = std::atoi(text.c_str());
    } else if (inNote && n == "octave") {
      octave = std::atoi(text.c_str());
    } else if (inNote && n == "duration") {
      duration = std::atoll(text.c_str());
    } else if (inNote && n == "text") {
      lyric += text;
      hasLyric = true;
    } else if (n == "note") {
      finishNote();
    } else if (n == "measure") {
      if (!firstMeasureDone) score.firstMeasureTicks = cursor - measureStart;
      firstMeasureDone = true;
    }
  }

  void finishNote() {
    inNote = false;
    int pitch = -1;
    if (!rest) {
      static const std::map<std::string, int> steps = {{"C", 0}, {"D", 2}, {"E", 4}, {"F", 5},
                                                       {"G", 7}, {"A", 9}, {"B", 11}};
      auto it = steps.find(step);
      pitch = (octave + 1) * 12 + (it == steps.end() ? 0 : it->second) + alter;
    }
    if (tieStop && !score.notes.empty() && score.notes.back().pitch == pitch && !rest) {
      score.notes.back().duration += duration;
    } else if (rest && !score.notes.empty() && score.notes.back().pitch < 0) {
      score.notes.back().duration += duration;
    } else {
      score.notes.push_back({cursor, duration, pitch, lyric, hasLyric, measure});
    }
    cursor += duration;
  }
};

}  // namespace

Score readScore(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + file);
  std::stringstream ss;
  ss << in.rdbuf();
  const std::string data = ss.str();
  Reader r;
  XML_Parser p = XML_ParserCreate("UTF-8");
  XML_SetUserData(p, &r);
  XML_SetElementHandler(
      p, [](void* u, const char* n, const char** a) { static_cast<Reader*>(u)->start(n, a); },
      [](void* u, const char* n) { static_cast<Reader*>(u)->end(n); });
  XML_SetCharacterDataHandler(p, [](void* u, const char* s, int len) {
    static_cast<Reader*>(u)->textBuf.append(s, static_cast<std::size_t>(len));
  });
  if (XML_Parse(p, data.data(), static_cast<int>(data.size()), 1) == XML_STATUS_ERROR) {
    std::string msg = std::string(XML_ErrorString(XML_GetErrorCode(p))) + " at line " +
                      std::to_string(XML_GetCurrentLineNumber(p));
    XML_ParserFree(p);
    throw std::runtime_error(msg);
  }
  XML_ParserFree(p);
  if (r.score.firstMeasureTicks <= 0) r.score.firstMeasureTicks = r.score.divisions * 4;
  return r.score;
}

std::vector<Label> readLabels(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error(path + ": No such file or directory");
  std::vector<Label> out;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    Label l;
    std::string sym;
    if (!(ls >> l.start >> l.end >> sym)) continue;
    auto slash = sym.find('/');
    l.symbol = sym.substr(0, slash);
    if (slash != std::string::npos) {
      std::sscanf(sym.c_str() + slash, "/P:%d/N:%d/M:%d", &l.pitch, &l.note, &l.measure);
    }
    out.push_back(l);
  }
  return out;
}

void writeLabels(const std::string& path, const std::vector<Label>& labels, bool full) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  for (const auto& l : labels) {
    out << l.start << ' ' << l.end << ' ' << l.symbol;
    if (full) out << "/P:" << l.pitch << "/N:" << l.note << "/M:" << l.measure;
    out << '\n';
  }
}

namespace {

void readConf(const std::filesystem::path& file, Behaviour& b) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = line.substr(0, eq), value = line.substr(eq + 1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\r')) value.pop_back();
    if (key == "mode") b.mode = value;
    if (key == "delay_ms") b.delayMs = std::atoi(value.c_str());
  }
}

}  // namespace

Behaviour behaviour(const std::string& voiceFolder) {
  Behaviour b;
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec) readConf(exe.parent_path() / "stand-in.conf", b);
  if (!voiceFolder.empty()) readConf(std::filesystem::path(voiceFolder) / "stand-in.conf", b);
  if (const char* m = std::getenv("MELVO_STANDIN_MODE")) b.mode = m;
  if (const char* d = std::getenv("MELVO_STANDIN_DELAY_MS")) b.delayMs = std::atoi(d);
  return b;
}

void applyStartFailures(const Behaviour& b, const char* toolName) {
  if (b.mode == "missing-library") {
    std::fprintf(stderr,
                 "%s: error while loading shared libraries: libonnxruntime.so.1: cannot open "
                 "shared object file: No such file or directory\n",
                 toolName);
    std::exit(127);
  }
  if (b.mode == "hang") hang(toolName);
}

void hang(const char* toolName) {
  // A hung engine that does not even answer SIGTERM: only SIGKILL ends it.
  std::signal(SIGTERM, SIG_IGN);
  std::printf("%s: waiting for a device...\n", toolName);
  std::fflush(stdout);
  for (;;) ::pause();
}

void step(const Behaviour& b, int index) {
  std::fflush(stdout);
  if (b.mode == "slow") std::this_thread::sleep_for(std::chrono::milliseconds(b.delayMs));
  if (b.mode == "crash" && index == 1) {
    std::fprintf(stderr, "Segmentation fault (core dumped)\n");
    std::fflush(stderr);
    std::abort();
  }
}

bool isVowel(const std::string& p) {
  return p == "a" || p == "i" || p == "u" || p == "e" || p == "o" || p == "N";
}

bool isVoiced(const std::string& p) {
  static const char* voiceless[] = {"k",  "s",  "t",  "ch", "sh", "ts",  "p",   "h", "f",
                                    "ky", "py", "hy", "ty", "cl", "sil", "pau", "br"};
  for (const char* v : voiceless)
    if (p == v) return false;
  return true;
}

}  // namespace standin
