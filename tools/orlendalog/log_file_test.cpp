// The log's files: how records and notices become lines, and the rotating file they go to.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "line_format.h"
#include "platform/thread.h"
#include "rotating_file.h"
#include "support/scratch_names.h"
#include "support/store_files.h"

namespace orlenda::logservice {
namespace {

std::string TimeText(uint64_t filetime) {
  const platform::LocalTime t = platform::ToLocalTime(filetime);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.year, t.month, t.day, t.hour,
                t.minute, t.second, t.millisecond);
  return buffer;
}

std::string Str(const HeapString& s) { return std::string(s.data(), s.size()); }

TEST(LineFormat, RecordsAndNoticesBecomeOneLineEach) {
  logging::RecordHeader h{platform::FileTimeNow(), 12, 345};  // a message at level 0
  const uint8_t data[] = {0x00, 0xab, 0x7f};
  const std::u16string text = u"a\r\nb\t\x01" + std::u16string(1, u'\0') + u"z \u00e9";
  const std::string line = Str(FormatRecordLine(h, text, data, sizeof data));
  EXPECT_EQ(line, TimeText(h.time) + " pid 12 tid 345 L0 a\\r\\nb\\t\\x01\\x00z \xc3\xa9 [3 bytes: 00 ab 7f]\n");
  // No data part without data; the kind is shown for requests. 1601 is still a valid time.
  h = {0, 12, 345, 3, 4};
  const std::string request = Str(FormatRecordLine(h, u"text", nullptr, 0));
  EXPECT_EQ(request.substr(request.find(" pid")), " pid 12 tid 345 L4 (kind 3) text\n");
  const std::string notice = Str(FormatNoticeLine(h.time, "short record header: 3 of 32 bytes"));
  EXPECT_EQ(notice.substr(notice.find(" orlendalog")), " orlendalog: short record header: 3 of 32 bytes\n");
}

using testing::ReadBytes;
// Each test's files in a folder two levels below a fresh one: Open makes the missing folders.
using RotatingFileTest = testing::ScratchNameTest;

// Lines of 20 bytes, five to a file of 100: the current file and `keep` old ones hold the newest
// 5 * (keep + 1) lines, each file whole; with none kept the file starts over.
TEST_F(RotatingFileTest, RotatesAtTheLimitAndKeepsTheNewestLinesWhole) {
  for (int keep : {0, 2}) {
    const std::filesystem::path folder = dir_ / "rotating" / std::to_string(keep);
    RotatingFile file;
    ASSERT_TRUE(file.Open(folder, "Test", 100, keep));
    std::string expected;
    for (int i = 0; i < 30; ++i) {
      char line[32];
      ASSERT_EQ(std::snprintf(line, sizeof line, "line %03d ----------\n", i), 20);
      ASSERT_TRUE(file.Append(line));
      if (i >= 25 - 5 * keep) expected += line;
    }
    ASSERT_TRUE(file.Flush());
    std::string kept;
    for (int n = keep; n >= 0; --n) kept += ReadBytes(folder / (n ? "Test." + std::to_string(n) + ".log" : "Test.log"));
    EXPECT_EQ(kept, expected) << keep;
    EXPECT_FALSE(std::filesystem::exists(folder / ("Test." + std::to_string(keep + 1) + ".log"))) << keep;
  }
}

TEST_F(RotatingFileTest, AppendsToAnExistingFileAndGivesAnOversizedLineAFileOfItsOwn) {
  const std::filesystem::path folder = dir_ / "rotating" / "reopen";
  {
    RotatingFile file;
    ASSERT_TRUE(file.Open(folder, "Test", 50, 1));
    ASSERT_TRUE(file.Append("first\n"));
  }
  RotatingFile file;
  ASSERT_TRUE(file.Open(folder, "Test", 50, 1));
  ASSERT_TRUE(file.Append("second\n"));
  // Lines wait in the buffer until the next flush.
  EXPECT_EQ(ReadBytes(folder / "Test.log"), "first\n");
  ASSERT_TRUE(file.Flush());
  EXPECT_EQ(ReadBytes(folder / "Test.log"), "first\nsecond\n");

  const std::string big(80, 'x');
  ASSERT_TRUE(file.Append(big + "\n"));
  ASSERT_TRUE(file.Flush());
  EXPECT_EQ(ReadBytes(folder / "Test.1.log"), "first\nsecond\n");
  EXPECT_EQ(ReadBytes(folder / "Test.log"), big + "\n");
  ASSERT_TRUE(file.Append("after\n"));
  ASSERT_TRUE(file.Flush());
  EXPECT_EQ(ReadBytes(folder / "Test.1.log"), big + "\n");
  EXPECT_EQ(ReadBytes(folder / "Test.log"), "after\n");
}

}  // namespace
}  // namespace orlenda::logservice
