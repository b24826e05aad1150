#include "logging/log.h"

#include <atomic>
#include <cstdlib>

#include "common/heap.h"
#include "logging/log_record.h"
#include "platform/presence.h"

namespace orlenda {
namespace {

std::atomic<std::size_t> g_queue_bytes{kDefaultLogQueueBytes};
std::atomic<bool> g_started{false};

// Runs before the objects made before the first trace are destroyed, and (on Windows) before
// ExitProcess ends the sender thread.
void FlushAtExit() { FlushLog(kExitFlushMs); }

logging::LogClient* MakeClient() {
  g_started.store(true);
  // Never destroyed: the sender may still be writing while the process ends, and traces from
  // destructors that run after the exit flush still find a client to take them.
  logging::LogClient* client = HeapNew<logging::LogClient>(g_queue_bytes.load());
  if (client != nullptr) std::atexit(&FlushAtExit);
  return client;
}

logging::LogClient* Client() {
  static logging::LogClient* const client = MakeClient();
  return client;
}

bool Send(uint32_t level, const char16_t* text, std::size_t length, const void* data, uint32_t size) {
  logging::LogClient* client = Client();
  return client != nullptr && client->Send(level, text, length, data, size);
}

}  // namespace

bool LogV(uint32_t level, const char16_t* format, const LogArg* args, std::size_t count) {
  char16_t text[kLogBufferChars];
  const std::size_t length = FormatLogV(text, format, args, count);
  return Send(level, text, length, nullptr, 0);
}

bool LogData(uint32_t level, const void* data, uint32_t size) { return Send(level, u"", 0, data, size); }

bool LogDataFormatV(uint32_t level, const void* data, uint32_t size, const char16_t* format,
                    const LogArg* args, std::size_t count) {
  char16_t text[kLogBufferChars];
  const std::size_t length = FormatLogV(text, format, args, count);
  return Send(level, text, length, data, size);
}

bool FlushLog(uint32_t timeout_ms) {
  if (!g_started.load()) return true;
  logging::LogClient* client = Client();
  return client == nullptr || client->Flush(timeout_ms);
}

bool SetLogQueueBytes(std::size_t bytes) {
  if (g_started.load()) return false;
  g_queue_bytes.store(bytes);
  return true;
}

bool IsLogServiceRunning() { return platform::IsPresenceHeld(logging::kLogServiceEventName); }

uint32_t LostMessageCount() {
  if (!g_started.load()) return 0;
  logging::LogClient* client = Client();
  if (client == nullptr) return 0;
  client->Flush(kSettleMs);
  return client->unreported_lost();
}

logging::LogCounters LogCountersNow() {
  if (!g_started.load()) return {};
  logging::LogClient* client = Client();
  return client == nullptr ? logging::LogCounters{} : client->counters();
}

}  // namespace orlenda
