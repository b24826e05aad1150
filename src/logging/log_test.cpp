#include "logging/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "logging/log_client.h"
#include "logging/log_record.h"
#include "platform/thread.h"
#include "support/isolated_dirs.h"
#include "support/log_capture.h"

namespace orlenda {
namespace {

using testing::Bytes;
using testing::LogReceiver;

std::vector<std::u16string> Texts(const std::vector<Bytes>& records) {
  std::vector<std::u16string> texts;
  for (const Bytes& r : records) texts.push_back(testing::DecodeLine(r).text);
  return texts;
}

// The texts `prefix` first..last, in order.
std::vector<std::u16string> Sequence(const std::u16string& prefix, uint32_t first, uint32_t last) {
  std::vector<std::u16string> texts;
  char16_t text[kLogBufferChars];
  for (uint32_t n = first; n <= last; ++n) texts.emplace_back(text, FormatLog(text, u"%s%d", prefix.c_str(), n));
  return texts;
}

class LogClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::UseIsolatedDirs();
    // Start every test with no loss on record (a receiver that stops takes what was traced).
    while (LostMessageCount() != 0) {
      LogReceiver flush;
      flush.Start();
      Log(4, u"flush");
    }
  }
};

// The service is present but its pipe comes late: the records wait for it, and carry the time of
// the call, not of their delivery.
TEST_F(LogClientTest, RecordsArriveWithTheCallersIdsTimeAndTheirLayout) {
  LogReceiver receiver;
  receiver.HoldPresence();
  const uint8_t three[] = {0x00, 0xff, 0x7f};
  const uint8_t five[] = {1, 2, 3, 4, 5};
  const std::u16string long_text(3000, u'x');
  const uint64_t before = platform::FileTimeNow();
  ASSERT_TRUE(LogDataFormat(4, three, sizeof three, u"port %d <%08x>", 7, 0x80010000u));
  ASSERT_TRUE(LogData(2, five, sizeof five));
  ASSERT_TRUE(Log(4, u"<%s>", long_text.c_str()));
  const uint64_t after = platform::FileTimeNow();
  platform::SleepMs(300);
  receiver.Listen();

  const struct {
    uint32_t level;
    std::u16string text;
    Bytes data;
  } expected[] = {
      {4, u"port 7 <80010000>", Bytes(three, three + 3)},
      {2, u"", Bytes(five, five + 5)},  // no text: the data follows the header directly
      {4, u"<" + std::u16string(1022, u'x'), {}},  // cut to the formatter's 1023 units
  };
  const std::vector<Bytes> records = receiver.WaitFor(3);
  ASSERT_EQ(records.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const Bytes& r = records[i];
    ASSERT_EQ(r.size(), 32 + expected[i].text.size() * 2 + expected[i].data.size());
    const logging::RecordHeader h = logging::DecodeRecordHeader(r.data());
    EXPECT_EQ(h.process_id, platform::CurrentProcessId());  // the thread is checked below
    EXPECT_GE(h.time, before);
    EXPECT_LE(h.time, after);  // 300 ms before the pipe existed
    EXPECT_EQ(h.kind, 0u);
    EXPECT_EQ(h.level, expected[i].level);
    EXPECT_EQ(r[20], expected[i].level);  // little-endian on the wire: the low byte first
    // With the record's size, the text read by the header's lengths proves both lengths.
    EXPECT_EQ(testing::DecodeLine(r).text, expected[i].text);
    EXPECT_EQ(Bytes(r.end() - expected[i].data.size(), r.end()), expected[i].data);
  }
  EXPECT_EQ(LostMessageCount(), 0u);
}

TEST_F(LogClientTest, ManyThreadsTracingAtOnceKeepEachThreadsOrder) {
  constexpr uint32_t kThreads = 8;
  constexpr uint32_t kEach = 500;
  LogReceiver receiver;
  receiver.Start();
  std::vector<std::thread> tracers;
  std::vector<uint32_t> ids(kThreads);
  std::atomic<bool> go{false};
  for (uint32_t t = 0; t < kThreads; ++t) {
    tracers.emplace_back([&, t] {
      ids[t] = platform::CurrentThreadId();
      while (!go.load()) std::this_thread::yield();
      for (uint32_t n = 1; n <= kEach; ++n) Log(4, u"t%d n%d", t, n);
    });
  }
  go = true;
  for (std::thread& t : tracers) t.join();
  ASSERT_TRUE(FlushLog(10000));

  std::map<uint32_t, std::vector<std::u16string>> by_thread;
  for (const Bytes& r : receiver.WaitFor(kThreads * kEach)) {
    by_thread[logging::DecodeRecordHeader(r.data()).thread_id].push_back(testing::DecodeLine(r).text);
  }
  ASSERT_EQ(by_thread.size(), kThreads);
  for (uint32_t t = 0; t < kThreads; ++t) {
    SCOPED_TRACE(t);
    EXPECT_EQ(by_thread[ids[t]], Sequence(u"t" + std::u16string(1, char16_t(u'0' + t)) + u" n", 1, kEach));
  }
  EXPECT_EQ(LostMessageCount(), 0u);
}

// A burst while the service is present but not yet reading: with room for all of it nothing is
// lost; with a small queue, what does not fit is dropped, and every drop is counted and reported,
// never silent.
TEST_F(LogClientTest, BurstLosesOnlyWhatItCountsAndReports) {
  constexpr uint32_t kBurst = 100000;
  const std::pair<std::size_t, bool> cases[] = {{32u << 20, false}, {8u << 10, true}};
  for (const auto& [queue_bytes, expect_loss] : cases) {
    SCOPED_TRACE(queue_bytes);
    LogReceiver receiver;
    receiver.HoldPresence();  // the sender waits for the pipe while the burst fills the queue
    logging::LogCounters counters;
    {
      logging::LogClient client(queue_bytes);
      char16_t text[kLogBufferChars];
      for (uint32_t n = 1; n <= kBurst; ++n) client.Send(4, text, FormatLog(text, u"burst %d", n), nullptr, 0);
      receiver.Listen();
      ASSERT_TRUE(client.Flush(60000));
      // What was dropped last is reported behind the next record that gets through.
      ASSERT_TRUE(client.Send(4, u"end", 3, nullptr, 0));
      ASSERT_TRUE(client.Flush(60000));
      counters = client.counters();
    }
    EXPECT_EQ(counters.delivered + counters.lost, kBurst + 1);
    EXPECT_EQ(counters.lost != 0, expect_loss);

    uint64_t reported = 0;
    uint32_t last = 0;
    std::size_t burst_records = 0;
    for (const std::u16string& text : Texts(receiver.WaitFor(counters.delivered))) {
      if (text.rfind(u"burst ", 0) == 0) {
        const auto n = static_cast<uint32_t>(std::stoul(std::string(text.begin() + 6, text.end())));
        EXPECT_GT(n, last);
        last = n;
        ++burst_records;
      } else if (text != u"end") {
        reported += std::stoul(std::string(text.begin(), text.end()));  // "N messages lost"
      }
    }
    EXPECT_EQ(burst_records + 1, counters.delivered);
    EXPECT_EQ(reported, counters.lost);
  }
}

// A service that goes away before its pipe is there costs the record; so do records traced while
// no service is there, and those a service stopping mid-stream never read.
TEST_F(LogClientTest, ServiceGoneBeforeItsPipeThenAbsentThenStoppedMidStreamReportsEachLossOnce) {
  LogReceiver present;
  present.HoldPresence();
  EXPECT_TRUE(Log(4, u"never"));
  platform::SleepMs(250);  // the sender waits for the pipe while the service is present
  present.Stop();
  EXPECT_EQ(LostMessageCount(), 1u);
  ASSERT_FALSE(IsLogServiceRunning());
  for (uint32_t n = 1; n <= 3; ++n) EXPECT_TRUE(Log(4, u"nobody %d", n));  // queued, then dropped
  EXPECT_EQ(LostMessageCount(), 4u);

  LogReceiver first;
  first.Start();
  for (uint32_t n = 1; n <= 50; ++n) Log(4, u"record %d", n);
  ASSERT_TRUE(FlushLog(5000));
  first.Stop(/*deliver_queued=*/false);
  for (uint32_t n = 51; n <= 80; ++n) Log(4, u"record %d", n);
  EXPECT_EQ(LostMessageCount(), 30u);

  LogReceiver second;
  second.Start();
  for (uint32_t n = 81; n <= 100; ++n) Log(4, u"record %d", n);
  ASSERT_TRUE(FlushLog(5000));
  EXPECT_EQ(LostMessageCount(), 0u);

  // Each report follows the first record that got through after the loss, at level 0.
  std::vector<std::u16string> expected = Sequence(u"record ", 1, 50);
  expected.insert(expected.begin() + 1, u"4 messages lost");
  EXPECT_EQ(Texts(first.WaitFor(0)), expected);
  expected = Sequence(u"record ", 81, 100);
  expected.insert(expected.begin() + 1, u"30 messages lost");
  const std::vector<Bytes> records = second.WaitFor(expected.size());
  EXPECT_EQ(Texts(records), expected);
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(logging::DecodeRecordHeader(records[1].data()).level, 0u);
}

}  // namespace
}  // namespace orlenda
