#include "base/rootpath.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/privateroot.h"

namespace apm {
namespace base {
namespace {

TEST(RootedPath, UnsetRootLeavesPathsExactlyAsGiven) {
  unsetenv("ECOMM_ROOT");
  EXPECT_EQ(RootedPath("/etc/kelvora/ecomm.conf"), "/etc/kelvora/ecomm.conf");
  setenv("ECOMM_ROOT", "", 1);
  EXPECT_EQ(RootedPath("/var/run/kelvoraecommd.pid"), "/var/run/kelvoraecommd.pid");
}

TEST(RootedPath, RootIsPutInFrontWithoutDoubleSlash) {
  setenv("ECOMM_ROOT", "/srv/root/", 1);
  EXPECT_EQ(RootedPath("/tmp/kelvora-ecomm/"), "/srv/root/tmp/kelvora-ecomm/");
  unsetenv("ECOMM_ROOT");
}

TEST(RootedPath, PrivateRootPointsTheDaemonPathsIntoItself) {
  test::PrivateRoot root;
  EXPECT_EQ(RootedPath("/etc/kelvora/"), root.path() + "/etc/kelvora/");
  EXPECT_TRUE(root.Exists("/var/opt/kelvora"));
}

}  // namespace
}  // namespace base
}  // namespace apm
