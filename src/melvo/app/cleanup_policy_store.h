// The user's standing answers to the three findings that may be slips or intent, for every
// clean-up run. Each answer is kept in the preferences store at once, so the next run, the
// next session and `melvo fix` all see it; a missing or unknown stored value means "ask".
#pragma once

#include <string>

#include <string_view>

#include "melvo/app/preferences.h"
#include "melvo/checking/cleanup_engine.h"
#include "melvo/editing/observable.h"

namespace melvo {

class CleanupPolicyStore : public Observable {
 public:
  // Reads the decisions from `preferences`, which must outlive the store.
  explicit CleanupPolicyStore(Preferences& preferences);

  // Preference keys ("melvo.cleanupDecision.invalidYouon", ...) and the stored names of the
  // decisions ("ask", "autoFix", "autoSkip").
  static std::string preferenceKey(AmbiguousPattern pattern);
  static const char* decisionName(CleanupDecision decision);

  CleanupDecision invalidYouon() const { return _invalidYouon; }
  CleanupDecision tieLyricDup() const { return _tieLyricDup; }
  CleanupDecision ghostVelocity() const { return _ghostVelocity; }
  CleanupDecision decision(AmbiguousPattern pattern) const;
  // What a run takes.
  CleanupPolicy policy() const { return {_invalidYouon, _tieLyricDup, _ghostVelocity}; }

  // Stores the answer and notifies the field's name ("invalidYouon", ...) when it changed.
  void setDecision(AmbiguousPattern pattern, CleanupDecision decision);
  // Reads the store again, after another process may have changed the file.
  void reload();

 private:
  CleanupDecision& field(AmbiguousPattern pattern);

  Preferences& preferences_;
  CleanupDecision _invalidYouon = CleanupDecision::ask;
  CleanupDecision _tieLyricDup = CleanupDecision::ask;
  CleanupDecision _ghostVelocity = CleanupDecision::ask;
};

}  // namespace melvo
