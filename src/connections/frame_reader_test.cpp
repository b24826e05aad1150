// The framer: any split of the stream gives the same frames, keep-alives vanish, large frames grow
// the buffer in two steps, frames over the limit are cut and counted, short lengths end the stream.
#include "connections/frame_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "skein/protocol.h"
#include "support/wire_client.h"

namespace orlenda {
namespace {

using testing::RequestFrame;

struct Seen {
  uint32_t length;
  std::string kept;  // the frame bytes the copy holds
  bool whole;
};

class Recorder : public FrameReader::Sink {
 public:
  void OnFrame(BlobRef copy, uint32_t length) override {
    const std::size_t kept = static_cast<std::size_t>(copy.size()) - FrameReader::kBackPointer - FrameReader::kSlack;
    const char* frame = reinterpret_cast<const char*>(copy.data()) + FrameReader::kBackPointer;
    // The 16 bytes behind the frame are zero, whatever came before.
    EXPECT_EQ(std::string(frame + kept, FrameReader::kSlack), std::string(FrameReader::kSlack, '\0'));
    seen.push_back(Seen{length, std::string(frame, kept), kept == length});
  }
  std::vector<Seen> seen;
};

// Feeds `stream` in pieces of `piece` bytes (0: all at once).
bool FeedInPieces(FrameReader& reader, Recorder& recorder, const std::string& stream, std::size_t piece) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(stream.data());
  if (piece == 0) return reader.Feed(bytes, stream.size(), &recorder);
  for (std::size_t at = 0; at < stream.size(); at += piece) {
    if (!reader.Feed(bytes + at, std::min(piece, stream.size() - at), &recorder)) return false;
  }
  return true;
}

TEST(FrameReader, EverySplitOfTheStreamGivesTheSameFrames) {
  const std::string small = RequestFrame(SK_FRAME_WRITE, 1, "abc");
  const std::string large = RequestFrame(SK_FRAME_WRITE, 2, std::string(5000 - 16, 'x'));
  const std::string ping(4, '\0');
  const std::string stream = small + ping + large + ping + ping + small + large;
  for (std::size_t piece : {0, 1, 3, 7, 1024, 1049, 4096}) {
    SCOPED_TRACE(piece);
    FrameReader reader(this);
    Recorder recorder;
    ASSERT_TRUE(FeedInPieces(reader, recorder, stream, piece));
    ASSERT_EQ(recorder.seen.size(), 4u);
    const std::string expected[] = {small, large, small, large};
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_TRUE(recorder.seen[i].whole);
      EXPECT_EQ(recorder.seen[i].kept, expected[i]);
    }
    // 5000 > 1048: the buffer grew to twice the frame in two steps.
    EXPECT_EQ(reader.capacity(), 10000u);
  }
}

TEST(FrameReader, TheSecondGrowthStepComesWithTheNextBytes) {
  FrameReader reader(this);
  Recorder recorder;
  const std::string large = RequestFrame(SK_FRAME_WRITE, 1, std::string(2000, 'y'));
  ASSERT_TRUE(FeedInPieces(reader, recorder, large.substr(0, 4), 0));
  EXPECT_EQ(reader.capacity(), 0u);  // cleared block: its capacity reads as 0
  ASSERT_TRUE(FeedInPieces(reader, recorder, large.substr(4), 0));
  EXPECT_EQ(reader.capacity(), 2u * static_cast<uint32_t>(large.size()));
  ASSERT_EQ(recorder.seen.size(), 1u);
  EXPECT_EQ(recorder.seen[0].kept, large);
}

TEST(FrameReader, AFrameOverTheLimitIsCutAndTheStreamStaysInStep) {
  const uint32_t over = SK_FRAME_MAX_SIZE + 1;
  const std::string huge = RequestFrame(SK_FRAME_WRITE, 7, std::string(over - 16, 'z'));
  const std::string next = RequestFrame(SK_FRAME_CLOSE, 8);
  for (std::size_t piece : {16, 65536}) {  // the header alone first, or with the body's first bytes
    FrameReader reader(this);
    Recorder recorder;
    ASSERT_TRUE(FeedInPieces(reader, recorder, huge + next, piece));
    ASSERT_EQ(recorder.seen.size(), 2u);
    EXPECT_FALSE(recorder.seen[0].whole);
    EXPECT_EQ(recorder.seen[0].length, over);
    EXPECT_EQ(recorder.seen[0].kept.substr(0, 16), huge.substr(0, 16));  // the header is kept for the reply
    EXPECT_LE(reader.capacity(), FrameReader::kFirstCapacity);            // nothing was allocated for it
    EXPECT_EQ(recorder.seen[1].kept, next);
  }
}

TEST(FrameReader, LengthsShorterThanAHeaderEndTheStream) {
  for (uint32_t length : {1u, 7u, 15u}) {
    FrameReader reader(this);
    Recorder recorder;
    const std::string frame = testing::LengthAs(RequestFrame(SK_FRAME_CLOSE, 1), length);
    EXPECT_FALSE(FeedInPieces(reader, recorder, frame, 0)) << length;
    EXPECT_TRUE(recorder.seen.empty());
  }
}

}  // namespace
}  // namespace orlenda
