// logsend: sends trace records to the log service through the log client, the way the broker
// does. Used by the demo and the end-to-end tests.
//
//   logsend [-level N] [-count N] [-data HEX] [-retry-ms N] FORMAT
//
// FORMAT is a trace format; %d takes the record's number (1, 2, ...). With -data the bytes are
// attached to every record. With -retry-ms, a record that does not get through is tried again every
// 100 ms for up to that long, so a writer started before the log service shows the lost count.
// Exits 0 when every record was sent.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/wide_string.h"
#include "logging/log.h"
#include "platform/thread.h"

namespace {

bool ParseHex(const char* text, std::vector<uint8_t>* bytes) {
  const std::size_t length = std::strlen(text);
  if (length % 2 != 0) return false;
  for (std::size_t i = 0; i < length; i += 2) {
    char pair[3] = {text[i], text[i + 1], '\0'};
    char* end = nullptr;
    const unsigned long value = std::strtoul(pair, &end, 16);
    if (*end != '\0') return false;
    bytes->push_back(static_cast<uint8_t>(value));
  }
  return true;
}

int Usage() {
  std::fprintf(stderr, "usage: logsend [-level N] [-count N] [-data HEX] [-retry-ms N] FORMAT\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long level = 4;
  unsigned long count = 1;
  unsigned long retry_ms = 0;
  std::vector<uint8_t> data;
  const char* format = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "-level" && has_value) {
      level = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "-count" && has_value) {
      count = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "-retry-ms" && has_value) {
      retry_ms = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "-data" && has_value) {
      if (!ParseHex(argv[++i], &data)) return Usage();
    } else if (format == nullptr && (arg.empty() || arg[0] != '-')) {
      format = argv[i];
    } else {
      return Usage();
    }
  }
  if (format == nullptr) return Usage();

  const orlenda::WString wide_format = orlenda::Utf8ToWide(format);
  unsigned long sent = 0;
  for (unsigned long n = 1; n <= count; ++n) {
    for (unsigned long waited = 0;; waited += 100) {
      const bool ok = data.empty()
                          ? orlenda::Log(level, wide_format.c_str(), n)
                          : orlenda::LogDataFormat(level, data.data(), static_cast<uint32_t>(data.size()),
                                                   wide_format.c_str(), n);
      if (ok) {
        ++sent;
        break;
      }
      if (waited >= retry_ms) break;
      orlenda::platform::SleepMs(100);
    }
  }
  std::printf("logsend: %lu of %lu records sent\n", sent, count);
  return sent == count ? 0 : 1;
}
