// logsend: sends trace records to the log service through the log client, the way the broker
// does. Used by the demo, the end-to-end tests and the benchmark.
//
//   logsend [-level N] [-count N] [-data HEX] [-retry-ms N] [-queue-mb N] [-exit-now] FORMAT
//
// FORMAT is a trace format; %d takes the record's number (1, 2, ...). With -data the bytes are
// attached to every record. Records are queued as fast as the client takes them, then delivered
// (the wait for delivery is bounded); logsend reports how many got through and how fast. With
// -retry-ms, each record is delivered before the next is traced, and one that does not get through
// is traced again every 100 ms for up to that long, so a writer started before the log service
// shows the lost count. -queue-mb sets the client's queue. -exit-now returns right after queuing,
// leaving delivery to the client's exit flush. Exits 0 when every record was delivered.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/wide_string.h"
#include "logging/log.h"
#include "platform/thread.h"

namespace {

// The longest wait for the queue to drain at the end.
constexpr uint32_t kDeliveryWaitMs = 60000;

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
  std::fprintf(stderr,
               "usage: logsend [-level N] [-count N] [-data HEX] [-retry-ms N] [-queue-mb N] [-exit-now] FORMAT\n");
  return 2;
}

struct Options {
  unsigned long level = 4;
  unsigned long count = 1;
  unsigned long retry_ms = 0;
  unsigned long queue_mb = 0;
  bool exit_now = false;
  std::vector<uint8_t> data;
  orlenda::WString format;
};

void Trace(const Options& o, unsigned long n) {
  if (o.data.empty()) {
    orlenda::Log(o.level, o.format.c_str(), n);
  } else {
    orlenda::LogDataFormat(o.level, o.data.data(), static_cast<uint32_t>(o.data.size()), o.format.c_str(), n);
  }
}

uint64_t Delivered() { return orlenda::LogCountersNow().delivered; }

// Traces record `n` until it is delivered or `retry_ms` has passed.
bool TraceUntilDelivered(const Options& o, unsigned long n) {
  for (unsigned long waited = 0;; waited += 100) {
    const uint64_t before = Delivered();
    Trace(o, n);
    orlenda::FlushLog(kDeliveryWaitMs);
    if (Delivered() > before) return true;
    if (waited >= o.retry_ms) return false;
    orlenda::platform::SleepMs(100);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  const char* format = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "-level" && has_value) {
      o.level = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "-count" && has_value) {
      o.count = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "-retry-ms" && has_value) {
      o.retry_ms = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "-queue-mb" && has_value) {
      o.queue_mb = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "-exit-now") {
      o.exit_now = true;
    } else if (arg == "-data" && has_value) {
      if (!ParseHex(argv[++i], &o.data)) return Usage();
    } else if (format == nullptr && (arg.empty() || arg[0] != '-')) {
      format = argv[i];
    } else {
      return Usage();
    }
  }
  if (format == nullptr) return Usage();
  o.format = orlenda::Utf8ToWide(format);
  if (o.queue_mb != 0) orlenda::SetLogQueueBytes(o.queue_mb << 20);

  const uint32_t start = orlenda::platform::TickCountMs();
  unsigned long sent = 0;
  if (o.retry_ms != 0) {
    for (unsigned long n = 1; n <= o.count; ++n) sent += TraceUntilDelivered(o, n) ? 1 : 0;
  } else {
    for (unsigned long n = 1; n <= o.count; ++n) Trace(o, n);
    if (o.exit_now) {
      std::printf("logsend: %lu records queued\n", o.count);
      return 0;
    }
    orlenda::FlushLog(kDeliveryWaitMs);
    sent = static_cast<unsigned long>(Delivered());
  }
  const uint32_t elapsed = orlenda::platform::TickCountMs() - start;
  std::printf("logsend: %lu of %lu records sent in %u ms (%.0f records/s)\n", sent, o.count, elapsed,
              elapsed == 0 ? 0.0 : sent * 1000.0 / elapsed);
  return sent == o.count ? 0 : 1;
}
