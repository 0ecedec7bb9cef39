#include "melvo/app/cleanup_policy_store.h"

#include <array>
#include <string>

namespace melvo {
namespace {

constexpr std::array kPatterns{AmbiguousPattern::invalidYouon, AmbiguousPattern::tieLyricDup,
                               AmbiguousPattern::ghostVelocity};
constexpr std::array kDecisions{CleanupDecision::ask, CleanupDecision::autoFix,
                                CleanupDecision::autoSkip};

const char* propertyName(AmbiguousPattern p) {
  switch (p) {
    case AmbiguousPattern::invalidYouon:
      return "invalidYouon";
    case AmbiguousPattern::tieLyricDup:
      return "tieLyricDup";
    case AmbiguousPattern::ghostVelocity:
      return "ghostVelocity";
  }
  return "";
}

}  // namespace

CleanupPolicyStore::CleanupPolicyStore(Preferences& preferences) : preferences_(preferences) {
  reload();
}

std::string CleanupPolicyStore::preferenceKey(AmbiguousPattern pattern) {
  return std::string("melvo.cleanupDecision.") + propertyName(pattern);
}

const char* CleanupPolicyStore::decisionName(CleanupDecision decision) {
  switch (decision) {
    case CleanupDecision::ask:
      return "ask";
    case CleanupDecision::autoFix:
      return "autoFix";
    case CleanupDecision::autoSkip:
      return "autoSkip";
  }
  return "ask";
}

CleanupDecision CleanupPolicyStore::decision(AmbiguousPattern pattern) const {
  return policy().decision(pattern);
}

CleanupDecision& CleanupPolicyStore::field(AmbiguousPattern pattern) {
  switch (pattern) {
    case AmbiguousPattern::invalidYouon:
      return _invalidYouon;
    case AmbiguousPattern::tieLyricDup:
      return _tieLyricDup;
    case AmbiguousPattern::ghostVelocity:
      break;
  }
  return _ghostVelocity;
}

void CleanupPolicyStore::setDecision(AmbiguousPattern pattern, CleanupDecision decision) {
  preferences_.set(preferenceKey(pattern), Json(decisionName(decision)));
  assign(field(pattern), decision, propertyName(pattern));
}

void CleanupPolicyStore::reload() {
  for (AmbiguousPattern p : kPatterns) {
    // Anything but a known name (a value from a newer version, a hand edit) falls back to
    // asking, which changes nothing in the song.
    CleanupDecision d = CleanupDecision::ask;
    if (const Json* v = preferences_.get(preferenceKey(p)); v && v->isString())
      for (CleanupDecision known : kDecisions)
        if (v->asString() == decisionName(known)) d = known;
    assign(field(p), d, propertyName(p));
  }
}

}  // namespace melvo
