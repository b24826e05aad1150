// The stream protocol on a connection without a transport: requests decoded, replies of the stated
// sizes, events framed, unknown codes unanswered, requests of one connection running at once. Its
// sending: events never wait for a client that does not read, everything leaves in order, and a
// client that cannot be served whole is given up. And its framer: any split of the stream gives
// the same frames, keep-alives vanish, large frames grow the buffer in two steps, frames over the
// limit are cut and counted, short lengths end the stream.
#include "connections/stream_connection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "connections/frame_reader.h"
#include "support/port_test_fixture.h"
#include "skein/protocol.h"
#include "support/wire_client.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers
using namespace orlenda::testing;       // NOLINT: the frames
using port_testing::Bytes;              // a blob, not the log capture's record type

// A connection whose raw write keeps every message; with its gate shut a write waits (a client
// that does not read), and what the writes saw is counted.
class Recording : public CSKStreamConnection {
  template <class F>
  auto Locked(F f) {
    std::lock_guard<std::mutex> hold(lock_);
    return f();
  }

 public:
  ~Recording() override {
    SetOpen(true);
    Shutdown();
  }
  bool RawWrite(BlobRef message) override {
    std::unique_lock<std::mutex> hold(lock_);
    most_writers_ = std::max(most_writers_, ++writers_);
    changed_.notify_all();
    changed_.wait_for(hold, std::chrono::seconds(20), [this] { return open_; });
    messages_.emplace_back(reinterpret_cast<const char*>(message.data()), static_cast<std::size_t>(message.size()));
    --writers_;
    changed_.notify_all();
    return !fail_writes_;
  }
  void Abandon() override { Locked([this] { ++abandoned_; }); }
  void Feed(const std::string& bytes) {
    ASSERT_TRUE(Receive(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
  }
  // The next message, or "" after 20 s.
  std::string Next() {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait_for(hold, std::chrono::seconds(20), [this] { return taken_ < messages_.size(); });
    return taken_ < messages_.size() ? messages_[taken_++] : std::string();
  }
  std::size_t Count() {
    return Locked([this] { return messages_.size(); });
  }
  void SetOpen(bool open) {
    Locked([&] { open_ = open; });
    changed_.notify_all();
  }
  void FailWrites() {
    Locked([this] { fail_writes_ = true; });
  }
  bool AwaitWriter() {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::seconds(20), [this] { return writers_ == 1; });
  }
  // Waits for every request and send of the connection; then the counts are final.
  void Finish() { Shutdown(); }
  int most_writers() { return Locked([this] { return most_writers_; }); }
  int abandoned() { return Locked([this] { return abandoned_; }); }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::string> messages_;
  std::size_t taken_ = 0;
  bool open_ = true;
  bool fail_writes_ = false;
  int writers_ = 0;
  int most_writers_ = 0;
  int abandoned_ = 0;
};

class StreamTest : public PortTest {};

TEST_F(StreamTest, RequestsAreAnsweredWithTheirCodeTagAndSize) {
  Recording c;
  struct Step {
    std::string request;
    uint32_t result;
    std::size_t reply_size;
    std::string tail;  // the bytes after the result
  };
  const std::string over = RequestFrame(SK_FRAME_WRITE, 11, std::string(SK_FRAME_MAX_SIZE + 1 - 16, 'o'));
  const Step steps[] = {
      {OpenFrame(1, u"loop/dev1"), SKR_SUCCESS, 20, ""},
      {RegisterFrame(2, kLoopbackData), SKR_SUCCESS, 20, ""},
      {WriteFrame(3, "hello"), SKR_NOT_LOCKED, 24, DwordBytes(0)},
      {IoctlFrame(4, SK_PORT_LOCK, DwordBytes(1)), SKR_SUCCESS, 20, ""},
      {IoctlFrame(5, SK_LOCK_STATE), SKR_SUCCESS, 24, DwordBytes(1)},
      {WriteFrame(0x1122334455667788ull, "hello"), SKR_SUCCESS, 24, DwordBytes(5)},
      {RequestFrame(9, 6), 0, 0, ""},  // unknown: no reply
      {over, SKR_TRUNCATED, 20, ""},
      {RequestFrame(SK_FRAME_UNREGISTER, 7, DwordBytes(kLoopbackData)), SKR_SUCCESS, 20, ""},
      {RequestFrame(SK_FRAME_CLOSE, 8), SKR_SUCCESS, 20, ""},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(::testing::Message() << "request code " << Get32(step.request, 4));
    c.Feed(step.request);
    if (step.reply_size == 0) continue;
    std::string reply = c.Next();
    if (Get32(reply, 4) == SK_FRAME_EVENT) {
      // The write's echo: tag 0, the identifier, the data.
      EXPECT_EQ(reply, RequestFrame(SK_FRAME_EVENT, 0, DwordBytes(kLoopbackData) + "hello"));
      reply = c.Next();
    }
    // The request's code and tag echoed, the result, and what follows it.
    EXPECT_EQ(reply, DwordBytes(step.reply_size) + step.request.substr(4, 12) + DwordBytes(step.result) + step.tail);
  }
  EXPECT_EQ(c.Count(), 10u);  // nine replies and one event: nothing for code 9
}

TEST_F(StreamTest, RequestsOfOneConnectionRunAtOnce) {
  Recording c;
  const auto result = [&](const std::string& request) {
    c.Feed(request);
    return Get32(c.Next(), 16);
  };;
  ASSERT_EQ(result(OpenFrame(1, u"mixed/dev1")), SKR_SUCCESS);
  ASSERT_EQ(result(IoctlFrame(2, SK_PORT_LOCK, DwordBytes(1))), SKR_SUCCESS);
  // The device holds the write; a later request of the same connection is answered first.
  ASSERT_EQ(result(IoctlFrame(3, kTestHoldWrites, DwordBytes(c.port_number()))), SKR_SUCCESS);
  c.Feed(WriteFrame(4, "held"));
  c.Feed(IoctlFrame(5, SK_LOCK_STATE));
  EXPECT_EQ(Get32(c.Next(), 8), 5u);
  c.Feed(IoctlFrame(6, kTestHoldWrites, DwordBytes(0)));
  EXPECT_EQ((std::set<uint32_t>{Get32(c.Next(), 8), Get32(c.Next(), 8)}), (std::set<uint32_t>{4, 6}));  // any order
}

// A client that does not read holds up nobody: the request's own thread writes the reply and
// waits, events pushed meanwhile only queue, and everything leaves in order, one message at a time.
// A client that cannot be served whole (more than the bound queued, or a failed write) is given up
// and sent nothing more.
TEST_F(StreamTest, AClientThatDoesNotReadHoldsUpNobodyAndOneThatCannotBeServedWholeIsGivenUp) {
  enum Fault { kNone, kOverflow, kWriteFails };
  for (const Fault fault : {kNone, kOverflow, kWriteFails}) {
    SCOPED_TRACE(fault);
    Recording c;
    c.SetOpen(false);
    if (fault == kWriteFails) c.FailWrites();
    c.Feed(IoctlFrame(77, SK_LOCK_STATE));
    ASSERT_TRUE(c.AwaitWriter());
    // Pushed on this thread: a push that wrote would wait here for the whole bound. Exactly the
    // bound may queue behind the write in progress; one byte more is too much. Behind a write about
    // to fail the queue stays small, or a push before the failure is seen could overflow it too.
    c.PushEvent(1, Bytes("a"));
    if (fault != kWriteFails) {
      c.PushEvent(2, Bytes(std::string(CSKStreamConnection::kSendQueueBytes - 2 * SK_FRAME_REPLY_SIZE - 1, 'b')));
    }
    EXPECT_EQ(c.abandoned(), 0);
    if (fault == kOverflow) c.PushEvent(3, Bytes("c"));
    EXPECT_EQ(c.abandoned(), fault == kOverflow ? 1 : 0);
    c.SetOpen(true);
    EXPECT_EQ(Get32(c.Next(), 8), 77u);
    if (fault == kNone) {
      for (uint32_t event = 1; event <= 2; ++event) EXPECT_EQ(Get32(c.Next(), 16), event);
    }
    c.PushEvent(4, Bytes("d"));
    c.Feed(IoctlFrame(5, SK_LOCK_STATE));
    c.Finish();
    EXPECT_EQ(c.Count(), fault == kNone ? 5u : 1u);  // given up: only the write in progress happened
    EXPECT_EQ(c.most_writers(), 1);
    EXPECT_EQ(c.abandoned(), fault == kOverflow ? 1 : 0);
  }
}

class Recorder : public FrameReader::Sink {
 public:
  void OnFrame(BlobRef copy, uint32_t length) override {
    const std::size_t kept = static_cast<std::size_t>(copy.size()) - FrameReader::kBackPointer - FrameReader::kSlack;
    const char* frame = reinterpret_cast<const char*>(copy.data()) + FrameReader::kBackPointer;
    // The 16 bytes behind the frame are zero, whatever came before.
    EXPECT_EQ(std::string(frame + kept, FrameReader::kSlack), std::string(FrameReader::kSlack, '\0'));
    lengths.push_back(length);
    frames.push_back(std::string(frame, kept));
  }
  std::vector<uint32_t> lengths;
  std::vector<std::string> frames;  // the frame bytes each copy holds: fewer than its length when cut
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
    EXPECT_EQ(recorder.frames, (std::vector<std::string>{small, large, small, large}));
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
  EXPECT_EQ(recorder.frames, std::vector<std::string>{large});
}

TEST(FrameReader, AFrameOverTheLimitIsCutAndTheStreamStaysInStep) {
  const uint32_t over = SK_FRAME_MAX_SIZE + 1;
  const std::string huge = RequestFrame(SK_FRAME_WRITE, 7, std::string(over - 16, 'z'));
  const std::string next = RequestFrame(SK_FRAME_CLOSE, 8);
  for (std::size_t piece : {16, 65536}) {  // the header alone first, or with the body's first bytes
    FrameReader reader(this);
    Recorder recorder;
    ASSERT_TRUE(FeedInPieces(reader, recorder, huge + next, piece));
    ASSERT_EQ(recorder.frames.size(), 2u);
    EXPECT_EQ(recorder.lengths[0], over);
    EXPECT_EQ(recorder.frames[0].substr(0, 16), huge.substr(0, 16));  // the header is kept for the reply
    EXPECT_LE(reader.capacity(), FrameReader::kFirstCapacity);            // nothing was allocated for it
    EXPECT_EQ(recorder.frames[1], next);
  }
}

TEST(FrameReader, LengthsShorterThanAHeaderEndTheStream) {
  for (uint32_t length : {1u, 7u, 15u}) {
    FrameReader reader(this);
    Recorder recorder;
    EXPECT_FALSE(FeedInPieces(reader, recorder, LengthAs(RequestFrame(SK_FRAME_CLOSE, 1), length), 0)) << length;
    EXPECT_TRUE(recorder.frames.empty());
  }
}

}  // namespace
}  // namespace orlenda
