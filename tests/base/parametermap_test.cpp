#include "base/parametermap.h"

#include <gtest/gtest.h>

#include <vector>

namespace apm {
namespace base {
namespace {

TEST(ParameterMapTest, GetCopiesTheValueOfAKnownKey) {
  ParameterMap map;
  map["key"] = "value";
  std::string value = "old";
  EXPECT_TRUE(map.get("key", value));
  EXPECT_EQ("value", value);
}

TEST(ParameterMapTest, GetOfAMissingKeyClearsTheValue) {
  ParameterMap map;
  map["key"] = "value";
  std::string value = "old";
  EXPECT_FALSE(map.get("other", value));
  EXPECT_EQ("", value);
}

TEST(ParameterMapTest, EmptyValueIsFoundAndTellsFromMissing) {
  ParameterMap map;
  map["empty"] = "";
  std::string value = "old";
  EXPECT_TRUE(map.get("empty", value));
  EXPECT_EQ("", value);
}

TEST(ParameterMapTest, KeysAreOrderedBytewise) {
  ParameterMap map;
  map["\xc3\xa4"] = "4";  // a byte above 0x7f sorts behind all ASCII
  map["b"] = "3";
  map["B"] = "2";
  map[""] = "1";
  std::vector<std::string> keys;
  for (const auto& entry : map) keys.push_back(entry.first);
  EXPECT_EQ((std::vector<std::string>{"", "B", "b", "\xc3\xa4"}), keys);
}

}  // namespace
}  // namespace base
}  // namespace apm
