// Framing and encoding: what turns bytes into requests and answers into one line.
#include <gtest/gtest.h>

#include <cmath>

#include "melvo/agent/mcp_json.h"
#include "melvo/agent/mcp_line_buffer.h"

namespace melvo {
namespace {

std::vector<std::string> describe(const std::vector<McpLineBuffer::Item>& items) {
  std::vector<std::string> out;
  for (const auto& i : items) {
    if (auto* l = std::get_if<McpLineBuffer::Line>(&i)) {
      out.push_back(l->text);
    } else if (std::holds_alternative<McpLineBuffer::TooLong>(i)) {
      out.push_back("<too long>");
    } else {
      out.push_back("<not text>");
    }
  }
  return out;
}

TEST(McpLineBufferTest, CutsLinesAcrossReads) {
  McpLineBuffer b;
  EXPECT_TRUE(b.append("{\"a\"").empty());
  EXPECT_EQ(describe(b.append(":1}\r\n{\"b\":2}\n\n{")),
            (std::vector<std::string>{"{\"a\":1}", "{\"b\":2}"}));
  EXPECT_EQ(describe(b.append("}\n\xff\xfe\nok\n")),
            (std::vector<std::string>{"{}", "<not text>", "ok"}));
}

TEST(McpLineBufferTest, LongLineGivesOneAnswerAndStaysInStep) {
  McpLineBuffer b;
  b.maxLineBytes = 8;
  EXPECT_EQ(describe(b.append("12345678\n")), (std::vector<std::string>{"12345678"}));
  EXPECT_EQ(describe(b.append("12345678\r\n")), (std::vector<std::string>{"12345678"}));
  // Split just before the newline, with the carriage return already in.
  EXPECT_TRUE(b.append("12345678\r").empty());
  EXPECT_EQ(describe(b.append("\n")), (std::vector<std::string>{"12345678"}));
  // Nine bytes: too long, whether the newline comes with them or much later.
  EXPECT_EQ(describe(b.append("123456789\nx\n")), (std::vector<std::string>{"<too long>", "x"}));
  std::vector<std::string> all;
  for (int i = 0; i < 50; ++i) {
    for (auto& s : describe(b.append("abcdef"))) all.push_back(s);
  }
  for (auto& s : describe(b.append("\ny\n"))) all.push_back(s);
  EXPECT_EQ(all, (std::vector<std::string>{"<too long>", "y"}));
  EXPECT_TRUE(b.pending.empty());
}

TEST(McpJsonTest, AnswersAreOneSortedLine) {
  McpJSON result = McpJSON::Object{{"z", 1}, {"a", "x\ny"}, {"m", McpJSON::Array{0.1, 1e300, 2.0}}};
  EXPECT_EQ(encodeResponse(McpResponse::success("7", result)),
            R"({"id":"7","ok":true,"result":{"a":"x\ny","m":[0.1,1e+300,2],"z":1}})");
  EXPECT_EQ(encodeResponse(McpResponse::failure(std::nullopt, McpError::Code::notFound, "no")),
            R"({"error":{"code":"notFound","message":"no"},"ok":false})");
  // No JSON form for these: null rather than a broken line.
  EXPECT_EQ(encodeLine(McpJSON::Array{McpJSON(std::nan("")), McpJSON(HUGE_VAL), McpJSON(0.5)}),
            "[null,null,0.5]");
  // Shortest text that reads back to the same double.
  for (double d : {0.1, 1.0 / 3.0, 123456.789, -2.5e-7, 5e-324}) {
    EXPECT_EQ(McpJSON::parse(encodeLine(McpJSON(d))).asDouble(), d);
  }
  EXPECT_EQ(encodeLine(McpJSON(1.0 / 3.0)), "0.3333333333333333");
}

TEST(McpJsonTest, RequestsDecodeIntegersApartFromDoubles) {
  auto r = decodeRequest(
      R"({"id":"x","command":"notes.add","args":{"a":3,"b":3.0,"c":1e2,"d":9223372036854775808,"e":true}})");
  EXPECT_EQ(r.id, "x");
  EXPECT_EQ(r.command, "notes.add");
  ASSERT_TRUE(r.args);
  EXPECT_EQ(r.args->at("a").type(), McpJSON::Type::Int);
  EXPECT_EQ(r.args->at("b").type(), McpJSON::Type::Double);
  EXPECT_EQ(r.args->at("c").type(), McpJSON::Type::Double);
  EXPECT_EQ(r.args->at("d").type(), McpJSON::Type::Double);  // past the integer range
  EXPECT_EQ(r.args->at("e").type(), McpJSON::Type::Bool);
  for (const char* bad : {"", "[]", "{}", R"({"command":1})", R"({"command":"x","id":5})",
                          R"({"command":"x","args":[1]})", "{\"command\":\"x\"", "nul"}) {
    EXPECT_THROW(decodeRequest(bad), McpDecodeError) << bad;
  }
}

}  // namespace
}  // namespace melvo
