#include "base/memorystream.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace apm {
namespace base {
namespace {

// A fresh stream and direct access to its fields.
struct StreamUnderTest {
  StreamUnderTest() {
    EXPECT_TRUE(CreateMemoryStream(&stream));
    object = static_cast<CIStream*>(stream.get());
  }
  void Write(const std::string& data) {
    unsigned int written = 0;
    ASSERT_EQ(stream->Write(data.data(), static_cast<unsigned int>(data.size()), &written), S_OK);
    ASSERT_EQ(written, data.size());
  }
  uint64_t Seek(int64_t offset, unsigned int origin) {
    _LARGE_INTEGER move;
    move.QuadPart = offset;
    _ULARGE_INTEGER result;
    result.QuadPart = 12345;
    EXPECT_EQ(stream->Seek(move, origin, &result), S_OK);
    EXPECT_EQ(result.QuadPart, object->position);
    return result.QuadPart;
  }
  std::string ReadAll() {
    std::string all;
    char chunk[7];
    unsigned int read = 0;
    do {
      EXPECT_EQ(stream->Read(chunk, sizeof(chunk), &read), S_OK);
      all.append(chunk, read);
    } while (read > 0);
    return all;
  }

  CComPtr<IStream> stream;
  CIStream* object = nullptr;
};

TEST(MemoryStream, NewStreamIsEmptyWithoutBuffer) {
  StreamUnderTest s;
  EXPECT_EQ(s.object->capacity, 0u);
  EXPECT_EQ(s.object->length, 0u);
  EXPECT_EQ(s.object->position, 0u);
  EXPECT_EQ(s.object->buffer, nullptr);
}

TEST(MemoryStream, OneByteOnNewStreamGivesCapacity1024) {
  StreamUnderTest s;
  s.Write("x");
  EXPECT_EQ(s.object->capacity, 1024u);
  EXPECT_EQ(s.object->length, 1u);
}

TEST(MemoryStream, FiveThousandBytesOnNewStreamGiveCapacity8192) {
  StreamUnderTest s;
  s.Write(std::string(5000, 'a'));
  EXPECT_EQ(s.object->capacity, 8192u);
  EXPECT_EQ(s.object->length, 5000u);
}

TEST(MemoryStream, GrowthDoublesUntilOldCapacityPlusCountFits) {
  StreamUnderTest s;
  s.Write(std::string(1000, 'a'));
  EXPECT_EQ(s.object->capacity, 1024u);
  s.Write(std::string(24, 'b'));  // exactly fills: no growth
  EXPECT_EQ(s.object->capacity, 1024u);
  s.Write("c");  // 2048 >= 1024 + 1
  EXPECT_EQ(s.object->capacity, 2048u);
  // Free room 1023, count 3000: doubling stops at the first size >= 2048 + 3000.
  s.Write(std::string(3000, 'd'));
  EXPECT_EQ(s.object->capacity, 8192u);
  EXPECT_EQ(s.object->length, 4025u);
  s.Seek(0, STREAM_SEEK_SET);
  EXPECT_EQ(s.ReadAll(), std::string(1000, 'a') + std::string(24, 'b') + "c" + std::string(3000, 'd'));
}

TEST(MemoryStream, RewindThenReadReturnsAllBytesThenZero) {
  StreamUnderTest s;
  s.Write("hello, stream");
  EXPECT_EQ(s.Seek(0, STREAM_SEEK_SET), 0u);
  char data[64];
  unsigned int read = 99;
  EXPECT_EQ(s.stream->Read(data, sizeof(data), &read), S_OK);
  EXPECT_EQ(std::string(data, read), "hello, stream");
  EXPECT_EQ(s.stream->Read(data, sizeof(data), &read), S_OK);
  EXPECT_EQ(read, 0u);
}

TEST(MemoryStream, ReadWithoutRewindSeesTheEnd) {
  StreamUnderTest s;
  s.Write("abc");
  char data[4];
  unsigned int read = 99;
  EXPECT_EQ(s.stream->Read(data, sizeof(data), &read), S_OK);
  EXPECT_EQ(read, 0u);
}

TEST(MemoryStream, SeekFromEndCountsBackwards) {
  StreamUnderTest s;
  s.Write("0123456789");
  EXPECT_EQ(s.Seek(3, STREAM_SEEK_END), 7u);
  EXPECT_EQ(s.ReadAll(), "789");
}

TEST(MemoryStream, SeekFromEndWithNegativeOffsetStopsAtLength) {
  StreamUnderTest s;
  s.Write("0123456789");
  s.Seek(0, STREAM_SEEK_SET);
  EXPECT_EQ(s.Seek(-1, STREAM_SEEK_END), 10u);
}

TEST(MemoryStream, SeekClampsToStartAndEnd) {
  StreamUnderTest s;
  s.Write("0123456789");
  EXPECT_EQ(s.Seek(-5, STREAM_SEEK_SET), 0u);
  EXPECT_EQ(s.Seek(11, STREAM_SEEK_SET), 10u);
  EXPECT_EQ(s.Seek(20, STREAM_SEEK_END), 0u);
  EXPECT_EQ(s.Seek(4, STREAM_SEEK_SET), 4u);
  EXPECT_EQ(s.Seek(2, STREAM_SEEK_CUR), 6u);
  EXPECT_EQ(s.Seek(-3, STREAM_SEEK_CUR), 3u);
  EXPECT_EQ(s.Seek(100, STREAM_SEEK_CUR), 10u);
}

TEST(MemoryStream, SeekWithUnknownOriginIsNotImplemented) {
  StreamUnderTest s;
  s.Write("0123");
  _LARGE_INTEGER move;
  move.QuadPart = 0;
  _ULARGE_INTEGER result;
  EXPECT_EQ(s.stream->Seek(move, 3, &result), E_NOTIMPL);
  EXPECT_EQ(s.object->position, 4u);
}

TEST(MemoryStream, WriteAfterRewindAppendsAndMovesPosition) {
  StreamUnderTest s;
  s.Write("abcdef");
  s.Seek(0, STREAM_SEEK_SET);
  s.Write("XY");
  EXPECT_EQ(s.object->length, 8u);
  EXPECT_EQ(s.object->position, 2u);
  EXPECT_EQ(s.ReadAll(), "cdefXY");
  s.Seek(0, STREAM_SEEK_SET);
  EXPECT_EQ(s.ReadAll(), "abcdefXY");
}

TEST(MemoryStream, StatReportsLength) {
  StreamUnderTest s;
  s.Write(std::string(1500, 'z'));
  tagSTATSTG stat = {};
  EXPECT_EQ(s.stream->Stat(&stat, 0), S_OK);
  EXPECT_EQ(stat.cbSize.QuadPart, 1500u);
  EXPECT_EQ(s.stream->Stat(nullptr, 0), E_INVALIDARG);
}

TEST(MemoryStream, QueryInterfaceAcceptsTheStreamInterfacesAndCounts) {
  StreamUnderTest s;
  for (const tagGUID* iid : {&IID_IUnknown, &IID_IStream, &IID_ISequentialStream}) {
    void* object = nullptr;
    EXPECT_EQ(s.stream->QueryInterface(*iid, &object), S_OK);
    EXPECT_EQ(object, static_cast<IStream*>(s.object));
    EXPECT_EQ(s.object->AddRef(), 3u);  // one from the creation, one from QueryInterface
    s.object->Release();
    s.object->Release();
  }
}

TEST(MemoryStream, QueryInterfaceRejectsUnknownAndNull) {
  StreamUnderTest s;
  const tagGUID other = {0x12345678, 0x1, 0x2, {0, 0, 0, 0, 0, 0, 0, 1}};
  void* object = &s;
  EXPECT_EQ(s.stream->QueryInterface(other, &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(s.stream->QueryInterface(IID_IStream, nullptr), E_POINTER);
  EXPECT_EQ(s.object->AddRef(), 2u);
  s.object->Release();
}

TEST(MemoryStream, InterfaceIdentifiersAreTheStandardOnes) {
  EXPECT_EQ(IID_IUnknown.Data1, 0u);
  EXPECT_EQ(IID_IUnknown.Data4[0], 0xC0);
  EXPECT_EQ(IID_IUnknown.Data4[7], 0x46);
  EXPECT_EQ(IID_IStream.Data1, 0x0000000cu);
  EXPECT_EQ(IID_ISequentialStream.Data1, 0x0c733a30u);
  EXPECT_EQ(IID_ISequentialStream.Data2, 0x2a1c);
  EXPECT_EQ(IID_ISequentialStream.Data3, 0x11ce);
  EXPECT_EQ(IID_ISequentialStream.Data4[7], 0x3d);
  EXPECT_FALSE(IID_IUnknown == IID_IStream);
  EXPECT_TRUE(IID_IStream == IID_IStream);
}

TEST(MemoryStream, UnimplementedSlotsSayNotImplemented) {
  StreamUnderTest s;
  _ULARGE_INTEGER zero;
  zero.QuadPart = 0;
  IStream* clone = nullptr;
  EXPECT_EQ(s.stream->SetSize(zero), E_NOTIMPL);
  EXPECT_EQ(s.stream->CopyTo(nullptr, zero, nullptr, nullptr), E_NOTIMPL);
  EXPECT_EQ(s.stream->Commit(0), E_NOTIMPL);
  EXPECT_EQ(s.stream->Revert(), E_NOTIMPL);
  EXPECT_EQ(s.stream->LockRegion(zero, zero, 0), E_NOTIMPL);
  EXPECT_EQ(s.stream->UnlockRegion(zero, zero, 0), E_NOTIMPL);
  EXPECT_EQ(s.stream->Clone(&clone), E_NOTIMPL);
}

TEST(MemoryStream, CreateRefusesNullAndHandsOutOneReference) {
  EXPECT_FALSE(CreateIStream(nullptr));
  EXPECT_FALSE(CreateMemoryStream(nullptr));
  IStream* raw = nullptr;
  ASSERT_TRUE(CreateIStream(&raw));
  EXPECT_EQ(raw->AddRef(), 2u);
  EXPECT_EQ(raw->Release(), 1u);
  EXPECT_EQ(raw->Release(), 0u);  // deleted here; the address sanitizer build checks it
}

}  // namespace
}  // namespace base
}  // namespace apm
