#include "base/directory.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/famerror.h"
#include "tests/fixtures/sdkstandin.h"
#include "tests/support/privateroot.h"

namespace apm {
namespace base {
namespace {

mode_t PermissionsOf(const std::string& path) {
  struct stat info;
  EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

TEST(Directory, ConstructorAddsTrailingSlashToNonEmptyPath) {
  EXPECT_EQ(Directory("/a/b").GetPath(), "/a/b/");
  EXPECT_EQ(Directory("/a/b/").GetPath(), "/a/b/");
  EXPECT_EQ(Directory("").GetPath(), "");
  EXPECT_EQ(Directory().GetPath(), "");
}

TEST(Directory, ParentOfPathWithoutTrailingSlash) {
  EXPECT_EQ(Directory("/a/b").GetParent(), "/a/");
  EXPECT_EQ(Directory("/a/b/").GetParent(), "/a/");
  EXPECT_EQ(Directory("/a").GetParent(), "/");
}

TEST(Directory, ParentIsEmptyWithoutSlashBeforeLastComponent) {
  EXPECT_EQ(Directory("/").GetParent(), "");
  EXPECT_EQ(Directory("relative").GetParent(), "");
  EXPECT_EQ(Directory("").GetParent(), "");
  EXPECT_EQ(Directory("rel/sub").GetParent(), "rel/");
}

TEST(Directory, CreateWithEmptyPathFails) {
  FamError record(true);
  EXPECT_FALSE(Directory("").Create(true, 0));
  EXPECT_EQ(record.code, 0);
}

TEST(Directory, CreateOnExistingDirectorySucceeds) {
  test::PrivateRoot root;
  FamError record(true);
  EXPECT_TRUE(Directory(root.Path("/etc/kelvora")).Create(false, 0));
  EXPECT_TRUE(Directory(root.Path("/etc/kelvora")).Create(true, 0700));
  EXPECT_EQ(record.code, 0);
}

TEST(Directory, CreateOnExistingFileFailsWithErrorInRecord) {
  test::PrivateRoot root;
  root.WriteFile("/etc/kelvora/plain", "x");
  FamError record(true);
  EXPECT_FALSE(Directory(root.Path("/etc/kelvora/plain")).Create(false, 0));
  EXPECT_EQ(record.code, E_SYSTEM_BASE + ENOTDIR);
  EXPECT_FALSE(record.message.empty());
}

TEST(Directory, CreateWithoutRecursionFailsOnMissingParent) {
  test::PrivateRoot root;
  FamError record(true);
  EXPECT_FALSE(Directory(root.Path("/var/opt/kelvora/missing/child")).Create(false, 0));
  EXPECT_EQ(record.code, E_SYSTEM_BASE + ENOENT);
  EXPECT_FALSE(root.Exists("/var/opt/kelvora/missing"));
}

TEST(Directory, RecursiveCreateMakesMissingParents) {
  test::PrivateRoot root;
  FamError record(true);
  EXPECT_TRUE(Directory(root.Path("/var/opt/kelvora/one/two/three")).Create(true, 0));
  EXPECT_TRUE(IsDirectory(root.Path("/var/opt/kelvora/one/two/three")));
  EXPECT_EQ(record.code, 0);
}

TEST(Directory, DefaultModeIs0770UnderTheUmask) {
  test::PrivateRoot root;
  mode_t old = umask(022);
  EXPECT_TRUE(Directory(root.Path("/var/opt/kelvora/plain")).Create(false, 0));
  umask(old);
  EXPECT_EQ(PermissionsOf(root.Path("/var/opt/kelvora/plain")), 0750u);
}

TEST(Directory, ExplicitModeIsAppliedDespiteTheUmask) {
  test::PrivateRoot root;
  mode_t old = umask(077);
  EXPECT_TRUE(Directory(root.Path("/var/opt/kelvora/wide")).Create(false, 0775));
  umask(old);
  EXPECT_EQ(PermissionsOf(root.Path("/var/opt/kelvora/wide")), 0775u);
}

TEST(Directory, ExplicitModeDoesNotReachDirectoriesMadeAfterMissingParent) {
  test::PrivateRoot root;
  mode_t old = umask(0);
  EXPECT_TRUE(Directory(root.Path("/var/opt/kelvora/p/q")).Create(true, 0700));
  umask(old);
  EXPECT_EQ(PermissionsOf(root.Path("/var/opt/kelvora/p")), 0770u);
  EXPECT_EQ(PermissionsOf(root.Path("/var/opt/kelvora/p/q")), 0770u);
}

TEST(Directory, StandardLocationsWithoutRoot) {
  unsetenv("ECOMM_ROOT");
  EXPECT_EQ(Directory::GetLocalAppConfigPath(false), "/etc/kelvora/ecomm/");
  EXPECT_EQ(Directory::GetAppDataPath("ecomm", false), "/var/opt/kelvora/ecomm/");
  EXPECT_EQ(Directory::GetTemporaryPath(false), "/tmp/kelvora-ecomm/");
  EXPECT_STREQ(kApplicationName, "ecomm");
}

TEST(Directory, LocationsAreNotMadeWithoutCreate) {
  test::PrivateRoot root;
  EXPECT_EQ(Directory::GetLocalAppConfigPath(false), root.Path("/etc/kelvora/ecomm/"));
  EXPECT_EQ(Directory::GetAppDataPath("ecomm", false), root.Path("/var/opt/kelvora/ecomm/"));
  EXPECT_EQ(Directory::GetTemporaryPath(false), root.Path("/tmp/kelvora-ecomm/"));
  EXPECT_FALSE(root.Exists("/etc/kelvora/ecomm"));
  EXPECT_FALSE(root.Exists("/var/opt/kelvora/ecomm"));
  EXPECT_FALSE(root.Exists("/tmp/kelvora-ecomm"));
}

TEST(Directory, LocalAppConfigPathCreatesConfigurationFolders) {
  test::PrivateRoot root;
  rmdir(root.Path("/etc/kelvora").c_str());
  ASSERT_FALSE(root.Exists("/etc/kelvora"));
  EXPECT_EQ(Directory::GetLocalAppConfigPath(true), root.Path("/etc/kelvora/ecomm/"));
  EXPECT_TRUE(IsDirectory(root.Path("/etc/kelvora/ecomm")));
}

TEST(Directory, AppDataPathCreatesDataFolderEvenWithoutItsParent) {
  test::PrivateRoot root;
  rmdir(root.Path("/var/opt/kelvora").c_str());
  ASSERT_FALSE(root.Exists("/var/opt/kelvora"));
  FamError record(true);
  EXPECT_EQ(Directory::GetAppDataPath("ecomm", true), root.Path("/var/opt/kelvora/ecomm/"));
  EXPECT_TRUE(IsDirectory(root.Path("/var/opt/kelvora/ecomm")));
}

TEST(Directory, TemporaryPathCreatesItsFolder) {
  test::PrivateRoot root;
  EXPECT_EQ(Directory::GetTemporaryPath(true), root.Path("/tmp/kelvora-ecomm/"));
  EXPECT_TRUE(IsDirectory(root.Path("/tmp/kelvora-ecomm")));
}

TEST(Directory, TraitsWithoutModuleStillRecordErrors) {
  test::PrivateRoot root;
  root.WriteFile("/tmp/plain", "x");
  FamError record(true);
  EXPECT_FALSE(_Directory<_apm_traits_none>(root.Path("/tmp/plain")).Create(false, 0));
  EXPECT_EQ(record.code, E_SYSTEM_BASE + ENOTDIR);
}

TEST(Directory, CreateAnnouncesThePathToTheOperatingSystemModule) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    const std::string path = root.Path("/var/opt/kelvora/evented/");
    EXPECT_TRUE(Directory(path).Create(false, 0));
    std::vector<test::SdkCall> events = test::RecordedSdkCalls("APMEventStr");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].arguments, (std::vector<std::string>{"101", "0", "60", "0", path}));
  });
}

TEST(Directory, RecursiveCreateAnnouncesEveryAttempt) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    EXPECT_TRUE(Directory(root.Path("/var/opt/kelvora/p/q")).Create(true, 0));
    std::vector<std::string> paths;
    for (const test::SdkCall& call : test::RecordedSdkCalls("APMEventStr")) {
      paths.push_back(call.arguments.at(4));
    }
    EXPECT_EQ(paths, (std::vector<std::string>{root.Path("/var/opt/kelvora/p/q/"),
                                               root.Path("/var/opt/kelvora/p/"),
                                               root.Path("/var/opt/kelvora/p/q/")}));
  });
}

TEST(Directory, TraitsWithoutModuleSendNoEvents) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    EXPECT_TRUE(_Directory<_apm_traits_none>(root.Path("/var/opt/kelvora/quiet")).Create(false, 0));
    EXPECT_TRUE(test::RecordedSdkCalls().empty());
  });
}

}  // namespace
}  // namespace base
}  // namespace apm
