// Benchmark of tracing on the request path. Reports, without pass or fail, in the calling thread:
//  - the trace formatter on the two lines a Write traces;
//  - one Log call (format and queue) of such a line;
//  - one 16-byte Write through the port layer (CSKConnection::Write) to the loopback module, which
//    traces two records ("->" with the data, "<-"), in process.
// After each part it flushes the log client and prints what became of the records: delivered to
// the log service, or lost (queue full, service absent). Whether a log service runs is up to the
// caller (bench/log_bench.sh runs this once with orlendalog up and once without); the folders are
// $ORLENDA_RUN_DIR and $ORLENDA_DATA_DIR, fresh temporary ones when those are not set.
//   trace_bench [WRITES]   200000 unless given
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/blob.h"
#include "common/log_format.h"
#include "components/configuration.h"
#include "logging/log.h"
#include "ports/sk_connection.h"
#include "scratch_folders.h"
#include "settings/property_handler.h"
#include "skein/protocol.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRuns = 5;

// Runs `body` `count` times per run and returns the best run's nanoseconds per call.
template <class Body>
double BestNanos(uint32_t count, Body body) {
  double best = 1e300;
  for (int run = 0; run < kRuns; ++run) {
    const Clock::time_point start = Clock::now();
    for (uint32_t i = 0; i < count; ++i) body(i);
    const double ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count() / count;
    if (ns < best) best = ns;
  }
  return best;
}

// Prints what became of the `traced` records traced since `before`.
void ReportRecords(const logging::LogCounters& before, uint64_t traced) {
  const bool settled = FlushLog(60000);
  const logging::LogCounters now = LogCountersNow();
  std::printf("    records: %llu traced, %llu delivered, %llu lost%s\n", static_cast<unsigned long long>(traced),
              static_cast<unsigned long long>(now.delivered - before.delivered),
              static_cast<unsigned long long>(now.lost - before.lost), settled ? "" : " (still queued after 60 s)");
}

bool LoadLoopback() {
  {
    CPropertyHandler store{WString(u"Orlenda.configuration")};
    if (!store.SetString(u"/components/loopback/filename", ORLENDA_LOOPBACK_MODULE) ||
        !store.SetString(u"/stack/loop/loopback/note", u"")) {
      return false;
    }
  }
  if (!CConfiguration::Load()) return false;
  return CConfiguration::WithProperties([](CPropertyHandler& s) { return s.SetString(u"loop/dev1/model", u"any"); });
}

int Run(uint32_t writes) {
  bench::UseScratchFolders();
  std::printf("log service %s\n", IsLogServiceRunning() ? "running" : "not running");

  char16_t text[kLogBufferChars];
  const double format_in = BestNanos(writes, [&](uint32_t i) { FormatLog(text, u"-> %08x::Write(%d)", 0x12345678u + i, 1); });
  const double format_out = BestNanos(writes, [&](uint32_t i) {
    FormatLog(text, u"<- %08x::Write(%d, %d) <%08x>", 0x12345678u + i, 1, 16, 0u);
  });
  std::printf("format \"-> %%08x::Write(%%d)\"                 %7.0f ns\n", format_in);
  std::printf("format \"<- %%08x::Write(%%d, %%d) <%%08x>\"       %7.0f ns\n", format_out);

  logging::LogCounters before = LogCountersNow();
  const double log_call = BestNanos(writes, [](uint32_t i) { Log(4, u"<- %08x::Write(%d, %d) <%08x>", 0x12345678u + i, 1, 16, 0u); });
  std::printf("Log(\"<- %%08x::Write(%%d, %%d) <%%08x>\")         %7.0f ns\n", log_call);
  ReportRecords(before, uint64_t{writes} * kRuns);

  if (!LoadLoopback()) {
    std::fprintf(stderr, "trace_bench: cannot load the loopback configuration\n");
    return 1;
  }
  LocalConnection connection;
  WString name(u"loop/dev1");
  if (connection.Open(&name) != 0) {
    std::fprintf(stderr, "trace_bench: cannot open loop/dev1\n");
    return 1;
  }
  // Writes need the port's lock.
  BlobRef lock_output;
  if (connection.Ioctl(SK_PORT_LOCK, BlobRef::Adopt(DwordBlobCreate(1)), &lock_output) != SKR_SUCCESS) {
    std::fprintf(stderr, "trace_bench: cannot lock loop/dev1\n");
    return 1;
  }
  const BlobRef data = BlobRef::Adopt(BlobCopy("0123456789abcdef", 16));
  before = LogCountersNow();
  uint32_t failed = 0;
  const double write = BestNanos(writes, [&](uint32_t) {
    uint32_t written = 0;
    failed += connection.Write(data, &written) != 0 || written != 16;
  });
  std::printf("CSKConnection::Write, 16 bytes, loopback     %7.0f ns%s\n", write, failed != 0 ? " (writes failed!)" : "");
  ReportRecords(before, uint64_t{writes} * kRuns * 2);
  connection.Close();
  CConfiguration::Unload();
  return failed == 0 ? 0 : 1;
}

}  // namespace
}  // namespace orlenda

int main(int argc, char** argv) {
  const uint32_t writes = argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : 200000;
  return orlenda::Run(writes == 0 ? 1 : writes);
}
