// The log client's engine: a bounded queue of finished records and one sender thread that delivers
// them to the log service. log.h puts one of these behind the trace calls of the whole process;
// tests make their own with other queue sizes.
//
// A tracing thread builds its record completely (time, process id, thread id, level, text, data,
// all taken at the call) and copies it into the queue under a lock held only for that copy. It
// never waits for the log service and makes no system call for the service's presence or its
// pipe; when the queue has no room the record is dropped and counted as lost.
//
// The sender takes everything queued at once and writes it, records back to back, over one pipe
// connection that it keeps open. It connects when it has records and no connection: it tests the
// presence object once for that attempt, opens the pipe, and while the service is present but its
// pipe is busy or not yet there, waits for the pipe in steps of 100 ms. A write that fails closes
// the connection: the record it cut short is lost, the records not yet begun go out over a new
// connection. While the service is absent the records taken are dropped and counted, and the
// next attempt comes no sooner than kRetryMs later (records that arrive meanwhile wait for it), or
// at once when someone flushes. After records were lost, the first record that goes out is
// followed by "%d messages lost" at level 0 with the count, written by the sender.
//
// Lock order: lock_ only; no system call and no call out is made while holding it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/pipe.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace orlenda::logging {

struct LogCounters {
  uint64_t queued = 0;     // records taken into the queue
  uint64_t delivered = 0;  // records written whole to the log service
  uint64_t lost = 0;       // records dropped: queue full, service absent, or cut by a failed write
};

class LogClient {
 public:
  // Between two tries to reach an absent log service.
  static constexpr uint32_t kRetryMs = 100;

  // At most `queue_bytes` of records wait: half fills while the sender writes the other half. A
  // record longer than half the queue is never queued. Starts the sender thread.
  explicit LogClient(std::size_t queue_bytes);
  // Delivers what is queued (as Flush with kStopFlushMs) and ends the sender.
  ~LogClient();
  LogClient(const LogClient&) = delete;
  LogClient& operator=(const LogClient&) = delete;

  // Queues one record: `text` (cut to the trace formatter's 1023 units) and, when `data` is not
  // null, `data_size` bytes. False when there was no room; the record then counts as lost.
  bool Send(uint32_t level, const char16_t* text, std::size_t text_length, const void* data,
            uint32_t data_size);

  // Waits until every record queued before the call is delivered or dropped, or `timeout_ms`
  // passed; a sender waiting to retry an absent service tries at once. True when all is done.
  bool Flush(uint32_t timeout_ms);

  // Records lost and not yet reported to the log service.
  uint32_t unreported_lost() const { return unreported_lost_.load(std::memory_order_relaxed); }
  LogCounters counters() const;

  static constexpr uint32_t kStopFlushMs = 2000;

 private:
  static void SenderEntry(void* self);
  void SenderLoop();
  // Writes one batch of whole records, connecting as needed.
  void Deliver(const uint8_t* bytes, std::size_t size, uint32_t records);
  bool Connect();
  // Writes `size` bytes; *written tells how many went out before a failure.
  bool WriteAll(const uint8_t* bytes, std::size_t size, std::size_t* written);
  // Writes the "messages lost" record; false when the connection broke.
  bool WriteLossReport();
  void CountLost(uint32_t records);

  // Guarded by lock_.
  mutable platform::CriticalSection lock_;
  std::size_t half_bytes_ = 0;
  uint8_t* filling_ = nullptr;  // the half the tracing threads write into
  std::size_t filled_ = 0;
  uint32_t filled_records_ = 0;
  uint64_t queued_ = 0;  // records ever queued
  uint64_t done_ = 0;    // of those, delivered or dropped
  bool sender_idle_ = false;
  bool flush_wanted_ = false;
  bool stopping_ = false;

  // The sender's own.
  uint8_t* sending_ = nullptr;
  platform::PipeStream pipe_;
  bool retry_pending_ = false;  // the service was absent at the last try, at this tick
  uint32_t last_failure_ = 0;

  std::atomic<bool> stop_requested_{false};
  std::atomic<uint32_t> unreported_lost_{0};
  std::atomic<uint64_t> delivered_{0};
  std::atomic<uint64_t> lost_{0};
  platform::Event wake_{platform::ResetMode::kAuto};      // records, a flush or the stop for the sender
  platform::Event progress_{platform::ResetMode::kAuto};  // a batch is done
  platform::Thread sender_;
};

}  // namespace orlenda::logging
