// The element base and the service desk element: the wire header, the class names
// and the attribute lookup shared by all elements.
#include "protocol/ciselement.h"

#include <gtest/gtest.h>

#include "base/refcounted.h"
#include "protocol/cisservicedesk.h"
#include "tests/support/fakebytestream.h"

namespace apm {
namespace protocol {
namespace {

using test::Bytes;
using test::Chars;
using test::DecodeRecord;
using test::EncodeRecord;
using test::Join;

const Bytes kHeaderBytes = Join({
    {0x44, 0x33, 0x22, 0x11},                          // id
    {2, 0, 0, 0}, Chars("nm"),                         // name
    {99, 0, 0, 0},                                     // status
    {8, 7, 6, 5, 4, 3, 2, 1},                          // timestamp
    {5, 0, 0, 0},                                      // changeServer
    {1, 2, 3, 4, 5, 6, 7, 8},                          // changeTime
    {3, 0, 0, 0}, Chars("ref"),                        // reference
    {2, 0, 0, 0},                                      // two properties, in key order
    {1, 0, 0, 0}, Chars("a"), {1, 0, 0, 0}, Chars("1"),
    {1, 0, 0, 0}, Chars("b"), {0, 0, 0, 0},
});

// The header alone as a record.
class HeaderOnly : public CISElement {
 public:
  std::string GetClassName() const override { return "HeaderOnly"; }
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream) {
    return ReadHeader(version, stream);
  }
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const {
    return WriteHeader(version, stream);
  }
};

TEST(CISElementTest, HeaderIsIdNameStatusTimestampChangeServerChangeTimeReferenceProperties) {
  HeaderOnly element;
  element.id = 0x11223344;
  element.name = "nm";
  element.status = CISElement::kStatusDeleted;
  element.timestamp = 0x0102030405060708ull;
  element.changeServer = 5;
  element.changeTime = 0x0807060504030201ull;
  element.reference = "ref";
  element.properties["b"] = "";
  element.properties["a"] = "1";
  EXPECT_EQ(kHeaderBytes, EncodeRecord(element));
}

TEST(CISElementTest, ReadsItsHeaderGoldenBytes) {
  HeaderOnly element;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(kHeaderBytes, element, 0, &unread));
  EXPECT_EQ(0u, unread);
  EXPECT_EQ(0x11223344u, element.id);
  EXPECT_EQ("nm", element.name);
  EXPECT_EQ(99u, element.status);
  EXPECT_EQ(0x0102030405060708ull, element.timestamp);
  EXPECT_EQ(5u, element.changeServer);
  EXPECT_EQ(0x0807060504030201ull, element.changeTime);
  EXPECT_EQ("ref", element.reference);
  ASSERT_EQ(2u, element.properties.size());
  EXPECT_EQ("1", element.properties.at("a"));
  EXPECT_EQ("", element.properties.at("b"));
}

TEST(CISElementTest, RepeatedPropertyKeyKeepsTheFirstValue) {
  Bytes bytes(kHeaderBytes.begin(), kHeaderBytes.end() - 23);
  bytes = Join({bytes, {2, 0, 0, 0}, {1, 0, 0, 0}, Chars("k"), {1, 0, 0, 0}, Chars("1"),
                {1, 0, 0, 0}, Chars("k"), {1, 0, 0, 0}, Chars("2")});
  HeaderOnly element;
  ASSERT_TRUE(DecodeRecord(bytes, element));
  ASSERT_EQ(1u, element.properties.size());
  EXPECT_EQ("1", element.properties.at("k"));
}

TEST(CISElementTest, HeaderCutShortAnywhereFails) {
  for (size_t length = 0; length < kHeaderBytes.size(); ++length) {
    HeaderOnly element;
    EXPECT_FALSE(DecodeRecord(Bytes(kHeaderBytes.begin(), kHeaderBytes.begin() + length), element))
        << "length " << length;
  }
}

TEST(CISElementTest, StreamVersionChangesNothing) {
  HeaderOnly first;
  HeaderOnly second;
  ASSERT_TRUE(DecodeRecord(kHeaderBytes, first, 0));
  ASSERT_TRUE(DecodeRecord(kHeaderBytes, second, 0xf000300005fd3ul));
  EXPECT_EQ(EncodeRecord(first, 0), EncodeRecord(second, 0xffffffffffffffff));
}

TEST(CISElementTest, KnownAttributesAnswer) {
  HeaderOnly element;
  element.name = "nm";
  element.reference = "ref";
  unsigned long maxTimestamp = 0;
  std::string value;
  EXPECT_TRUE(element.GetParameterValue("name", value, maxTimestamp));
  EXPECT_EQ("nm", value);
  EXPECT_TRUE(element.GetParameterValue("reference", value, maxTimestamp));
  EXPECT_EQ("ref", value);
  EXPECT_TRUE(element.GetParameterValue("active", value, maxTimestamp));
  EXPECT_EQ("true", value);
  element.status = 1;
  EXPECT_TRUE(element.GetParameterValue("active", value, maxTimestamp));
  EXPECT_EQ("false", value);
}

TEST(CISElementTest, PropertiesPrefixLooksUpTheRestAndEmptyRestIsTheEmptyKey) {
  HeaderOnly element;
  element.properties["x"] = "1";
  element.properties[""] = "empty key";
  unsigned long maxTimestamp = 0;
  std::string value;
  EXPECT_TRUE(element.GetParameterValue("properties.x", value, maxTimestamp));
  EXPECT_EQ("1", value);
  EXPECT_TRUE(element.GetParameterValue("properties.", value, maxTimestamp));
  EXPECT_EQ("empty key", value);
}

TEST(CISElementTest, MissingPropertyClearsTheValueAndUnknownKeyLeavesIt) {
  HeaderOnly element;
  unsigned long maxTimestamp = 0;
  std::string value = "before";
  EXPECT_FALSE(element.GetParameterValue("properties.missing", value, maxTimestamp));
  EXPECT_EQ("", value);
  value = "before";
  EXPECT_FALSE(element.GetParameterValue("x", value, maxTimestamp));
  EXPECT_EQ("before", value);
}

TEST(CISElementTest, NewerTimestampRaisesTheCallersMaximumEvenForAnUnknownKey) {
  HeaderOnly element;
  element.timestamp = 500;
  unsigned long maxTimestamp = 100;
  std::string value;
  EXPECT_FALSE(element.GetParameterValue("unknown", value, maxTimestamp));
  EXPECT_EQ(500u, maxTimestamp);
  maxTimestamp = 900;
  element.GetParameterValue("name", value, maxTimestamp);
  EXPECT_EQ(900u, maxTimestamp);
}

TEST(CISElementTest, TreeNameIsTheNameAndIsClassComparesTheClassName) {
  HeaderOnly element;
  element.name = "nm";
  EXPECT_EQ("nm", element.GetTreeName());
  EXPECT_TRUE(element.IsClass("HeaderOnly"));
  EXPECT_FALSE(element.IsClass("headeronly"));
}

TEST(CISElementTest, LivesWhileAReferenceHoldsIt) {
  base::CRefPtr<const CISServiceDesk> held;
  {
    base::CRefPtr<CISServiceDesk> desk(new CISServiceDesk);
    desk->name = "kept";
    held = desk;
  }
  EXPECT_EQ("kept", held->name);
}

TEST(CISServiceDeskTest, ClassNameFollowsTheType) {
  CISServiceDesk desk;
  desk.type = "norvanta_cloud_ticketing_app";
  EXPECT_EQ("ServiceDeskNorvantaCloudTicketing", desk.GetClassName());
  EXPECT_TRUE(desk.IsClass("ServiceDeskNorvantaCloudTicketing"));
  EXPECT_FALSE(desk.IsClass("ServiceDesk"));
  desk.type = "norvanta_servicedesk";
  EXPECT_EQ("ServiceDesk", desk.GetClassName());
  desk.type = "anything";
  EXPECT_EQ("ServiceDesk", desk.GetClassName());
  desk.type = "";
  EXPECT_EQ("ServiceDesk", desk.GetClassName());
}

TEST(CISServiceDeskTest, FieldsFollowTheHeaderInOrder) {
  CISServiceDesk desk;
  desk.id = 1;
  desk.type = "t";
  desk.url = "u";
  desk.authtype = "a";
  desk.username = "n";
  desk.password = "p";
  desk.certificate = "c";
  desk.proxyServer = "s";
  desk.proxyUsername = "v";
  desk.proxyPassword = "w";
  Bytes fields;
  for (const char* text : {"t", "u", "a", "n", "p", "c", "s", "v", "w"}) {
    fields = Join({fields, {1, 0, 0, 0}, Chars(text)});
  }
  const Bytes header = Join({{1, 0, 0, 0}, Bytes(4 + 4 + 8 + 4 + 8 + 4 + 4, 0)});
  EXPECT_EQ(Join({header, fields}), EncodeRecord(desk));
  CISServiceDesk read;
  ASSERT_TRUE(DecodeRecord(Join({header, fields}), read));
  EXPECT_EQ("w", read.proxyPassword);
  EXPECT_EQ("s", read.proxyServer);
}

}  // namespace
}  // namespace protocol
}  // namespace apm
