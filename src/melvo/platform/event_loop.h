// The main queue: one Asio io_context run on the main thread. Everything that touches the
// song hops here with post(); repeating timers (autosave) fire here too.
//
// Timers are measured on a Clock that can be swapped for a ManualClock, so a test moves time
// forward by hand and then drains the queue with runUntilIdle() instead of sleeping.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>

namespace asio {
class io_context;
}

namespace melvo {

class Clock {
 public:
  using time_point = std::chrono::steady_clock::time_point;
  using duration = std::chrono::steady_clock::duration;
  virtual ~Clock() = default;
  virtual time_point now() const = 0;
  // A manual clock never advances by itself, so the loop must not wait on it in real time.
  virtual bool isManual() const { return false; }
};

class SteadyClock : public Clock {
 public:
  time_point now() const override { return std::chrono::steady_clock::now(); }
};

class ManualClock : public Clock {
 public:
  time_point now() const override { return now_; }
  bool isManual() const override { return true; }
  void advance(duration d) { now_ += d; }

 private:
  time_point now_{};
};

class EventLoop;

// A repeating timer's handle. Dropping or resetting the handle cancels the timer, so an owner
// that replaces its timer can never leave the old one running.
class RepeatingTimer {
 public:
  RepeatingTimer() = default;
  ~RepeatingTimer() { cancel(); }
  RepeatingTimer(RepeatingTimer&& other) noexcept;
  RepeatingTimer& operator=(RepeatingTimer&& other) noexcept;
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  void cancel();
  bool isActive() const;

 private:
  friend class EventLoop;
  RepeatingTimer(EventLoop* loop, std::uint64_t id) : loop_(loop), id_(id) {}
  EventLoop* loop_ = nullptr;
  std::uint64_t id_ = 0;
};

class EventLoop {
 public:
  explicit EventLoop(std::shared_ptr<Clock> clock = std::make_shared<SteadyClock>());
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Safe from any thread: the job runs later on the loop's thread.
  void post(std::function<void()> job);

  // First fires one interval from now, then every interval after the previous due time (a
  // late tick does not shift the grid, and missed ticks are not replayed in a burst).
  [[nodiscard]] RepeatingTimer scheduleRepeating(Clock::duration interval,
                                                 std::function<void()> tick);

  // Runs until stop(); waits for work when there is none.
  void run();
  // Safe from any thread and from a signal handler's posted job.
  void stop();
  // Runs whatever is ready, including timers already due on the clock, until nothing is left.
  // Returns the number of jobs and timer ticks run.
  std::size_t runUntilIdle();
  // Calls `handler` on the loop with the signal number when one of `signals` arrives.
  void onSignals(std::initializer_list<int> signals, std::function<void(int)> handler);

  Clock& clock() { return *clock_; }
  std::size_t activeTimerCount() const;

  // The io_context behind the queue, for pipes and sockets read on the main thread. Their
  // handlers run in run() and runUntilIdle() like posted jobs, but are not counted as jobs.
  asio::io_context& context();

 private:
  friend class RepeatingTimer;
  struct Impl;
  void cancelTimer(std::uint64_t id);
  bool timerActive(std::uint64_t id) const;
  std::size_t fireDueTimers();
  void armWaker();

  std::shared_ptr<Clock> clock_;
  std::unique_ptr<Impl> impl_;
  std::shared_ptr<std::function<void()>> signalWait_;  // re-arms the signal wait
};

}  // namespace melvo
