#include "log_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
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

  // Sends raw bytes as one writer and hangs up.
  static void SendRaw(const std::vector<uint8_t>& bytes) {
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
      ASSERT_EQ(pipe.Write(bytes.data() + at, static_cast<uint32_t>(bytes.size() - at), &written), 0u);
      at += written;
    }
  }

  platform::PresenceObject presence_;
  TestSink sink_;
  LogServer server_{&sink_};
};

TEST_F(LogServerTest, HundredWritersAtOnceLoseNothing) {
  static constexpr int kWriters = 100;
  std::atomic<bool> go{false};
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.emplace_back([&go, i] {
      while (!go.load()) std::this_thread::yield();
      const uint8_t tag[2] = {static_cast<uint8_t>(i), 0x5A};
      EXPECT_TRUE(LogDataFormat(3, tag, sizeof tag, u"writer %d of %d", i, kWriters));
    });
  }
  go = true;
  for (std::thread& w : writers) w.join();
  server_.Stop();

  const std::vector<SeenRecord> records = sink_.records();
  ASSERT_EQ(records.size(), static_cast<std::size_t>(kWriters));
  std::set<int> tags;
  for (const SeenRecord& r : records) {
    ASSERT_EQ(r.data.size(), 2u);
    tags.insert(r.data[0]);
    EXPECT_EQ(r.header.level, 3u);
    EXPECT_EQ(r.header.process_id, platform::CurrentProcessId());
    const std::u16string n = r.data[0] >= 10 ? std::u16string{char16_t(u'0' + r.data[0] / 10), char16_t(u'0' + r.data[0] % 10)}
                                             : std::u16string{char16_t(u'0' + r.data[0])};
    EXPECT_EQ(r.text, u"writer " + n + u" of 100");
  }
  EXPECT_EQ(tags.size(), static_cast<std::size_t>(kWriters));
  EXPECT_TRUE(sink_.notices().empty());
}

TEST_F(LogServerTest, GarbageAndHalfRecordsAreReportedWhileGoodWritersGoOn) {
  std::mt19937 random(12345);
  std::vector<std::vector<uint8_t>> bad;
  // Short headers of every length.
  for (std::size_t n = 1; n < 32; n += 5) bad.emplace_back(n, 0x11);
  // Noise whose kind field can never be valid.
  for (int i = 0; i < 6; ++i) {
    std::vector<uint8_t> noise(40 + random() % 3000);
    for (uint8_t& b : noise) b = static_cast<uint8_t>(random());
    noise[16] = 0xEE;
    bad.push_back(noise);
  }
  // Records whose writer hangs up in the middle of the text or the data.
  for (uint32_t keep : {33u, 40u, 60u}) {
    logging::RecordHeader h;
    h.text_length = 10;
    h.data_length = 20;
    std::vector<uint8_t> record = EncodeRecord(h, u"0123456789", std::vector<uint8_t>(20, 1));
    record.resize(keep);
    bad.push_back(record);
  }

  constexpr int kGood = 40;
  std::vector<std::thread> writers;
  for (std::size_t i = 0; i < bad.size(); ++i) writers.emplace_back([&bad, i] { SendRaw(bad[i]); });
  for (int i = 0; i < kGood; ++i) {
    writers.emplace_back([i] { EXPECT_TRUE(Log(4, u"good %d", i)); });
  }
  for (std::thread& w : writers) w.join();
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
}

TEST_F(LogServerTest, StopEndsAcceptingAndTheServiceCanStartAgain) {
  ASSERT_TRUE(Log(4, u"before"));
  server_.Stop();
  ASSERT_EQ(sink_.records().size(), 1u);

  LogServer again(&sink_);
  ASSERT_EQ(again.Start(), 0u);
  ASSERT_TRUE(Log(4, u"after"));
  again.Stop();
  const std::vector<SeenRecord> records = sink_.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].text, u"after");
}

}  // namespace
}  // namespace orlenda::logservice
