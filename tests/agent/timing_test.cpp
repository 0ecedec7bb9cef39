// Moving phoneme boundaries of a render: each move stays between its neighbours, a refused
// batch moves nothing, and values keep the label files' resolution.
#include <gtest/gtest.h>

#include "melvo/agent/mcp_command_layer.h"
#include "melvo/agent/mcp_memory_host.h"
#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

class TimingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    i18n::setLanguage("en");
    memory.setTiming(PhonemeList::parse("0 5000000 sil\n5000000 6000000 k\n6000000 9000000 a\n"));
  }
  Json call(const std::string& line) { return Json::parse(layer.handleLine(line)); }
  std::string timing() {
    return call(R"({"command":"timing.read"})").find("result")->find("phonemes")->dump();
  }

  McpMemoryHost memory;
  McpCommandLayer layer{memory.host()};
};

TEST_F(TimingTest, NoRenderNoTiming) {
  McpMemoryHost bare;
  McpCommandLayer l(bare.host());
  EXPECT_NE(l.handleLine(R"({"command":"timing.read"})").find(R"("code":"notFound")"),
            std::string::npos);
}

TEST_F(TimingTest, BoundariesMoveBetweenNeighbours) {
  const std::string before = timing();
  // Phoneme 0 has no boundary to move; in the second batch the first move is good but the
  // second, past the end of its phoneme, spoils the whole batch.
  for (const char* bad : {R"([{"index":0,"startSec":0.1}])",
                          R"([{"index":2,"startSec":0.55},{"index":2,"startSec":0.9}])",
                          R"([{"index":1,"startSec":0}])", R"([{"index":3,"startSec":0.7}])",
                          R"([{"index":1,"startSec":"0.55"}])"}) {
    Json r = call(std::string(R"({"command":"timing.move","args":{"edits":)") + bad + "}}");
    EXPECT_FALSE(r.find("ok")->asBool()) << bad;
  }
  EXPECT_EQ(timing(), before);

  Json moved = call(
      R"({"command":"timing.move","args":{"edits":[{"index":1,"startSec":0.450000004},{"index":2,"startSec":0.7}]}})");
  ASSERT_TRUE(moved.find("ok")->asBool()) << moved.dump();
  EXPECT_EQ(moved.find("result")->find("changedBoundaries")->asInt(), 2);
  EXPECT_EQ(timing(), R"([{"endSec":0.45,"index":0,"name":"sil","startSec":0},)"
                      R"({"endSec":0.7,"index":1,"name":"k","startSec":0.45},)"
                      R"({"endSec":0.9,"index":2,"name":"a","startSec":0.7}])");
}

TEST_F(TimingTest, LimitOnEdits) {
  std::string edits;
  for (int i = 0; i < 2001; ++i)
    edits += std::string(i ? "," : "") + R"({"index":1,"startSec":0.55})";
  EXPECT_NE(layer.handleLine(R"({"command":"timing.move","args":{"edits":[)" + edits + "]}}")
                .find("limitExceeded"),
            std::string::npos);
}

}  // namespace
}  // namespace melvo
