// Shared by the application tests: a core in a temporary home that answers its questions
// from a script.
#pragma once

#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "melvo/app/app_state.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/event_loop.h"

namespace melvo::test {

inline MusicDocument songNamed(const std::string& title, int notes = 3) {
  MusicDocument d;
  d.title = title;
  std::vector<NoteEvent> list;
  for (int i = 0; i < notes; ++i)
    list.push_back(NoteEvent::make(Uuid::random(), i * 480LL, 480, 60 + i, 100, "ら"));
  d.tracks[0].notes.assign(std::move(list));
  return d;
}

struct ScriptedCore {
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  EventLoop loop{clock};
  std::deque<FrontEnd::Answer> answers;  // empty: cancel
  std::vector<FrontEnd::Question> asked;
  std::optional<std::filesystem::path> saveChoice;
  int saveChooserCalls = 0;
  std::vector<std::string> alerts;
  std::unique_ptr<AppState> app;

  ScriptedCore() {
    FrontEnd fe;
    fe.ask = [this](const FrontEnd::Question& q) {
      asked.push_back(q);
      if (answers.empty()) return FrontEnd::Answer::cancel;
      auto a = answers.front();
      answers.pop_front();
      return a;
    };
    fe.chooseFileToSave = [this](const FrontEnd::SaveRequest&) {
      ++saveChooserCalls;
      return saveChoice;
    };
    fe.alert = [this](const std::string& t) { alerts.push_back(t); };
    app = std::make_unique<AppState>(loop, fe);
  }
  PianoRollViewModel& vm() { return app->pianoRollVM(); }
  void edit(const std::string& title) {
    vm().commit("編集", [&](MusicDocument& d) { d.title = title; });
  }
};

}  // namespace melvo::test
