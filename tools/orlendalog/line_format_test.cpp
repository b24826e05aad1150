#include "line_format.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "platform/thread.h"

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

}  // namespace
}  // namespace orlenda::logservice
