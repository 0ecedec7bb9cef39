// The user's standing decisions for the findings that may be intended: kept in the
// preferences file, read back by a later session, and anything unknown read as "ask".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "melvo/app/cleanup_policy_store.h"
#include "support/test_support.h"

namespace melvo {
namespace {

TEST(CleanupPolicyStoreTest, DecisionsOutliveTheSessionAndNotifyOnlyOnChange) {
  test::TempDir dir;
  Preferences prefs(dir / "preferences.json");
  CleanupPolicyStore store(prefs);
  EXPECT_EQ(store.policy(), CleanupPolicy{});
  std::vector<std::string> heard;
  store.subscribe([&](std::string_view property) { heard.emplace_back(property); });
  store.setDecision(AmbiguousPattern::tieLyricDup, CleanupDecision::autoSkip);
  store.setDecision(AmbiguousPattern::tieLyricDup, CleanupDecision::autoSkip);
  store.setDecision(AmbiguousPattern::ghostVelocity, CleanupDecision::autoFix);
  EXPECT_EQ(heard, (std::vector<std::string>{"tieLyricDup", "ghostVelocity"}));

  // A later session reads the file anew.
  Preferences later(dir / "preferences.json");
  CleanupPolicyStore reread(later);
  EXPECT_EQ(reread.policy(), (CleanupPolicy{CleanupDecision::ask, CleanupDecision::autoSkip,
                                            CleanupDecision::autoFix}));

  // A value this version does not know, or of the wrong type, means asking.
  later.set(CleanupPolicyStore::preferenceKey(AmbiguousPattern::ghostVelocity), Json("always"));
  later.set(CleanupPolicyStore::preferenceKey(AmbiguousPattern::invalidYouon), Json(true));
  reread.reload();
  EXPECT_EQ(reread.ghostVelocity(), CleanupDecision::ask);
  EXPECT_EQ(reread.invalidYouon(), CleanupDecision::ask);
  EXPECT_EQ(reread.tieLyricDup(), CleanupDecision::autoSkip);
}

}  // namespace
}  // namespace melvo
