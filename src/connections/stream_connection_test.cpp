// The stream protocol on a connection without a transport: requests decoded from any split of
// bytes, replies of the stated sizes, events framed, unknown codes unanswered, requests of one
// connection running at once.
#include "connections/stream_connection.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ports/port_test_fixture.h"
#include "skein/protocol.h"
#include "support/wire_client.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers
using namespace orlenda::testing;       // NOLINT: the frames

// A connection whose raw write keeps every message.
class Recording : public CSKStreamConnection {
 public:
  ~Recording() override { Shutdown(); }
  bool RawWrite(BlobRef message) override {
    std::lock_guard<std::mutex> hold(lock_);
    messages_.emplace_back(reinterpret_cast<const char*>(message.data()), static_cast<std::size_t>(message.size()));
    changed_.notify_all();
    return true;
  }
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
    std::lock_guard<std::mutex> hold(lock_);
    return messages_.size();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::string> messages_;
  std::size_t taken_ = 0;
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
  const std::string over =
      LengthAs(RequestFrame(SK_FRAME_WRITE, 11), SK_FRAME_MAX_SIZE + 1) + std::string(SK_FRAME_MAX_SIZE + 1 - 16, 'o');
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
    const uint32_t code = Get32(step.request, 4);
    SCOPED_TRACE(::testing::Message() << "request code " << code);
    c.Feed(step.request);
    if (step.reply_size == 0) continue;
    std::string reply = c.Next();
    if (Get32(reply, 4) == SK_FRAME_EVENT) {
      // The write's echo: code 7, tag 0, the identifier, the data.
      EXPECT_EQ(reply.size(), 25u);
      EXPECT_EQ(reply.substr(8, 8), std::string(8, '\0'));
      EXPECT_EQ(Get32(reply, 16), kLoopbackData);
      EXPECT_EQ(reply.substr(20), "hello");
      reply = c.Next();
    }
    ASSERT_EQ(reply.size(), step.reply_size);
    EXPECT_EQ(Get32(reply, 0), step.reply_size);
    EXPECT_EQ(reply.substr(4, 12), step.request.substr(4, 12));  // code and tag echoed
    EXPECT_EQ(Get32(reply, 16), step.result);
    EXPECT_EQ(reply.substr(20), step.tail);
  }
  EXPECT_EQ(c.Count(), 10u);  // nine replies and one event: nothing for code 9
}

TEST_F(StreamTest, ASplitStreamAndKeepAlivesGiveTheSameRequests) {
  Recording c;
  // One request at a time (requests of a connection run at once, so a Close could overtake).
  for (const std::string& request : {OpenFrame(1, u"loop/dev1"), RequestFrame(SK_FRAME_CLOSE, 2)}) {
    for (char byte : std::string(4, '\0') + request) c.Feed(std::string(1, byte));
    EXPECT_EQ(Get32(c.Next(), 16), SKR_SUCCESS);
  }
  c.Feed(RequestFrame(SK_FRAME_CLOSE, 3) + RequestFrame(SK_FRAME_CLOSE, 4));  // two in one chunk
  EXPECT_EQ(Get32(c.Next(), 16), SKR_INVALID_HANDLE);
  EXPECT_EQ(Get32(c.Next(), 16), SKR_INVALID_HANDLE);
}

TEST_F(StreamTest, RequestsOfOneConnectionRunAtOnce) {
  Recording c;
  c.Feed(OpenFrame(1, u"mixed/dev1"));
  ASSERT_EQ(Get32(c.Next(), 16), SKR_SUCCESS);
  c.Feed(IoctlFrame(2, SK_PORT_LOCK, DwordBytes(1)));
  ASSERT_EQ(Get32(c.Next(), 16), SKR_SUCCESS);
  // The device holds the write; a later request of the same connection is answered first.
  c.Feed(IoctlFrame(3, 0x1FFF0003u, DwordBytes(c.port_number())));
  ASSERT_EQ(Get32(c.Next(), 16), SKR_SUCCESS);
  c.Feed(WriteFrame(4, "held"));
  c.Feed(IoctlFrame(5, SK_LOCK_STATE));
  EXPECT_EQ(Get32(c.Next(), 8), 5u);
  c.Feed(IoctlFrame(6, 0x1FFF0003u, DwordBytes(0)));
  std::vector<uint32_t> tags;
  for (int i = 0; i < 2; ++i) tags.push_back(Get32(c.Next(), 8));
  EXPECT_TRUE((tags == std::vector<uint32_t>{4, 6} || tags == std::vector<uint32_t>{6, 4}));
}

}  // namespace
}  // namespace orlenda
