#include "line_format.h"

#include "platform/thread.h"

namespace orlenda::logservice {
namespace {

constexpr uint64_t kFileTimePerSecond = 10000000;
constexpr uint64_t kFileTimePerMs = 10000;

// Appends `value` in decimal, at least `width` digits (zero-padded).
void AppendNumber(HeapString* line, uint32_t value, int width = 1) {
  char digits[10];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n < width) digits[n++] = '0';
  while (n > 0) line->push_back(digits[--n]);
}

// "YYYY-MM-DD HH:MM:SS" of the last second converted; records come many to a second, and local
// time changes only at whole seconds, so one conversion serves them all.
struct SecondText {
  uint64_t second = ~0ull;
  HeapString text;
};

void AppendTime(HeapString* line, uint64_t filetime) {
  thread_local SecondText last;
  const uint64_t second = filetime / kFileTimePerSecond;
  if (second != last.second) {
    const platform::LocalTime t = platform::ToLocalTime(second * kFileTimePerSecond);
    last.text.clear();
    AppendNumber(&last.text, t.year, 4);
    last.text.push_back('-');
    AppendNumber(&last.text, t.month, 2);
    last.text.push_back('-');
    AppendNumber(&last.text, t.day, 2);
    last.text.push_back(' ');
    AppendNumber(&last.text, t.hour, 2);
    last.text.push_back(':');
    AppendNumber(&last.text, t.minute, 2);
    last.text.push_back(':');
    AppendNumber(&last.text, t.second, 2);
    last.second = second;
  }
  line->append(last.text);
  line->push_back('.');
  AppendNumber(line, static_cast<uint32_t>(filetime % kFileTimePerSecond / kFileTimePerMs), 3);
}

// Appends the text as UTF-8 with control characters escaped. Plain ASCII, nearly all of a trace,
// is copied as it is.
void AppendText(HeapString* line, WStringView text) {
  static const char kHex[] = "0123456789abcdef";
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    const bool end = i == text.size();
    if (!end && text[i] >= 0x20 && text[i] != 0x7f) continue;
    bool ascii = true;
    for (std::size_t k = start; k < i && ascii; ++k) ascii = text[k] < 0x80;
    if (ascii) {
      for (std::size_t k = start; k < i; ++k) line->push_back(static_cast<char>(text[k]));
    } else {
      line->append(WideToUtf8(text.substr(start, i - start)));
    }
    start = i + 1;
    if (end) break;
    switch (text[i]) {
      case u'\r': line->append("\\r"); break;
      case u'\n': line->append("\\n"); break;
      case u'\t': line->append("\\t"); break;
      default:
        line->append("\\x");
        line->push_back(kHex[(text[i] >> 4) & 0xf]);
        line->push_back(kHex[text[i] & 0xf]);
    }
  }
}

void AppendData(HeapString* line, const uint8_t* data, uint32_t size) {
  static const char kHex[] = "0123456789abcdef";
  line->append(" [");
  AppendNumber(line, size);
  line->append(" bytes:");
  line->reserve(line->size() + size * 3 + 2);
  for (uint32_t i = 0; i < size; ++i) {
    line->push_back(' ');
    line->push_back(kHex[data[i] >> 4]);
    line->push_back(kHex[data[i] & 0xf]);
  }
  line->push_back(']');
}

}  // namespace

void AppendRecordLine(HeapString* line, const logging::RecordHeader& header, WStringView text,
                      const uint8_t* data, uint32_t data_size) {
  AppendTime(line, header.time);
  line->append(" pid ");
  AppendNumber(line, header.process_id);
  line->append(" tid ");
  AppendNumber(line, header.thread_id);
  line->append(" L");
  AppendNumber(line, header.level);
  line->push_back(' ');
  if (header.kind != logging::kRecordKindMessage) {
    line->append("(kind ");
    AppendNumber(line, header.kind);
    line->append(") ");
  }
  AppendText(line, text);
  if (data_size != 0) AppendData(line, data, data_size);
  line->push_back('\n');
}

HeapString FormatRecordLine(const logging::RecordHeader& header, WStringView text, const uint8_t* data,
                            uint32_t data_size) {
  HeapString line;
  AppendRecordLine(&line, header, text, data, data_size);
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
