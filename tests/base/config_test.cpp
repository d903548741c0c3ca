#include "base/config.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/privateroot.h"

namespace apm {
namespace base {
namespace {

TEST(ConfigPath, IsTheKelvoraDirectoryUnderTheRoot) {
  unsetenv("ECOMM_ROOT");
  EXPECT_EQ(GetDaemonConfigPath(), "/etc/kelvora/");
  EXPECT_EQ(GetConfigPath(), "/etc/kelvora/");
  test::PrivateRoot root;
  EXPECT_EQ(GetDaemonConfigPath(), root.path() + "/etc/kelvora/");
  EXPECT_EQ(GetConfigPath(), GetDaemonConfigPath());
}

class ConfigTest : public ::testing::Test {
 protected:
  void Write(const std::string& content) { root_.WriteFile("/etc/kelvora/ecomm.conf", content); }

  test::PrivateRoot root_;
  Config config_{"ecomm.conf"};
};

TEST_F(ConfigTest, StringLookupFindsValue) {
  Write("ServerHost  10.1.2.3 \n");
  std::string value;
  EXPECT_TRUE(config_.GetConfigValue("ServerHost", value));
  EXPECT_EQ(value, "10.1.2.3");
}

TEST_F(ConfigTest, StringLookupOfMissingKeyLeavesValue) {
  Write("ServerHost 10.1.2.3\n");
  std::string value = "unchanged";
  EXPECT_FALSE(config_.GetConfigValue("ListenHost", value));
  EXPECT_EQ(value, "unchanged");
}

TEST_F(ConfigTest, MissingFileIsAFailedLookup) {
  Config other("absent.conf");
  std::string value = "unchanged";
  EXPECT_FALSE(other.GetConfigValue("ServerHost", value));
  EXPECT_EQ(value, "unchanged");
}

TEST_F(ConfigTest, IntegerLookupConvertsDecimal) {
  Write("ListenPort 10003\n");
  unsigned int port = 0;
  EXPECT_TRUE(config_.GetConfigValue("ListenPort", port));
  EXPECT_EQ(port, 10003u);
}

TEST_F(ConfigTest, IntegerLookupOfEmptyValueFailsAndLeavesValue) {
  Write("ListenPort\n");
  unsigned int port = 7;
  EXPECT_FALSE(config_.GetConfigValue("ListenPort", port));
  EXPECT_EQ(port, 7u);
}

TEST_F(ConfigTest, IntegerLookupOfMissingKeyFailsAndLeavesValue) {
  Write("ServerPort 1\n");
  unsigned int port = 7;
  EXPECT_FALSE(config_.GetConfigValue("ListenPort", port));
  EXPECT_EQ(port, 7u);
}

TEST_F(ConfigTest, IntegerWithTrailingTextFailsAfterStoringLeadingNumber) {
  Write("ListenPort 12abc\n");
  unsigned int port = 7;
  EXPECT_FALSE(config_.GetConfigValue("ListenPort", port));
  EXPECT_EQ(port, 12u);
}

TEST_F(ConfigTest, IntegerAfterEqualsSignFails) {
  Write("ListenPort=10003\n");
  unsigned int port = 7;
  EXPECT_FALSE(config_.GetConfigValue("ListenPort", port));
  EXPECT_EQ(port, 0u);
}

TEST_F(ConfigTest, DefaultAppliesOnlyToFailedLookup) {
  Write("ServerHost\nListenHost 1.2.3.4\n");
  std::string value;
  EXPECT_TRUE(config_.GetConfigValue("Missing", value, "fallback"));
  EXPECT_EQ(value, "fallback");
  EXPECT_TRUE(config_.GetConfigValue("ListenHost", value, "fallback"));
  EXPECT_EQ(value, "1.2.3.4");
  // Found with an empty value is found: no default.
  EXPECT_TRUE(config_.GetConfigValue("ServerHost", value, "fallback"));
  EXPECT_EQ(value, "");
}

TEST_F(ConfigTest, EveryLookupReadsTheFileAgain) {
  Write("ListenPort 1\n");
  unsigned int port = 0;
  EXPECT_TRUE(config_.GetConfigValue("ListenPort", port));
  EXPECT_EQ(port, 1u);
  Write("ListenPort 2\n");
  EXPECT_TRUE(config_.GetConfigValue("ListenPort", port));
  EXPECT_EQ(port, 2u);
}

}  // namespace
}  // namespace base
}  // namespace apm
