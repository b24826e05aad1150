#include "log_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "logging/log.h"
#include "platform/errors.h"
#include "platform/presence.h"
#include "support/isolated_dirs.h"
#include "test_sink.h"

namespace orlenda::logservice {
namespace {

class LogServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::UseIsolatedDirs();
    ASSERT_EQ(presence_.Acquire(logging::kLogServiceEventName), 0u);
    ASSERT_EQ(server_.Start(), 0u);
  }

  // Sends raw bytes as one writer, `piece` bytes per write, and hangs up.
  static void SendRaw(const std::vector<uint8_t>& bytes, std::size_t piece = 1u << 20) {
    platform::PipeStream pipe;
    uint32_t error = platform::kErrorPipeBusy;
    for (int attempt = 0; attempt < 200 && error != 0; ++attempt) {
      error = pipe.Open(logging::kLogServicePipeName, false);
      if (error != 0) platform::WaitForPipe(logging::kLogServicePipeName, 100);
    }
    ASSERT_EQ(error, 0u);
    std::size_t at = 0;
    while (at < bytes.size()) {
      uint32_t written = 0;
      const std::size_t size = bytes.size() - at < piece ? bytes.size() - at : piece;
      ASSERT_EQ(pipe.Write(bytes.data() + at, static_cast<uint32_t>(size), &written), 0u);
      at += written;
    }
  }

  platform::PresenceObject presence_;
  TestSink sink_;
  LogServer server_{&sink_};
};

// Writers keep one connection for many records and write them in pieces that cut records
// anywhere; every record arrives whole, in each writer's order.
TEST_F(LogServerTest, ManyWritersWithManyRecordsEachKeepTheirOrder) {
  constexpr uint32_t kWriters = 20;
  constexpr uint32_t kEach = 200;
  std::vector<std::thread> writers;
  for (uint32_t w = 0; w < kWriters; ++w) {
    writers.emplace_back([w] {
      std::vector<uint8_t> stream;
      for (uint32_t n = 1; n <= kEach; ++n) {
        const logging::RecordHeader h{0, 0, w, logging::kRecordKindMessage, n, 6, n % 7};
        const std::vector<uint8_t> record = EncodeRecord(h, u"record", std::vector<uint8_t>(n % 7, 0xA5));
        stream.insert(stream.end(), record.begin(), record.end());
      }
      SendRaw(stream, /*piece=*/13 + w * 7);
    });
  }
  for (std::thread& w : writers) w.join();
  server_.Stop();

  std::vector<uint32_t> next(kWriters, 1);
  for (const SeenRecord& r : sink_.records()) {
    ASSERT_LT(r.header.thread_id, kWriters);
    EXPECT_EQ(r.header.level, next[r.header.thread_id]++);
    EXPECT_EQ(r.text, u"record");
    EXPECT_EQ(r.data, std::vector<uint8_t>(r.header.level % 7, 0xA5));
  }
  EXPECT_EQ(next, std::vector<uint32_t>(kWriters, kEach + 1));  // every record once
  EXPECT_TRUE(sink_.notices().empty());
}

TEST_F(LogServerTest, GarbageAndHalfRecordsAreReportedWhileGoodWritersGoOnAndTheServiceStartsAgain) {
  // Short headers, a long stream whose kind field can never be valid, and records whose writer hangs
  // up in the middle of the text or the data.
  const std::vector<uint8_t> whole =
      EncodeRecord({0, 0, 0, logging::kRecordKindMessage, 0, 10, 20}, u"0123456789", std::vector<uint8_t>(20, 1));
  const std::vector<std::vector<uint8_t>> bad = {std::vector<uint8_t>(1, 0x11), std::vector<uint8_t>(31, 0x11),
                                                 std::vector<uint8_t>(3000, 0xEE), {whole.begin(), whole.begin() + 33},
                                                 {whole.begin(), whole.begin() + 60}};

  constexpr int kGood = 40;
  std::vector<std::thread> writers;
  for (std::size_t i = 0; i < bad.size(); ++i) writers.emplace_back([&bad, i] { SendRaw(bad[i]); });
  for (int i = 0; i < kGood; ++i) writers.emplace_back([i] { EXPECT_TRUE(Log(4, u"good %d", i)); });
  for (std::thread& w : writers) w.join();
  ASSERT_TRUE(FlushLog(5000));
  server_.Stop();

  const std::vector<SeenRecord> records = sink_.records();
  ASSERT_EQ(records.size(), static_cast<std::size_t>(kGood));
  std::set<std::u16string> texts;
  for (const SeenRecord& r : records) texts.insert(r.text);
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(kGood));
  EXPECT_EQ(texts.count(u"good 0"), 1u);
  EXPECT_EQ(texts.count(u"good 39"), 1u);
  // One notice for each bad writer, none for the good ones.
  EXPECT_EQ(sink_.notices().size(), bad.size());

  // The stopped service can start again on the same pipe.
  LogServer again(&sink_);
  ASSERT_EQ(again.Start(), 0u);
  ASSERT_TRUE(Log(4, u"after"));
  ASSERT_TRUE(FlushLog(5000));
  again.Stop();
  ASSERT_EQ(sink_.records().size(), kGood + 1u);
  EXPECT_EQ(sink_.records().back().text, u"after");
}

}  // namespace
}  // namespace orlenda::logservice
