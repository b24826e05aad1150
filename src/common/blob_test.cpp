#include "common/blob.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <thread>
#include <vector>

namespace orlenda {
namespace {

uint64_t References(const Blob* blob) { return blob->references.load(); }

TEST(Blob, CreateAndCopy) {
  for (uint64_t size : {0u, 1u, 1000u}) {
    BlobRef blob = BlobRef::Adopt(BlobCreate(size));
    ASSERT_TRUE(blob) << size;
    EXPECT_EQ(blob.size(), size);
    for (uint64_t i = 0; i < size; ++i) ASSERT_EQ(blob.data()[i], 0) << i;
  }
  // Sizes that cannot fit a size_t with the header, one of them wrapping the total to exactly zero.
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  EXPECT_EQ(BlobCreate(kMax), nullptr);
  EXPECT_EQ(BlobCreate(kMax - sizeof(Blob) + 1), nullptr);

  char text[] = "COM1";
  BlobRef copy = BlobRef::Adopt(BlobCopy(text, 4));
  text[0] = 'X';
  ASSERT_EQ(copy.size(), 4u);
  EXPECT_EQ(std::memcmp(copy.data(), "COM1", 4), 0);
  EXPECT_TRUE(BlobRef::Adopt(BlobCopy(nullptr, 0)));
  EXPECT_EQ(BlobCopy(nullptr, 3), nullptr);
}

TEST(BlobRef, CopyMoveAdoptShareAndReleaseKeepTheCountRight) {
  Blob* raw = BlobCreate(8);
  BlobRef a = BlobRef::Adopt(raw);
  BlobRef b = a;
  EXPECT_EQ(References(raw), 2u);
  BlobRef c = std::move(b);
  EXPECT_EQ(References(raw), 2u);
  EXPECT_FALSE(b);
  BlobRef d = BlobRef::Share(raw);
  EXPECT_EQ(References(raw), 3u);
  d = BlobRef::Adopt(BlobCreate(2));  // drops d's reference to raw
  EXPECT_EQ(References(raw), 2u);
  Blob* given = c.Release();  // handed over: the release below drops the reference it held
  EXPECT_FALSE(c);
  EXPECT_EQ(References(raw), 2u);
  BlobRelease(given);
  EXPECT_EQ(References(raw), 1u);
  // `a` drops the last reference; ASan reports a leak or a double free if the count went wrong.
}

// Holders on many threads take and drop references to shared blocks: the counts balance. Each also
// writes its byte of a block of its round and drops its reference; whichever drop is last frees the
// block, and ThreadSanitizer reports a race between the writes and the free unless the drops order them.
TEST(BlobRef, ReferencesFromManyThreadsBalanceAndOrderTheFree) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 20;
  constexpr int kPairs = 500;
  BlobRef shared[3] = {BlobRef::Adopt(BlobCreate(0)), BlobRef::Adopt(BlobCreate(16)),
                       BlobRef::Adopt(BlobCreate(64))};
  for (int round = 0; round < kRounds; ++round) {
    Blob* blob = BlobCreate(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      BlobAddRef(blob);
      threads.emplace_back([&shared, blob, t] {
        for (int i = 0; i < kPairs; ++i) {
          Blob* one = shared[(t + i) % 3].get();
          BlobAddRef(one);
          BlobRef copy = BlobRef::Share(one);
          BlobRelease(one);
        }
        blob->data()[t] = static_cast<uint8_t>(t + 1);
        BlobRelease(blob);
      });
    }
    BlobRelease(blob);
    for (auto& thread : threads) thread.join();
  }
  for (const auto& ref : shared) EXPECT_EQ(References(ref.get()), 1u);
}

TEST(DwordBlob, StoresLittleEndianAndReadsOnlyFourBytes) {
  // Bytes of known order read as little-endian (the top bit included); a created blob reads back,
  // so it was stored in that order too.
  const uint8_t bytes[4] = {0x01, 0x02, 0x03, 0x80};
  uint32_t value = 0;
  EXPECT_TRUE(DwordBlobRead(BlobRef::Adopt(BlobCopy(bytes, 4)).get(), &value));
  EXPECT_EQ(value, 0x80030201u);
  ASSERT_TRUE(DwordBlobRead(BlobRef::Adopt(DwordBlobCreate(0x11223344u)).get(), &value));
  EXPECT_EQ(value, 0x11223344u);

  for (uint64_t size : {0u, 3u, 5u}) {
    value = 7;
    EXPECT_FALSE(DwordBlobRead(BlobRef::Adopt(BlobCreate(size)).get(), &value)) << size;
    EXPECT_EQ(value, 7u);
  }
  EXPECT_FALSE(DwordBlobRead(nullptr, &value));
}

}  // namespace
}  // namespace orlenda
