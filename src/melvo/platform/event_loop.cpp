#include "melvo/platform/event_loop.h"

#include <asio.hpp>

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

namespace melvo {

struct EventLoop::Impl {
  struct Timer {
    Clock::time_point due;
    Clock::duration interval;
    std::shared_ptr<std::function<void()>> tick;
  };

  asio::io_context io{1};
  asio::steady_timer waker{io};
  std::unique_ptr<asio::signal_set> signals;
  std::map<std::uint64_t, Timer> timers;
  std::uint64_t nextId = 1;
  std::size_t jobsRun = 0;  // posted jobs and timer ticks, for runUntilIdle's count
};

// ---- RepeatingTimer ----

RepeatingTimer::RepeatingTimer(RepeatingTimer&& other) noexcept
    : loop_(other.loop_), id_(other.id_) {
  other.loop_ = nullptr;
  other.id_ = 0;
}

RepeatingTimer& RepeatingTimer::operator=(RepeatingTimer&& other) noexcept {
  if (this != &other) {
    cancel();
    loop_ = other.loop_;
    id_ = other.id_;
    other.loop_ = nullptr;
    other.id_ = 0;
  }
  return *this;
}

void RepeatingTimer::cancel() {
  if (loop_) loop_->cancelTimer(id_);
  loop_ = nullptr;
  id_ = 0;
}

bool RepeatingTimer::isActive() const {
  return loop_ && loop_->timerActive(id_);
}

// ---- EventLoop ----

EventLoop::EventLoop(std::shared_ptr<Clock> clock)
    : clock_(std::move(clock)), impl_(std::make_unique<Impl>()) {}

EventLoop::~EventLoop() = default;

void EventLoop::post(std::function<void()> job) {
  asio::post(impl_->io, [this, job = std::move(job)] {
    ++impl_->jobsRun;
    job();
  });
}

RepeatingTimer EventLoop::scheduleRepeating(Clock::duration interval, std::function<void()> tick) {
  if (interval <= Clock::duration::zero()) interval = std::chrono::milliseconds(1);
  std::uint64_t id = impl_->nextId++;
  impl_->timers.emplace(id, Impl::Timer{clock_->now() + interval, interval,
                                        std::make_shared<std::function<void()>>(std::move(tick))});
  armWaker();
  return RepeatingTimer(this, id);
}

void EventLoop::cancelTimer(std::uint64_t id) {
  if (impl_->timers.erase(id)) armWaker();
}

bool EventLoop::timerActive(std::uint64_t id) const {
  return impl_->timers.count(id) != 0;
}

asio::io_context& EventLoop::context() {
  return impl_->io;
}

std::size_t EventLoop::activeTimerCount() const {
  return impl_->timers.size();
}

std::size_t EventLoop::fireDueTimers() {
  const Clock::time_point now = clock_->now();
  std::vector<std::pair<Clock::time_point, std::uint64_t>> due;
  for (const auto& [id, t] : impl_->timers)
    if (t.due <= now) due.emplace_back(t.due, id);
  std::sort(due.begin(), due.end());
  std::size_t fired = 0;
  for (const auto& [when, id] : due) {
    auto it = impl_->timers.find(id);
    if (it == impl_->timers.end()) continue;  // cancelled by an earlier tick
    Impl::Timer& t = it->second;
    // Next due time on the original grid, past now.
    auto behind = (now - t.due) / t.interval;
    t.due += t.interval * (behind + 1);
    auto tick = t.tick;  // the tick may cancel its own timer
    ++impl_->jobsRun;
    ++fired;
    (*tick)();
  }
  return fired;
}

void EventLoop::armWaker() {
  impl_->waker.cancel();
  if (impl_->timers.empty() || clock_->isManual()) return;
  auto earliest =
      std::min_element(impl_->timers.begin(), impl_->timers.end(),
                       [](const auto& a, const auto& b) { return a.second.due < b.second.due; })
          ->second.due;
  impl_->waker.expires_after(std::max(earliest - clock_->now(), Clock::duration::zero()));
  impl_->waker.async_wait([this](const asio::error_code& ec) {
    if (ec) return;  // re-armed or cancelled
    fireDueTimers();
    armWaker();
  });
}

void EventLoop::run() {
  auto guard = asio::make_work_guard(impl_->io);
  impl_->io.restart();
  armWaker();
  impl_->io.run();
}

void EventLoop::stop() {
  impl_->io.stop();
}

std::size_t EventLoop::runUntilIdle() {
  const std::size_t before = impl_->jobsRun;
  for (;;) {
    const std::size_t start = impl_->jobsRun;
    fireDueTimers();
    impl_->io.restart();
    impl_->io.poll();
    if (impl_->jobsRun == start) break;
  }
  return impl_->jobsRun - before;
}

void EventLoop::onSignals(std::initializer_list<int> signals, std::function<void(int)> handler) {
  impl_->signals = std::make_unique<asio::signal_set>(impl_->io);
  for (int s : signals) impl_->signals->add(s);
  auto shared = std::make_shared<std::function<void(int)>>(std::move(handler));
  auto wait = std::make_shared<std::function<void()>>();
  *wait = [this, shared, weakWait = std::weak_ptr<std::function<void()>>(wait)] {
    impl_->signals->async_wait([shared, weakWait](const asio::error_code& ec, int signo) {
      if (ec) return;
      (*shared)(signo);
      if (auto w = weakWait.lock()) (*w)();
    });
  };
  signalWait_ = wait;
  (*wait)();
}

}  // namespace melvo
