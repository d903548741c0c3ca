#include "base/rpc/streamserializer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace apm {
namespace base {
namespace {

typedef std::vector<uint8_t> Bytes;

// An in-memory stand-in for a logical connection stream: written bytes pile up in
// `written`; reads take from `incoming`, which is cut into segments. Like the real
// stream, a read that meets the end of its segment copies what there is and fails,
// and it fails again there until NextSegment is called.
class FakeStream {
 public:
  FakeStream() = default;
  explicit FakeStream(const Bytes& bytes) { AddSegment(bytes); }

  void AddSegment(const Bytes& bytes) {
    incoming.insert(incoming.end(), bytes.begin(), bytes.end());
    segmentEnds.push_back(incoming.size());
  }

  bool Read(void* destination, unsigned long size) {
    EXPECT_GT(size, 0u) << "a read of 0 bytes would block on the real stream";
    size_t end = segmentEnds.empty() ? incoming.size() : segmentEnds.front();
    size_t count = std::min<size_t>(size, end - position);
    if (count > 0) std::memcpy(destination, incoming.data() + position, count);
    position += count;
    return count == size;
  }

  bool Write(const void* data, unsigned int size) {
    if (refuseWrites) return false;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    written.insert(written.end(), bytes, bytes + size);
    return true;
  }

  void NextSegment() {
    position = segmentEnds.front();
    segmentEnds.erase(segmentEnds.begin());
  }

  size_t UnreadInSegment() const { return segmentEnds.front() - position; }

  Bytes incoming;
  std::vector<size_t> segmentEnds;
  size_t position = 0;
  Bytes written;
  bool refuseWrites = false;
};

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

Bytes Str(const std::string& text) { return Bytes(text.begin(), text.end()); }

// A small record of the shape RPC bodies use: an integer and a string.
struct Entry {
  uint32_t id = 0;
  std::string name;
  unsigned long seenVersion = 0;

  bool Read(unsigned long version, ReadStream<FakeStream>& stream) {
    seenVersion = version;
    return stream.Read(id) && stream.Read(name);
  }
  bool Read(ReadStream<FakeStream>& stream) { return stream.Read(id) && stream.Read(name); }
  bool Write(unsigned long, WriteStream<FakeStream>& stream) const {
    return stream.Write(id) && stream.Write(name);
  }
};

struct SharedEntry : public IRefCounted, public Entry {};

enum class Colour : uint32_t { Red = 1, Blue = 0x01020304 };

TEST(WriteStream, EmptyStringIsFourZeroBytes) {
  FakeStream fake;
  WriteStream<FakeStream> writer(fake);
  EXPECT_TRUE(writer.Write(std::string()));
  EXPECT_EQ(fake.written, Bytes({0, 0, 0, 0}));
}

TEST(ReadStream, EmptyStringIsFourZeroBytesAndClearsTheTarget) {
  FakeStream fake(Bytes{0, 0, 0, 0});
  ReadStream<FakeStream> reader(fake);
  std::string value = "old";
  EXPECT_TRUE(reader.Read(value));
  EXPECT_EQ(value, "");
  EXPECT_EQ(fake.UnreadInSegment(), 0u);
}

TEST(WriteStream, StringIsLittleEndianLengthThenRawBytesWithoutTerminator) {
  FakeStream fake;
  WriteStream<FakeStream> writer(fake);
  EXPECT_TRUE(writer.Write(std::string("ab\0\xc3\xa4", 5)));
  EXPECT_EQ(fake.written, Bytes({5, 0, 0, 0, 'a', 'b', 0, 0xc3, 0xa4}));
}

TEST(ReadStream, StringBytesComeBackAsTheyStand) {
  Bytes body(4 + 300, 'x');
  body[0] = 0x2c;  // 300 = 0x012c
  body[1] = 0x01;
  body[2] = 0;
  body[3] = 0;
  body[4] = 0;
  body[5] = 0xff;
  FakeStream fake(body);
  ReadStream<FakeStream> reader(fake);
  std::string value;
  ASSERT_TRUE(reader.Read(value));
  ASSERT_EQ(value.size(), 300u);
  EXPECT_EQ(value[0], '\0');
  EXPECT_EQ(static_cast<uint8_t>(value[1]), 0xff);
  EXPECT_EQ(value.substr(2), std::string(298, 'x'));
}

TEST(WriteStream, IntegersFlagsAndEnumerationsAreLittleEndianMemoryImages) {
  FakeStream fake;
  WriteStream<FakeStream> writer(fake);
  EXPECT_TRUE(writer.Write(static_cast<uint8_t>(0xab)));
  EXPECT_TRUE(writer.Write(true));
  EXPECT_TRUE(writer.Write(static_cast<uint16_t>(0x1234)));
  EXPECT_TRUE(writer.Write(static_cast<uint32_t>(0x12345678)));
  EXPECT_TRUE(writer.Write(static_cast<int32_t>(-2)));
  EXPECT_TRUE(writer.Write(static_cast<uint64_t>(0x0102030405060708ULL)));
  EXPECT_TRUE(writer.Write(Colour::Blue));
  EXPECT_EQ(fake.written, Bytes({0xab, 0x01, 0x34, 0x12, 0x78, 0x56, 0x34, 0x12, 0xfe, 0xff, 0xff,
                                 0xff, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x04, 0x03,
                                 0x02, 0x01}));
}

TEST(ReadStream, IntegersFlagsAndEnumerationsAreLittleEndianMemoryImages) {
  FakeStream fake(Bytes{0xab, 0x01, 0x34, 0x12, 0x78, 0x56, 0x34, 0x12, 0x08, 0x07, 0x06, 0x05,
                        0x04, 0x03, 0x02, 0x01, 0x01, 0x00, 0x00, 0x00});
  ReadStream<FakeStream> reader(fake);
  uint8_t u8 = 0;
  bool flag = false;
  uint16_t u16 = 0;
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  Colour colour = Colour::Blue;
  EXPECT_TRUE(reader.Read(u8));
  EXPECT_TRUE(reader.Read(flag));
  EXPECT_TRUE(reader.Read(u16));
  EXPECT_TRUE(reader.Read(u32));
  EXPECT_TRUE(reader.Read(u64));
  EXPECT_TRUE(reader.Read(colour));
  EXPECT_EQ(u8, 0xab);
  EXPECT_TRUE(flag);
  EXPECT_EQ(u16, 0x1234);
  EXPECT_EQ(u32, 0x12345678u);
  EXPECT_EQ(u64, 0x0102030405060708ULL);
  EXPECT_EQ(colour, Colour::Red);
}

TEST(WriteStream, RecordIsItsFieldsInOrderWithNothingAround) {
  Entry entry;
  entry.id = 7;
  entry.name = "ok";
  FakeStream fake;
  WriteStream<FakeStream> writer(fake);
  EXPECT_TRUE(entry.Write(0xf000300005fd3UL, writer));
  EXPECT_EQ(fake.written, Bytes({7, 0, 0, 0, 2, 0, 0, 0, 'o', 'k'}));
}

TEST(ReadStream, EmptyListIsFourZeroBytesAndLeavesTheTargetAlone) {
  FakeStream fake(Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  ReadStream<FakeStream> reader(fake);
  std::vector<uint32_t> numbers = {9};
  std::vector<std::string> strings = {"kept"};
  std::vector<Entry> entries(1);
  std::vector<CRefPtr<const SharedEntry>> shared = {CRefPtr<const SharedEntry>(new SharedEntry)};
  std::map<std::string, std::string> map = {{"k", "v"}};
  EXPECT_TRUE(reader.ReadList(numbers));
  EXPECT_TRUE(reader.ReadList(strings));
  EXPECT_TRUE(reader.ReadListClass(1, entries));
  EXPECT_TRUE(reader.ReadListClassRefPtr(1, shared));
  EXPECT_TRUE(reader.ReadMap(map));
  EXPECT_EQ(numbers, std::vector<uint32_t>({9}));
  EXPECT_EQ(strings, std::vector<std::string>({"kept"}));
  EXPECT_EQ(entries.size(), 1u);
  EXPECT_EQ(shared.size(), 1u);
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(fake.UnreadInSegment(), 0u);
}

TEST(ReadStream, ReadListAppendsBehindExistingEntries) {
  FakeStream fake(Concat({{2, 0, 0, 0, 0x0a, 0, 0, 0, 0x0b, 0, 0, 0},
                          {2, 0, 0, 0, 1, 0, 0, 0, 'x', 0, 0, 0, 0}}));
  ReadStream<FakeStream> reader(fake);
  std::vector<uint32_t> numbers = {1, 2, 3};
  std::vector<std::string> strings = {"first"};
  ASSERT_TRUE(reader.ReadList(numbers));
  ASSERT_TRUE(reader.ReadList(strings));
  EXPECT_EQ(numbers, std::vector<uint32_t>({1, 2, 3, 10, 11}));
  EXPECT_EQ(strings, std::vector<std::string>({"first", "x", ""}));
}

TEST(ReadStream, ListReservesRoomForExistingPlusAnnouncedCountBeforeReading) {
  // 1000 entries announced, one present: the room was taken from the count.
  FakeStream fake(Bytes{0xe8, 0x03, 0, 0, 0x2a, 0, 0, 0});
  ReadStream<FakeStream> reader(fake);
  std::vector<uint32_t> numbers = {1, 2};
  EXPECT_FALSE(reader.ReadList(numbers));
  EXPECT_GE(numbers.capacity(), 1002u);
  EXPECT_EQ(numbers[2], 42u);
}

TEST(ReadStream, ReadListClassFillsRecordsInPlaceAndHandsOnTheVersion) {
  FakeStream fake(Concat({{2, 0, 0, 0}, {5, 0, 0, 0, 1, 0, 0, 0, 'a'}, {6, 0, 0, 0, 0, 0, 0, 0},
                          {1, 0, 0, 0}, {8, 0, 0, 0, 2, 0, 0, 0, 'c', 'd'}}));
  ReadStream<FakeStream> reader(fake);
  std::vector<Entry> versioned(1);
  ASSERT_TRUE(reader.ReadListClass(0xf00020000580eUL, versioned));
  ASSERT_EQ(versioned.size(), 3u);
  EXPECT_EQ(versioned[1].id, 5u);
  EXPECT_EQ(versioned[1].name, "a");
  EXPECT_EQ(versioned[1].seenVersion, 0xf00020000580eUL);
  EXPECT_EQ(versioned[2].id, 6u);
  EXPECT_EQ(versioned[2].name, "");

  std::vector<Entry> plain;
  ASSERT_TRUE(reader.ReadListClass(plain));
  ASSERT_EQ(plain.size(), 1u);
  EXPECT_EQ(plain[0].id, 8u);
  EXPECT_EQ(plain[0].name, "cd");
  EXPECT_EQ(plain[0].seenVersion, 0u);
}

TEST(ReadStream, ReadListClassRefPtrAppendsNewRecords) {
  FakeStream fake(Concat({{1, 0, 0, 0}, {3, 0, 0, 0, 1, 0, 0, 0, 'z'}}));
  ReadStream<FakeStream> reader(fake);
  std::vector<CRefPtr<const SharedEntry>> list = {CRefPtr<const SharedEntry>(new SharedEntry)};
  ASSERT_TRUE(reader.ReadListClassRefPtr(42, list));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1]->id, 3u);
  EXPECT_EQ(list[1]->name, "z");
  EXPECT_EQ(list[1]->seenVersion, 42u);
}

TEST(ReadStream, MapWithDuplicateKeyKeepsTheFirstValueAndEarlierEntries) {
  FakeStream fake(Concat({{3, 0, 0, 0},
                          {1, 0, 0, 0}, Str("a"), {1, 0, 0, 0}, Str("1"),
                          {1, 0, 0, 0}, Str("b"), {1, 0, 0, 0}, Str("2"),
                          {1, 0, 0, 0}, Str("a"), {1, 0, 0, 0}, Str("3")}));
  ReadStream<FakeStream> reader(fake);
  std::map<std::string, std::string> map = {{"b", "old"}, {"c", "kept"}};
  ASSERT_TRUE(reader.ReadMap(map));
  EXPECT_EQ(map, (std::map<std::string, std::string>{{"a", "1"}, {"b", "old"}, {"c", "kept"}}));
  EXPECT_EQ(fake.UnreadInSegment(), 0u);
}

TEST(ReadStream, ListWhoseThirdElementIsCutOffFailsWithThreeElements) {
  // Three records announced; the segment ends inside the third one's string.
  Bytes body = Concat({{3, 0, 0, 0}, {1, 0, 0, 0, 1, 0, 0, 0, 'a'}, {2, 0, 0, 0, 1, 0, 0, 0, 'b'},
                       {3, 0, 0, 0, 4, 0, 0, 0, 'c', 'd'}});
  FakeStream fake;
  fake.AddSegment(body);
  fake.AddSegment({9, 9, 9, 9});
  ReadStream<FakeStream> reader(fake);
  std::vector<Entry> list;
  EXPECT_FALSE(reader.ReadListClass(1, list));
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[1].name, "b");
  EXPECT_EQ(list[2].id, 3u);
  EXPECT_EQ(list[2].name.size(), 4u);  // resized to the announced length, half filled
  EXPECT_EQ(list[2].name.substr(0, 2), "cd");
}

TEST(ReadStream, StringListWhoseThirdElementIsCutOffFailsWithThreeElements) {
  FakeStream fake(Concat({{3, 0, 0, 0}, {1, 0, 0, 0}, Str("a"), {1, 0, 0, 0}, Str("b"), {5, 0}}));
  ReadStream<FakeStream> reader(fake);
  std::vector<std::string> list;
  EXPECT_FALSE(reader.ReadList(list));
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0], "a");
  EXPECT_EQ(list[1], "b");
}

TEST(ReadStream, RefPtrListKeepsTheRecordThatFailedToRead) {
  FakeStream fake(Concat({{2, 0, 0, 0}, {1, 0, 0, 0, 0, 0, 0, 0}, {2, 0, 0}}));
  ReadStream<FakeStream> reader(fake);
  std::vector<CRefPtr<const SharedEntry>> list;
  EXPECT_FALSE(reader.ReadListClassRefPtr(1, list));
  ASSERT_EQ(list.size(), 2u);
  ASSERT_TRUE(list[1]);
  EXPECT_EQ(list[0]->id, 1u);
}

TEST(ReadStream, RecordFollowedByMoreBytesLeavesThemUnreadInTheSegment) {
  FakeStream fake;
  fake.AddSegment({7, 0, 0, 0, 1, 0, 0, 0, 'q', 0xde, 0xad});
  fake.AddSegment({0x55});
  ReadStream<FakeStream> reader(fake);
  Entry entry;
  ASSERT_TRUE(entry.Read(1, reader));
  EXPECT_EQ(entry.id, 7u);
  EXPECT_EQ(entry.name, "q");
  EXPECT_EQ(fake.UnreadInSegment(), 2u);
  uint16_t extra = 0;
  ASSERT_TRUE(reader.Read(extra));
  EXPECT_EQ(extra, 0xadde);
}

TEST(ReadStream, ReadStopsAtTheSegmentEndEvenWithDataBehindIt) {
  FakeStream fake;
  fake.AddSegment({1, 0});
  fake.AddSegment({0, 0, 0xff});
  ReadStream<FakeStream> reader(fake);
  uint32_t value = 0;
  EXPECT_FALSE(reader.Read(value));
  EXPECT_FALSE(reader.Read(value));
  fake.NextSegment();
  uint16_t next = 0;
  EXPECT_TRUE(reader.Read(next));
  EXPECT_EQ(next, 0);
}

TEST(ReadStream, FailedStringLengthLeavesTheStringUntouched) {
  FakeStream fake(Bytes{3, 0});
  ReadStream<FakeStream> reader(fake);
  std::string value = "unchanged";
  EXPECT_FALSE(reader.Read(value));
  EXPECT_EQ(value, "unchanged");
}

TEST(ReadStream, CutOffStringKeepsItsAnnouncedSize) {
  FakeStream fake(Bytes{6, 0, 0, 0, 'a', 'b', 'c'});
  ReadStream<FakeStream> reader(fake);
  std::string value = "previous content";
  EXPECT_FALSE(reader.Read(value));
  ASSERT_EQ(value.size(), 6u);
  EXPECT_EQ(value.substr(0, 3), "abc");
}

TEST(ReadStream, FailedCountFailsEveryCompoundForm) {
  FakeStream fake(Bytes{1, 0, 0});
  ReadStream<FakeStream> reader(fake);
  std::vector<uint32_t> numbers;
  std::vector<Entry> entries;
  std::vector<CRefPtr<const SharedEntry>> shared;
  std::map<std::string, std::string> map;
  EXPECT_FALSE(reader.ReadList(numbers));
  EXPECT_FALSE(reader.ReadListClass(entries));
  EXPECT_FALSE(reader.ReadListClass(1, entries));
  EXPECT_FALSE(reader.ReadListClassRefPtr(1, shared));
  EXPECT_FALSE(reader.ReadMap(map));
  EXPECT_TRUE(numbers.empty());
  EXPECT_TRUE(entries.empty());
  EXPECT_TRUE(shared.empty());
  EXPECT_TRUE(map.empty());
}

TEST(ReadStream, MapPairCutOffInItsValueIsNotInserted) {
  FakeStream fake(Concat({{2, 0, 0, 0}, {1, 0, 0, 0}, Str("a"), {1, 0, 0, 0}, Str("1"),
                          {1, 0, 0, 0}, Str("b"), {3, 0, 0, 0}, Str("x")}));
  ReadStream<FakeStream> reader(fake);
  std::map<std::string, std::string> map;
  EXPECT_FALSE(reader.ReadMap(map));
  EXPECT_EQ(map, (std::map<std::string, std::string>{{"a", "1"}}));
}

TEST(WriteStream, RefusedLengthWritesNoBytesAndFails) {
  FakeStream fake;
  fake.refuseWrites = true;
  WriteStream<FakeStream> writer(fake);
  EXPECT_FALSE(writer.Write(std::string("abc")));
  EXPECT_FALSE(writer.Write(static_cast<uint32_t>(1)));
  EXPECT_TRUE(fake.written.empty());
}

TEST(WriteStream, WrittenFieldsReadBackThroughTheReader) {
  FakeStream fake;
  WriteStream<FakeStream> writer(fake);
  std::map<std::string, std::string> map = {{"host", "127.0.0.1"}, {"port", "10003"}};
  // A record writes a count and loops; the adaptor has no list writer.
  uint32_t count = static_cast<uint32_t>(map.size());
  ASSERT_TRUE(writer.Write(count));
  for (const auto& entry : map) ASSERT_TRUE(writer.Write(entry.first) && writer.Write(entry.second));

  FakeStream echo(fake.written);
  ReadStream<FakeStream> reader(echo);
  std::map<std::string, std::string> back;
  ASSERT_TRUE(reader.ReadMap(back));
  EXPECT_EQ(back, map);
  EXPECT_EQ(fake.written, Concat({{2, 0, 0, 0}, {4, 0, 0, 0}, Str("host"), {9, 0, 0, 0},
                                  Str("127.0.0.1"), {4, 0, 0, 0}, Str("port"), {5, 0, 0, 0},
                                  Str("10003")}));
}

}  // namespace
}  // namespace base
}  // namespace apm
