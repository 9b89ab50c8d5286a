#include "common/Json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace common {
namespace {

TEST(JsonTest, ReplacesBytesThatAreNoUtf8) {
  EXPECT_EQ(DumpJson(nlohmann::json{{"text", "a\xFFz"}}, -1), "{\"text\":\"a\uFFFDz\"}");
  EXPECT_EQ(DumpJson(nlohmann::ordered_json{{"text", "\xC3"}}, -1), "{\"text\":\"\uFFFD\"}");
}

TEST(JsonTest, KeepsWhatIsUtf8) {
  EXPECT_EQ(DumpJson(nlohmann::json("\u00E4\u20AC")), "\"\u00E4\u20AC\"");
}

TEST(JsonTest, IndentsByTwoAndKeepsTheOrder) {
  EXPECT_EQ(DumpJson(nlohmann::ordered_json{{"b", 1}, {"a", 2}}), "{\n  \"b\": 1,\n  \"a\": 2\n}");
}

}  // namespace
}  // namespace common
