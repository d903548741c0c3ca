#include "ecomm/ecommconfig.h"

#include <gtest/gtest.h>

#include "tests/support/privateroot.h"

namespace apm {
namespace ecomm {
namespace {

const char kDefaultCiphers[] = "ECDHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES128-GCM-SHA256";

class EcommConfigTest : public ::testing::Test {
 protected:
  void WriteEcomm(const std::string& content) { root_.WriteFile("/etc/kelvora/ecomm.conf", content); }
  void WriteServer(const std::string& content) { root_.WriteFile("/etc/kelvora/server.conf", content); }
  unsigned int Integer(unsigned int id) {
    unsigned int value = 0;
    EXPECT_TRUE(config_.GetConfigValue(id, value));
    return value;
  }
  std::string Text(unsigned int id) {
    std::string value = "<unset>";
    EXPECT_TRUE(config_.GetConfigValue(id, value));
    return value;
  }

  test::PrivateRoot root_;
  EcommConfig config_;
};

TEST_F(EcommConfigTest, UnservedIdentifiersGiveFalseAndLeaveValue) {
  WriteEcomm("ListenHost 10.0.0.1\nServerPort 1\n");
  unsigned int number = 42;
  for (unsigned int id : {0u, 11u, 31u, 41u, 100u, 20u}) {
    EXPECT_FALSE(config_.GetConfigValue(id, number)) << id;
    EXPECT_EQ(number, 42u);
  }
  std::string text = "unchanged";
  for (unsigned int id : {0u, 10u, 30u, 31u, 102u, 108u}) {
    EXPECT_FALSE(config_.GetConfigValue(id, text)) << id;
    EXPECT_EQ(text, "unchanged");
  }
}

TEST_F(EcommConfigTest, StartupListenHostIdentifierIsNotServed) {
  WriteEcomm("ListenHost 10.0.0.1\n");
  std::string host;
  EXPECT_FALSE(config_.GetConfigValue(EcommConfig::kStartupListenHost, host));
  EXPECT_EQ(host, "");
}

TEST_F(EcommConfigTest, ServerPortDefaultsTo10000) { EXPECT_EQ(Integer(EcommConfig::kServerPort), 10000u); }

TEST_F(EcommConfigTest, ServerPortFromEcommConfBeforeServerConf) {
  WriteEcomm("ServerPort 11000\n");
  WriteServer("ListenPort 12000\n");
  EXPECT_EQ(Integer(EcommConfig::kServerPort), 11000u);
}

TEST_F(EcommConfigTest, ServerPortFallsBackToServerListenPort) {
  WriteEcomm("ServerPort abc\n");
  WriteServer("ListenPort 12000\n");
  EXPECT_EQ(Integer(EcommConfig::kServerPort), 12000u);
}

TEST_F(EcommConfigTest, UnconvertibleServerPortEverywhereGivesDefault) {
  WriteEcomm("ServerPort 12abc\n");
  WriteServer("ListenPort x\n");
  EXPECT_EQ(Integer(EcommConfig::kServerPort), 10000u);
}

TEST_F(EcommConfigTest, ListenPortDefaultsTo10003) { EXPECT_EQ(Integer(EcommConfig::kListenPort), 10003u); }

TEST_F(EcommConfigTest, ListenPortFromEcommConf) {
  WriteEcomm("ListenPort 20003\n");
  WriteServer("EcommPort 30003\n");
  EXPECT_EQ(Integer(EcommConfig::kListenPort), 20003u);
}

TEST_F(EcommConfigTest, UnconvertibleListenPortFallsThroughToServerEcommPort) {
  WriteEcomm("ListenPort abc\nEcommPort 40003\n");
  WriteServer("EcommPort 30003\n");
  EXPECT_EQ(Integer(EcommConfig::kListenPort), 30003u);
}

TEST_F(EcommConfigTest, ListenPortLastFromEcommPortInEcommConf) {
  WriteEcomm("EcommPort 40003\n");
  EXPECT_EQ(Integer(EcommConfig::kListenPort), 40003u);
}

TEST_F(EcommConfigTest, ServerHostDefaultsToLoopback) { EXPECT_EQ(Text(EcommConfig::kServerHost), "127.0.0.1"); }

TEST_F(EcommConfigTest, ServerHostFromEcommConfBeforeServerConf) {
  WriteEcomm("ServerHost main.example.test\n");
  WriteServer("ListenHost 10.0.0.5\n");
  EXPECT_EQ(Text(EcommConfig::kServerHost), "main.example.test");
}

TEST_F(EcommConfigTest, ServerHostFallsBackToServerListenHost) {
  WriteServer("ListenHost 10.0.0.5\n");
  EXPECT_EQ(Text(EcommConfig::kServerHost), "10.0.0.5");
}

TEST_F(EcommConfigTest, ServerHostAnyAddressBecomesLoopback) {
  WriteEcomm("ServerHost 0.0.0.0\n");
  EXPECT_EQ(Text(EcommConfig::kServerHost), "127.0.0.1");
  WriteEcomm("");
  WriteServer("ListenHost 0.0.0.0\n");
  EXPECT_EQ(Text(EcommConfig::kServerHost), "127.0.0.1");
}

TEST_F(EcommConfigTest, ServerHostFoundEmptyStaysEmpty) {
  WriteEcomm("ServerHost\n");
  WriteServer("ListenHost 10.0.0.5\n");
  EXPECT_EQ(Text(EcommConfig::kServerHost), "");
}

TEST_F(EcommConfigTest, ListenHostDefaultsToAnyAddress) {
  EXPECT_EQ(Text(EcommConfig::kListenHost), "0.0.0.0");
  WriteEcomm("ListenHost 10.1.1.1\n");
  EXPECT_EQ(Text(EcommConfig::kListenHost), "10.1.1.1");
}

TEST_F(EcommConfigTest, CertificateFilesDefaultIntoTheLocalConfigFolder) {
  const std::string folder = root_.Path("/etc/kelvora/ecomm/");
  EXPECT_EQ(Text(EcommConfig::kClientCertificateFile), folder + "cli_certificate.pem");
  EXPECT_EQ(Text(EcommConfig::kServerCertificateFile), folder + "srv_certificate.pem");
  EXPECT_EQ(Text(EcommConfig::kTrustedCertificatesFile), folder + "trusted_certificates.cfg");
  EXPECT_TRUE(root_.Exists("/etc/kelvora/ecomm"));
}

TEST_F(EcommConfigTest, EmptyCertificateFileGivesDefaultPath) {
  WriteEcomm("ClientCertificateFile\nServerCertificateFile   \nServerTrustedCertificatesFile # none\n");
  const std::string folder = root_.Path("/etc/kelvora/ecomm/");
  EXPECT_EQ(Text(EcommConfig::kClientCertificateFile), folder + "cli_certificate.pem");
  EXPECT_EQ(Text(EcommConfig::kServerCertificateFile), folder + "srv_certificate.pem");
  EXPECT_EQ(Text(EcommConfig::kTrustedCertificatesFile), folder + "trusted_certificates.cfg");
}

TEST_F(EcommConfigTest, ConfiguredCertificateFilesAreTakenAsWritten) {
  WriteEcomm(
      "ClientCertificateFile /srv/cli.pem\nServerCertificateFile /srv/srv.pem\n"
      "ServerTrustedCertificatesFile /srv/trust.cfg\n");
  EXPECT_EQ(Text(EcommConfig::kClientCertificateFile), "/srv/cli.pem");
  EXPECT_EQ(Text(EcommConfig::kServerCertificateFile), "/srv/srv.pem");
  EXPECT_EQ(Text(EcommConfig::kTrustedCertificatesFile), "/srv/trust.cfg");
  // The default folder is only made when a default is used.
  EXPECT_FALSE(root_.Exists("/etc/kelvora/ecomm"));
}

TEST_F(EcommConfigTest, CipherListsDefault) {
  EXPECT_EQ(Text(EcommConfig::kClientCertificateCiphers), kDefaultCiphers);
  EXPECT_EQ(Text(EcommConfig::kServerCertificateCiphers), kDefaultCiphers);
}

TEST_F(EcommConfigTest, EmptyCipherListGivesDefault) {
  WriteEcomm("ClientCertificateCiphers\nServerCertificateCiphers \n");
  EXPECT_EQ(Text(EcommConfig::kClientCertificateCiphers), kDefaultCiphers);
  EXPECT_EQ(Text(EcommConfig::kServerCertificateCiphers), kDefaultCiphers);
}

TEST_F(EcommConfigTest, ConfiguredCipherListsAreTaken) {
  WriteEcomm("ClientCertificateCiphers AES256-SHA\nServerCertificateCiphers AES128-SHA:HIGH\n");
  EXPECT_EQ(Text(EcommConfig::kClientCertificateCiphers), "AES256-SHA");
  EXPECT_EQ(Text(EcommConfig::kServerCertificateCiphers), "AES128-SHA:HIGH");
}

TEST_F(EcommConfigTest, SingletonIsOneObject) {
  EXPECT_NE(GetEcommConfig(), nullptr);
  EXPECT_EQ(GetEcommConfig(), GetEcommConfig());
  WriteEcomm("ListenPort 20003\n");
  unsigned int port = 0;
  EXPECT_TRUE(GetEcommConfig()->GetConfigValue(EcommConfig::kListenPort, port));
  EXPECT_EQ(port, 20003u);
}

}  // namespace
}  // namespace ecomm
}  // namespace apm
