// The log client: every trace of the system goes through here to the log service.
//
// The record format, the names of the service's pipe and presence object, the levels and the
// texts are the log service's; how records travel is this client's own. A trace call builds its
// record at once (the time, process id and thread id are the caller's, taken at the call) and
// hands it to a bounded in-memory queue; it never waits for the log service, makes no system call
// for the service's presence or its pipe, and never blocks: when the queue is full the record is
// dropped and counted as lost. One sender thread, started with the first trace, delivers the
// queue in order over one pipe connection that carries many records back to back, and connects
// again when that connection breaks; it tests the service's presence once per connection attempt,
// not per record (see log_client.h). While the service is absent, records are dropped and counted;
// after the next record that gets through, "%d messages lost" follows at level 0 with that count.
// Level 0 is for failures, 4 for ordinary traces.
//
// What is queued when the process exits is delivered first, for at most kExitFlushMs; a service
// that stops calls FlushLog itself, so that its last lines are not lost.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/log_format.h"
#include "logging/log_client.h"

namespace orlenda {

bool LogV(uint32_t level, const char16_t* format, const LogArg* args, std::size_t count);
bool LogDataFormatV(uint32_t level, const void* data, uint32_t size, const char16_t* format,
                    const LogArg* args, std::size_t count);

// Log(level, format, ...): formats as described in log_format.h, queues the text with no data.
// The sending operations return whether their record was queued; callers are free to ignore it.
template <class... A>
bool Log(uint32_t level, const char16_t* format, const A&... args) {
  const LogArg list[] = {LogArg(args)..., LogArg()};
  return LogV(level, format, list, sizeof...(A));
}

// Queues an empty text with the given data.
bool LogData(uint32_t level, const void* data, uint32_t size);

// Formats as Log does and queues the text together with the data.
template <class... A>
bool LogDataFormat(uint32_t level, const void* data, uint32_t size, const char16_t* format,
                   const A&... args) {
  const LogArg list[] = {LogArg(args)..., LogArg()};
  return LogDataFormatV(level, data, size, format, list, sizeof...(A));
}

// Waits until every record queued before the call has been delivered or dropped, for at most
// `timeout_ms`; when the service was found absent a moment ago, it is tried again at once. True
// when nothing is left.
bool FlushLog(uint32_t timeout_ms);

constexpr uint32_t kExitFlushMs = 1000;

// The queue's size in bytes; kDefaultLogQueueBytes unless set before the first trace. False
// (and no change) once tracing has begun.
constexpr std::size_t kDefaultLogQueueBytes = 4u << 20;
bool SetLogQueueBytes(std::size_t bytes);

// Whether the log service's presence object exists.
bool IsLogServiceRunning();

// The number of records lost since the last "messages lost" report. It first settles the queue
// (FlushLog for at most kSettleMs), so that what was traced before the call is counted.
constexpr uint32_t kSettleMs = 2000;
uint32_t LostMessageCount();

// Totals since the process began tracing.
logging::LogCounters LogCountersNow();

}  // namespace orlenda
