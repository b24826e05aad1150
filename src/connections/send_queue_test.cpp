// A connection's sending: an event push never waits for a client that does not read, replies and
// events leave in the order they were made, and a client that cannot be served whole (its queue
// overflows, or a write fails) is given up and sent nothing more.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "connections/stream_connection.h"
#include "ports/port_test_fixture.h"
#include "skein/protocol.h"
#include "support/wire_client.h"

namespace orlenda {
namespace {

using namespace orlenda::testing;  // NOLINT: the frames

constexpr auto kBound = std::chrono::seconds(20);

// What the client's side saw; it outlives the connection, whose destruction waits for every send.
struct Probe {
  std::mutex lock;
  std::condition_variable changed;
  bool open = false;         // else a write waits (a client that does not read)
  bool fail_writes = false;
  int writers = 0;           // in a write now
  int most_writers = 0;
  int abandoned = 0;
  std::vector<std::string> written;

  void Open() {
    std::lock_guard<std::mutex> hold(lock);
    open = true;
    changed.notify_all();
  }
  template <class P>
  bool Await(P done) {
    std::unique_lock<std::mutex> hold(lock);
    return changed.wait_for(hold, kBound, done);
  }
};

class Gated : public CSKStreamConnection {
 public:
  explicit Gated(Probe& probe) : probe_(probe) {}
  ~Gated() override {
    probe_.Open();
    Shutdown();
  }
  bool RawWrite(BlobRef message) override {
    std::unique_lock<std::mutex> hold(probe_.lock);
    probe_.most_writers = std::max(probe_.most_writers, ++probe_.writers);
    probe_.changed.notify_all();
    probe_.changed.wait_for(hold, kBound, [this] { return probe_.open; });
    probe_.written.emplace_back(reinterpret_cast<const char*>(message.data()), static_cast<std::size_t>(message.size()));
    --probe_.writers;
    probe_.changed.notify_all();
    return !probe_.fail_writes;
  }
  void Abandon() override {
    std::lock_guard<std::mutex> hold(probe_.lock);
    ++probe_.abandoned;
  }
  void Feed(const std::string& bytes) { ASSERT_TRUE(Receive(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())); }
  bool AwaitWriter() {
    return probe_.Await([this] { return probe_.writers == 1; });
  }

 private:
  Probe& probe_;
};

BlobRef Data(std::size_t size, char fill) {
  const std::string bytes(size, fill);
  return BlobRef::Adopt(BlobCopy(bytes.data(), bytes.size()));
}

class SendQueueTest : public port_testing::PortTest {};

TEST_F(SendQueueTest, EventsNeverWaitForTheClientAndEverythingLeavesInOrder) {
  Probe probe;
  {
    Gated c(probe);
    c.Feed(IoctlFrame(77, SK_LOCK_STATE));
    ASSERT_TRUE(c.AwaitWriter());  // the request's own thread writes its reply, and waits
    // Pushed on this thread: a push that wrote would wait here for the whole bound.
    c.PushEvent(1, Data(3, 'a'));
    c.PushEvent(2, Data(3, 'b'));
    probe.Open();
    ASSERT_TRUE(probe.Await([&] { return probe.written.size() == 3; }));
  }
  ASSERT_EQ(probe.written.size(), 3u);
  EXPECT_EQ(Get32(probe.written[0], 4), SK_FRAME_IOCTL);
  EXPECT_EQ(Get32(probe.written[0], 8), 77u);
  for (uint32_t i = 1; i <= 2; ++i) {
    EXPECT_EQ(Get32(probe.written[i], 4), SK_FRAME_EVENT);
    EXPECT_EQ(Get32(probe.written[i], 16), i);
  }
  EXPECT_EQ(probe.most_writers, 1);  // one message at a time
  EXPECT_EQ(probe.abandoned, 0);
}

TEST_F(SendQueueTest, AClientThatCannotBeServedWholeIsGivenUpAndSentNothingMore) {
  for (const bool overflow : {true, false}) {  // else the first write fails
    SCOPED_TRACE(overflow ? "queue overflows" : "write fails");
    Probe probe;
    probe.fail_writes = !overflow;
    {
      Gated c(probe);
      c.PushEvent(1, Data(16, 'a'));
      ASSERT_TRUE(c.AwaitWriter());
      if (overflow) {
        // Exactly the bound may queue behind the write in progress; one byte more is too much.
        const std::size_t half = CSKStreamConnection::kSendQueueBytes / 2 - SK_FRAME_REPLY_SIZE;
        c.PushEvent(2, Data(half, 'b'));
        c.PushEvent(3, Data(half, 'c'));
        EXPECT_EQ(probe.abandoned, 0);
        c.PushEvent(4, Data(1, 'd'));
        EXPECT_EQ(probe.abandoned, 1);
      }
      probe.Open();
      ASSERT_TRUE(probe.Await([&] { return probe.writers == 0; }));
      c.PushEvent(5, Data(1, 'e'));
      c.Feed(IoctlFrame(6, SK_LOCK_STATE));
    }
    // Only the write that was in progress ever happened.
    ASSERT_EQ(probe.written.size(), 1u);
    EXPECT_EQ(Get32(probe.written[0], 16), 1u);
    EXPECT_EQ(probe.abandoned, overflow ? 1 : 0);
  }
}

}  // namespace
}  // namespace orlenda
