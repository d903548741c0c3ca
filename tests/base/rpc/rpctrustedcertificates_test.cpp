// The trust decision on a peer certificate by the list of fingerprints.
#include "base/rpc/rpctrustedcertificates.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "tests/support/privateroot.h"

namespace apm {
namespace base {
namespace {

const char kFingerprint[] =
    "0a:1b:2c:3d:4e:5f:60:71:82:93:a4:b5:c6:d7:e8:f9:0a:1b:2c:3d:4e:5f:60:71:82:93:a4:b5:c6:d7:e8:f9";

class TrustedCertificatesTest : public ::testing::Test {
 protected:
  std::string path() const { return root.Path("/etc/kelvora/ecomm/trusted_certificates.cfg"); }
  void Write(const std::string& content) { root.WriteFile("/etc/kelvora/ecomm/trusted_certificates.cfg", content); }
  std::string Read() const { return root.ReadFile("/etc/kelvora/ecomm/trusted_certificates.cfg"); }

  test::PrivateRoot root;
};

TEST_F(TrustedCertificatesTest, EmptyPathTrustsEveryCertificate) {
  EXPECT_TRUE(IsTrustedCertificate("", kFingerprint, "cn", false));
}

TEST_F(TrustedCertificatesTest, ListedFingerprintWithCommentIsTrusted) {
  Write(std::string("\n") + kFingerprint + " kelvora.ecomm@host\n");
  EXPECT_TRUE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
}

TEST_F(TrustedCertificatesTest, ComparisonIgnoresCaseAndAnyTextBehindTheFirstBlank) {
  std::string upper = kFingerprint;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  Write("some other line\n" + upper + " anything at all, even " + kFingerprint + "x\n");
  EXPECT_TRUE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
}

TEST_F(TrustedCertificatesTest, UnlistedFingerprintIsRefused) {
  Write("aa:bb other\n");
  EXPECT_FALSE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
  EXPECT_FALSE(IsTrustedCertificate(path(), kFingerprint, "cn", true));
  EXPECT_EQ("aa:bb other\n", Read());
}

TEST_F(TrustedCertificatesTest, FingerprintWithoutBlankMustMatchTheWholeLine) {
  Write(std::string(kFingerprint) + "\n");
  EXPECT_TRUE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
  Write(std::string(kFingerprint) + "\t comment\n");
  EXPECT_FALSE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
}

TEST_F(TrustedCertificatesTest, LineLongerThan255CharactersEndsTheReading) {
  Write(std::string(256, 'z') + "\n" + kFingerprint + "\n");
  EXPECT_FALSE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
  Write(std::string(255, 'z') + "\n" + kFingerprint + "\n");
  EXPECT_TRUE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
}

TEST_F(TrustedCertificatesTest, FileOfBlankLinesCountsAsEmptyAndTakesTheFirstCertificate) {
  Write("\n\n\n");
  EXPECT_FALSE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
  EXPECT_TRUE(IsTrustedCertificate(path(), kFingerprint, "kelvora.client", true));
  EXPECT_EQ(std::string("\n\n\n\n") + kFingerprint + " kelvora.client\n", Read());
  // Now listed: trusted without the flag, and another certificate is refused.
  EXPECT_TRUE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
  EXPECT_FALSE(IsTrustedCertificate(path(), "00:11", "cn", true));
}

TEST_F(TrustedCertificatesTest, OneNonEmptyLineOfAnyContentIsNotEmpty) {
  Write(" \n");
  EXPECT_FALSE(IsTrustedCertificate(path(), kFingerprint, "cn", true));
}

TEST_F(TrustedCertificatesTest, MissingFileReadsAsEmptyAndIsMadeWithMode0600) {
  EXPECT_FALSE(IsTrustedCertificate(path(), kFingerprint, "cn", false));
  EXPECT_FALSE(root.Exists("/etc/kelvora/ecomm/trusted_certificates.cfg"));
  root.WriteFile("/etc/kelvora/ecomm/placeholder", "");
  EXPECT_TRUE(IsTrustedCertificate(path(), kFingerprint, "first", true));
  struct stat status;
  ASSERT_EQ(0, stat(path().c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  EXPECT_EQ(std::string("\n") + kFingerprint + " first\n", Read());
}

TEST_F(TrustedCertificatesTest, FirstCertificateIsTrustedEvenIfTheFileCannotBeWritten) {
  EXPECT_TRUE(IsTrustedCertificate(root.Path("/no/such/folder/trusted.cfg"), kFingerprint, "cn", true));
}

}  // namespace
}  // namespace base
}  // namespace apm
