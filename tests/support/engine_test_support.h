// Helpers of the engine tests: running the main queue until something happened, the
// stand-in engine's folder, and the processes of a group.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "melvo/platform/event_loop.h"

namespace melvo::test {

// Runs the loop until `done` holds or `limit` has passed; true when `done` held.
bool pumpUntil(EventLoop& loop, const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(30));

// <build>/stand-in-engine, found from this test program's own place in the build.
std::filesystem::path standInEngine();

// Live (not zombie) processes whose process group is `pgid`.
// A file under /proc, read with plain system calls: the process may end while it is read, and
// a stream would throw then. Empty when it is gone.
std::string readProcFile(const std::filesystem::path& path);
std::vector<pid_t> liveMembers(pid_t pgid);

// Every sample of an audio file, channels interleaved; `channels` gets their count.
std::vector<float> readSamples(const std::filesystem::path& wav, int* channels = nullptr);

// An engine folder of shell-script tools, for checks that need a tool to misbehave.
void makeFakeEngine(const std::filesystem::path& dir, const std::string& neutrinoBody);

}  // namespace melvo::test
