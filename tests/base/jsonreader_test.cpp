#include "base/jsonreader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "base/jsontokenbuffer.h"

namespace apm {
namespace base {
namespace {

// An IStream that serves a text in pieces no larger than asked for and records
// each Read; it can be told to fail from a given call on.
class ScriptedStream : public IStream {
 public:
  explicit ScriptedStream(std::string text) : text_(std::move(text)) {}

  HRESULT QueryInterface(const tagGUID&, void**) override { return E_NOINTERFACE; }
  uint32_t AddRef() override { return ++references; }
  uint32_t Release() override { return --references; }
  HRESULT Read(void* buffer, unsigned int count, unsigned int* read) override {
    requested.push_back(count);
    if (failFromCall != 0 && requested.size() >= failFromCall) {
      *read = 0;
      return E_FAIL;
    }
    size_t size = std::min<size_t>(count, text_.size() - position_);
    memcpy(buffer, text_.data() + position_, size);
    position_ += size;
    *read = static_cast<unsigned int>(size);
    return S_OK;
  }
  HRESULT Write(const void*, unsigned int, unsigned int*) override { return E_NOTIMPL; }
  HRESULT Seek(_LARGE_INTEGER, unsigned int, _ULARGE_INTEGER*) override { return E_NOTIMPL; }
  HRESULT SetSize(_ULARGE_INTEGER) override { return E_NOTIMPL; }
  HRESULT CopyTo(IStream*, _ULARGE_INTEGER, _ULARGE_INTEGER*, _ULARGE_INTEGER*) override { return E_NOTIMPL; }
  HRESULT Commit(unsigned int) override { return E_NOTIMPL; }
  HRESULT Revert() override { return E_NOTIMPL; }
  HRESULT LockRegion(_ULARGE_INTEGER, _ULARGE_INTEGER, unsigned int) override { return E_NOTIMPL; }
  HRESULT UnlockRegion(_ULARGE_INTEGER, _ULARGE_INTEGER, unsigned int) override { return E_NOTIMPL; }
  HRESULT Stat(tagSTATSTG*, unsigned int) override { return E_NOTIMPL; }
  HRESULT Clone(IStream**) override { return E_NOTIMPL; }

  uint32_t references = 1;
  std::vector<unsigned int> requested;
  size_t failFromCall = 0;

 private:
  std::string text_;
  size_t position_ = 0;
};

std::string ReadAll(IJsonCharReader& reader) {
  std::string result;
  unsigned char byte;
  while (reader.get(byte)) result += static_cast<char>(byte);
  return result;
}

std::string MakeText(size_t size) {
  std::string text;
  for (size_t index = 0; index < size; ++index) text += static_cast<char>(index * 7 % 251);
  return text;
}

TEST(CJsonStringReader, HandsOutEveryByteThenReportsTheEnd) {
  const std::string text("a\0\xff", 3);
  CJsonStringReader reader(text.data(), text.data() + text.size());
  EXPECT_EQ(ReadAll(reader), text);
  unsigned char byte = 'x';
  EXPECT_FALSE(reader.get(byte));
  EXPECT_FALSE(reader.next(byte));
}

TEST(CJsonStringReader, WindowIsTheUnreadRest) {
  const std::string text = "abcdef";
  CJsonStringReader reader(text.data(), text.data() + text.size());
  unsigned char byte;
  ASSERT_TRUE(reader.next(byte));
  EXPECT_EQ(byte, 'a');
  EXPECT_EQ(reader.pendingEnd() - reader.pending(), 5);
  reader.consume(reader.pending() + 3);
  ASSERT_TRUE(reader.get(byte));
  EXPECT_EQ(byte, 'e');
}

TEST(CJsonIStreamReader, ReadsInBlocksOf1024Bytes) {
  const std::string text = MakeText(2500);
  ScriptedStream stream(text);
  {
    CJsonIStreamReader reader(&stream);
    EXPECT_EQ(stream.references, 2u);  // the reader holds a reference
    EXPECT_EQ(ReadAll(reader), text);
    // Blocks of 1024, 1024, 452, then the read that reports the end.
    EXPECT_EQ(stream.requested, (std::vector<unsigned int>{1024, 1024, 1024, 1024}));
  }
  EXPECT_EQ(stream.references, 1u);
}

TEST(CJsonIStreamReader, FailingStreamEndsTheInput) {
  const std::string text = MakeText(3000);
  ScriptedStream stream(text);
  stream.failFromCall = 2;
  CJsonIStreamReader reader(&stream);
  EXPECT_EQ(ReadAll(reader), text.substr(0, 1024));
}

TEST(CJsonIStreamReader, NullStreamIsEmpty) {
  CJsonIStreamReader reader(nullptr);
  unsigned char byte;
  EXPECT_FALSE(reader.get(byte));
  EXPECT_FALSE(reader.next(byte));
}

TEST(TokenBuffer, StartsAt128AndDoubles) {
  TokenBuffer buffer;
  EXPECT_EQ(buffer.capacity(), 0u);
  buffer.append('a');
  EXPECT_EQ(buffer.capacity(), 128u);
  for (int index = 1; index < 128; ++index) buffer.append('a');
  EXPECT_EQ(buffer.capacity(), 128u);
  buffer.append('b');
  EXPECT_EQ(buffer.capacity(), 256u);
  EXPECT_EQ(buffer.length(), 129u);
  EXPECT_EQ(std::string(static_cast<const char*>(buffer)), std::string(128, 'a') + "b");
}

TEST(TokenBuffer, BulkAppendDoublesUntilItFits) {
  TokenBuffer buffer;
  const std::string text(1000, 'x');
  buffer.append(text.data(), text.size());
  EXPECT_EQ(buffer.capacity(), 1024u);
  EXPECT_EQ(buffer.length(), 1000u);
  EXPECT_EQ(std::string(buffer.data(), buffer.length()), text);
}

TEST(TokenBuffer, TerminatingGrowsIfNeedBeAndClearingKeepsTheMemory) {
  TokenBuffer buffer;
  EXPECT_STREQ(static_cast<const char*>(buffer), "");
  EXPECT_EQ(buffer.capacity(), 128u);
  const std::string full(128, 'z');
  buffer.append(full.data(), full.size());
  EXPECT_EQ(buffer.capacity(), 128u);
  EXPECT_EQ(std::string(static_cast<const char*>(buffer)), full);
  EXPECT_EQ(buffer.capacity(), 256u);
  buffer.clear();
  EXPECT_EQ(buffer.length(), 0u);
  EXPECT_EQ(buffer.capacity(), 256u);
  EXPECT_STREQ(static_cast<const char*>(buffer), "");
}

TEST(TokenBuffer, BytesThatFindNoMemoryAreDroppedSilently) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizer allocators refuse impossible allocations instead of failing them";
#else
  TokenBuffer buffer;
  buffer.append('a');
  const std::string source(200, 'b');
  // Growing to hold 2^62 bytes fails: what fits in the 128 bytes stays, the rest
  // is dropped.
  buffer.append(source.data(), static_cast<size_t>(1) << 62);
  EXPECT_EQ(buffer.capacity(), 128u);
  EXPECT_EQ(buffer.length(), 128u);
  EXPECT_EQ(std::string(buffer.data(), buffer.length()), "a" + std::string(127, 'b'));
  // Terminating needs one byte more, which is there to be had.
  EXPECT_EQ(std::string(static_cast<const char*>(buffer)), "a" + std::string(127, 'b'));
#endif
}

}  // namespace
}  // namespace base
}  // namespace apm
