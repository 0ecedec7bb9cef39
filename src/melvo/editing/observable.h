// Observation for the long-lived models on the main thread: a subscriber hears the name of
// each observed property that changed. A front end redraws what depends on it; tests count.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

namespace melvo {

class Observable {
 public:
  using Listener = std::function<void(std::string_view property)>;

  // The token is what unsubscribe() takes.
  std::uint64_t subscribe(Listener listener) {
    std::uint64_t token = next_++;
    listeners_.emplace(token, std::move(listener));
    return token;
  }
  void unsubscribe(std::uint64_t token) { listeners_.erase(token); }

 protected:
  void notify(std::string_view property) {
    // A listener may unsubscribe itself, so walk a copy of the tokens.
    std::vector<std::uint64_t> tokens;
    tokens.reserve(listeners_.size());
    for (const auto& [t, _] : listeners_) tokens.push_back(t);
    for (auto t : tokens) {
      auto it = listeners_.find(t);
      if (it != listeners_.end()) it->second(property);
    }
  }
  // Assigns and notifies only when the value really changed.
  template <typename T, typename U>
  bool assign(T& field, U&& value, std::string_view property) {
    if (field == value) return false;
    field = std::forward<U>(value);
    notify(property);
    return true;
  }

 private:
  std::map<std::uint64_t, Listener> listeners_;
  std::uint64_t next_ = 1;
};

}  // namespace melvo
