#include "line_format.h"

#include <cstdio>

#include "platform/thread.h"

namespace orlenda::logservice {
namespace {

void AppendTime(HeapString* line, uint64_t filetime) {
  const platform::LocalTime t = platform::ToLocalTime(filetime);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.year, t.month, t.day, t.hour,
                t.minute, t.second, t.millisecond);
  line->append(buffer);
}

// Appends the text as UTF-8 with control characters escaped.
void AppendText(HeapString* line, WStringView text) {
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    const bool end = i == text.size();
    if (!end && text[i] >= 0x20 && text[i] != 0x7f) continue;
    line->append(WideToUtf8(text.substr(start, i - start)));
    start = i + 1;
    if (end) break;
    switch (text[i]) {
      case u'\r': line->append("\\r"); break;
      case u'\n': line->append("\\n"); break;
      case u'\t': line->append("\\t"); break;
      default: {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(text[i]));
        line->append(escaped);
      }
    }
  }
}

void AppendData(HeapString* line, const uint8_t* data, uint32_t size) {
  static const char kHex[] = "0123456789abcdef";
  char head[40];
  std::snprintf(head, sizeof head, " [%u bytes:", size);
  line->append(head);
  line->reserve(line->size() + size * 3 + 2);
  for (uint32_t i = 0; i < size; ++i) {
    line->push_back(' ');
    line->push_back(kHex[data[i] >> 4]);
    line->push_back(kHex[data[i] & 0xf]);
  }
  line->push_back(']');
}

}  // namespace

HeapString FormatRecordLine(const logging::RecordHeader& header, WStringView text, const uint8_t* data,
                            uint32_t data_size) {
  HeapString line;
  AppendTime(&line, header.time);
  char ids[80];
  std::snprintf(ids, sizeof ids, " pid %u tid %u L%u ", header.process_id, header.thread_id, header.level);
  line.append(ids);
  if (header.kind != logging::kRecordKindMessage) {
    char kind[24];
    std::snprintf(kind, sizeof kind, "(kind %u) ", header.kind);
    line.append(kind);
  }
  AppendText(&line, text);
  if (data_size != 0) AppendData(&line, data, data_size);
  line.push_back('\n');
  return line;
}

HeapString FormatNoticeLine(uint64_t filetime, const char* notice) {
  HeapString line;
  AppendTime(&line, filetime);
  line.append(" orlendalog: ");
  line.append(notice);
  line.push_back('\n');
  return line;
}

}  // namespace orlenda::logservice
