#include "logging/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "logging/log_record.h"
#include "platform/errors.h"
#include "platform/pipe.h"
#include "platform/presence.h"
#include "platform/thread.h"
#include "support/isolated_dirs.h"
#include "support/log_capture.h"

namespace orlenda {
namespace {

using testing::Bytes;
using TestReceiver = testing::LogReceiver;

std::u16string TextOf(const Bytes& record) {
  if (record.size() < logging::kRecordHeaderSize) return u"<no header>";
  const logging::RecordHeader h = logging::DecodeRecordHeader(record.data());
  std::u16string text;
  if (record.size() < logging::kRecordHeaderSize + 2ull * h.text_length) return u"<record too short>";
  for (uint32_t i = 0; i < h.text_length; ++i) {
    const std::size_t at = logging::kRecordHeaderSize + 2 * i;
    text.push_back(static_cast<char16_t>(record[at] | (record[at + 1] << 8)));
  }
  return text;
}

class LogClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::UseIsolatedDirs();
    // Start every test with no loss on record.
    while (LostMessageCount() != 0) {
      TestReceiver flush;
      flush.HoldPresence();
      flush.Listen();
      Log(4, u"flush");
      flush.Stop();
    }
  }
};

TEST_F(LogClientTest, RecordCarriesHeaderTextAndDataAsLaidOut) {
  TestReceiver receiver;
  receiver.HoldPresence();
  receiver.Listen();

  const uint8_t data[] = {0x00, 0xff, 0x7f};
  const uint64_t before = platform::FileTimeNow();
  ASSERT_TRUE(LogDataFormat(4, data, sizeof data, u"port %d <%08x>", 7, 0x80010000u));
  const uint64_t after = platform::FileTimeNow();

  const std::vector<Bytes> records = receiver.WaitFor(1);
  ASSERT_EQ(records.size(), 1u);
  const Bytes& r = records[0];
  const std::u16string expected_text = u"port 7 <80010000>";
  ASSERT_EQ(r.size(), 32 + expected_text.size() * 2 + sizeof data);

  const logging::RecordHeader h = logging::DecodeRecordHeader(r.data());
  // Within a second of the moment it was sent (100 ns units).
  EXPECT_GE(h.time + 10000000ull, before);
  EXPECT_LE(h.time, after + 10000000ull);
  EXPECT_EQ(h.process_id, platform::CurrentProcessId());
  EXPECT_EQ(h.thread_id, platform::CurrentThreadId());
  EXPECT_EQ(h.kind, 0u);
  EXPECT_EQ(h.level, 4u);
  EXPECT_EQ(h.text_length, expected_text.size());
  EXPECT_EQ(h.data_length, sizeof data);
  // Little-endian on the wire: the level's low byte first.
  EXPECT_EQ(r[20], 4);
  EXPECT_EQ(r[21], 0);
  EXPECT_EQ(TextOf(r), expected_text);
  EXPECT_EQ(Bytes(r.end() - 3, r.end()), Bytes(data, data + 3));
}

TEST_F(LogClientTest, EmptyTextPutsDataDirectlyAfterHeader) {
  TestReceiver receiver;
  receiver.HoldPresence();
  receiver.Listen();

  const uint8_t data[] = {1, 2, 3, 4, 5};
  ASSERT_TRUE(LogData(2, data, sizeof data));
  const std::vector<Bytes> records = receiver.WaitFor(1);
  ASSERT_EQ(records.size(), 1u);
  ASSERT_EQ(records[0].size(), 32u + sizeof data);
  const logging::RecordHeader h = logging::DecodeRecordHeader(records[0].data());
  EXPECT_EQ(h.text_length, 0u);
  EXPECT_EQ(h.data_length, 5u);
  EXPECT_EQ(h.level, 2u);
  EXPECT_EQ(Bytes(records[0].begin() + 32, records[0].end()), Bytes(data, data + 5));
}

TEST_F(LogClientTest, LongTextArrivesCutToTheFormatterBuffer) {
  TestReceiver receiver;
  receiver.HoldPresence();
  receiver.Listen();

  const std::u16string long_text(3000, u'x');
  ASSERT_TRUE(Log(4, u"<%s>", long_text.c_str()));
  const std::vector<Bytes> records = receiver.WaitFor(1);
  ASSERT_EQ(records.size(), 1u);
  const logging::RecordHeader h = logging::DecodeRecordHeader(records[0].data());
  EXPECT_EQ(h.text_length, 1023u);
  EXPECT_EQ(records[0].size(), 32u + 1023 * 2);
  const std::u16string text = TextOf(records[0]);
  EXPECT_EQ(text.front(), u'<');
  EXPECT_EQ(text.substr(1), std::u16string(1022, u'x'));
}

TEST_F(LogClientTest, LostRecordsAreCountedAndReportedOnceAfterTheNextSuccess) {
  ASSERT_FALSE(IsLogServiceRunning());
  for (uint32_t i = 1; i <= 3; ++i) {
    EXPECT_FALSE(Log(4, u"lost %d", i));
    EXPECT_EQ(LostMessageCount(), i);
  }
  EXPECT_FALSE(LogData(4, "x", 1));
  EXPECT_EQ(LostMessageCount(), 4u);

  TestReceiver receiver;
  receiver.HoldPresence();
  receiver.Listen();
  ASSERT_TRUE(IsLogServiceRunning());
  ASSERT_TRUE(Log(4, u"back"));

  const std::vector<Bytes> records = receiver.WaitFor(2);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(TextOf(records[0]), u"back");
  EXPECT_EQ(TextOf(records[1]), u"4 messages lost");
  EXPECT_EQ(logging::DecodeRecordHeader(records[1].data()).level, 0u);
  EXPECT_EQ(LostMessageCount(), 0u);

  // The count was reported once: the next record comes alone.
  ASSERT_TRUE(Log(4, u"again"));
  const std::vector<Bytes> more = receiver.WaitFor(3);
  ASSERT_EQ(more.size(), 3u);
  EXPECT_EQ(TextOf(more[2]), u"again");
}

TEST_F(LogClientTest, WaitsForThePipeWhileTheServiceIsPresent) {
  TestReceiver receiver;
  receiver.HoldPresence();
  std::atomic<bool> sent{false};
  std::thread writer([&] { sent = Log(4, u"patient"); });
  // The service is present but has no pipe yet: the writer keeps waiting instead of dropping.
  platform::SleepMs(300);
  EXPECT_FALSE(sent.load());
  receiver.Listen();
  writer.join();
  EXPECT_TRUE(sent.load());
  const std::vector<Bytes> records = receiver.WaitFor(1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(TextOf(records[0]), u"patient");
}

TEST_F(LogClientTest, GivesUpWhenTheServiceGoesAwayWhileWaiting) {
  TestReceiver receiver;
  receiver.HoldPresence();
  std::atomic<int> result{-1};
  std::thread writer([&] { result = Log(4, u"never") ? 1 : 0; });
  platform::SleepMs(250);
  receiver.ReleasePresence();
  writer.join();
  EXPECT_EQ(result.load(), 0);
  EXPECT_EQ(LostMessageCount(), 1u);
}

}  // namespace
}  // namespace orlenda
