#include "log_server.h"

#include <gtest/gtest.h>

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

// Sends raw bytes as one writer and hangs up.
void SendRaw(const std::vector<uint8_t>& bytes) {
  platform::PipeStream pipe;
  uint32_t error = platform::kErrorPipeBusy;
  for (int attempt = 0; attempt < 200 && error != 0; ++attempt) {
    error = pipe.Open(logging::kLogServicePipeName, false);
    if (error != 0) platform::WaitForPipe(logging::kLogServicePipeName, 100);
  }
  ASSERT_EQ(error, 0u);
  for (std::size_t at = 0; at < bytes.size();) {
    uint32_t written = 0;
    ASSERT_EQ(pipe.Write(bytes.data() + at, static_cast<uint32_t>(bytes.size() - at), &written), 0u);
    at += written;
  }
}

TEST(LogServer, GarbageAndHalfRecordsAreReportedWhileGoodWritersGoOnAndTheServiceStartsAgain) {
  testing::UseIsolatedDirs();
  platform::PresenceObject presence;
  ASSERT_EQ(presence.Acquire(logging::kLogServiceEventName), 0u);
  TestSink sink;
  LogServer server(&sink);
  ASSERT_EQ(server.Start(), 0u);
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
  server.Stop();

  ASSERT_EQ(sink.records.size(), static_cast<std::size_t>(kGood));
  std::set<std::u16string> texts;
  for (const SeenRecord& r : sink.records) texts.insert(r.text);
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(kGood));
  EXPECT_EQ(texts.count(u"good 0"), 1u);
  EXPECT_EQ(texts.count(u"good 39"), 1u);
  // One notice for each bad writer, none for the good ones.
  EXPECT_EQ(sink.notices.size(), bad.size());

  // The stopped service can start again on the same pipe.
  LogServer again(&sink);
  ASSERT_EQ(again.Start(), 0u);
  ASSERT_TRUE(Log(4, u"after"));
  ASSERT_TRUE(FlushLog(5000));
  again.Stop();
  ASSERT_EQ(sink.records.size(), kGood + 1u);
  EXPECT_EQ(sink.records.back().text, u"after");
}

}  // namespace
}  // namespace orlenda::logservice
