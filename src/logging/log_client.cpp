#include "logging/log_client.h"

#include <cstring>
#include <utility>

#include "common/log_format.h"
#include "logging/log_record.h"
#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/presence.h"

namespace orlenda::logging {
namespace {

constexpr uint32_t kPipeWaitMs = 100;
constexpr uint32_t kRefusedPauseMs = 10;
// A batch whose connection keeps breaking is dropped after this many connections.
constexpr int kConnectionsPerBatch = 2;
// How long a flush waits for the sender's next sign before it looks again on its own.
constexpr uint32_t kFlushSliceMs = 10;

bool IsLittleEndian() {
  const uint16_t probe = 1;
  uint8_t first = 0;
  std::memcpy(&first, &probe, 1);
  return first == 1;
}

// The text as UTF-16LE, whatever the host.
void EncodeText(const char16_t* text, std::size_t length, uint8_t* out) {
  if (IsLittleEndian()) {
    std::memcpy(out, text, length * 2);
    return;
  }
  for (std::size_t i = 0; i < length; ++i) {
    out[2 * i] = static_cast<uint8_t>(text[i]);
    out[2 * i + 1] = static_cast<uint8_t>(text[i] >> 8);
  }
}

std::size_t RecordSize(const uint8_t* record) {
  const RecordHeader h = DecodeRecordHeader(record);
  return kRecordHeaderSize + std::size_t{h.text_length} * 2 + h.data_length;
}

// The whole records at the start of `bytes`: how many, and how many bytes they take.
uint32_t WholeRecords(const uint8_t* bytes, std::size_t size, std::size_t* whole_bytes) {
  uint32_t count = 0;
  std::size_t at = 0;
  while (size - at >= kRecordHeaderSize) {
    const std::size_t next = RecordSize(bytes + at);
    if (size - at < next) break;
    at += next;
    ++count;
  }
  *whole_bytes = at;
  return count;
}

uint32_t ElapsedSince(uint32_t start) { return platform::TickCountMs() - start; }

}  // namespace

LogClient::LogClient(std::size_t queue_bytes) {
  // Zero-filled blocks from the heap: the system hands out their pages as they are first written.
  filling_ = static_cast<uint8_t*>(platform::HeapAllocZero(queue_bytes / 2));
  sending_ = static_cast<uint8_t*>(platform::HeapAllocZero(queue_bytes / 2));
  // Without both halves nothing is ever queued: every record counts as lost.
  if (filling_ != nullptr && sending_ != nullptr) half_bytes_ = queue_bytes / 2;
  sender_.Start(&LogClient::SenderEntry, this);
}

LogClient::~LogClient() {
  Flush(kStopFlushMs);
  {
    platform::ScopedLock hold(lock_);
    stopping_ = true;
  }
  stop_requested_.store(true);
  wake_.Set();
  sender_.Join();
  platform::HeapFreeBlock(filling_);
  platform::HeapFreeBlock(sending_);
}

bool LogClient::Send(uint32_t level, const char16_t* text, std::size_t text_length, const void* data,
                     uint32_t data_size) {
  RecordHeader header;
  header.time = platform::FileTimeNow();
  header.process_id = platform::CurrentProcessId();
  header.thread_id = platform::CurrentThreadId();
  header.kind = kRecordKindMessage;
  header.level = level;
  header.text_length = static_cast<uint32_t>(text_length < kLogTextMax ? text_length : kLogTextMax);
  header.data_length = data == nullptr ? 0 : data_size;
  const std::size_t text_bytes = std::size_t{header.text_length} * 2;
  const std::size_t total = kRecordHeaderSize + text_bytes + header.data_length;

  bool wake = false;
  {
    platform::ScopedLock hold(lock_);
    if (half_bytes_ - filled_ < total) {
      CountLost(1);
      return false;
    }
    uint8_t* out = filling_ + filled_;
    EncodeRecordHeader(header, out);
    EncodeText(text, header.text_length, out + kRecordHeaderSize);
    if (header.data_length != 0) std::memcpy(out + kRecordHeaderSize + text_bytes, data, header.data_length);
    filled_ += total;
    ++filled_records_;
    ++queued_;
    // The sender is woken only when it waits for records; while it writes, it finds these after.
    wake = sender_idle_;
    sender_idle_ = false;
  }
  if (wake) wake_.Set();
  return true;
}

bool LogClient::Flush(uint32_t timeout_ms) {
  uint64_t target;
  {
    platform::ScopedLock hold(lock_);
    target = queued_;
    if (done_ >= target) return true;
    flush_wanted_ = true;
  }
  wake_.Set();
  const uint32_t start = platform::TickCountMs();
  for (;;) {
    {
      platform::ScopedLock hold(lock_);
      if (done_ >= target) return true;
    }
    const uint32_t elapsed = ElapsedSince(start);
    if (elapsed >= timeout_ms) return false;
    const uint32_t rest = timeout_ms - elapsed;
    progress_.Wait(rest < kFlushSliceMs ? rest : kFlushSliceMs);
  }
}

LogCounters LogClient::counters() const {
  LogCounters c;
  {
    platform::ScopedLock hold(lock_);
    c.queued = queued_;
  }
  c.delivered = delivered_.load();
  c.lost = lost_.load();
  return c;
}

void LogClient::CountLost(uint32_t records) {
  unreported_lost_.fetch_add(records, std::memory_order_relaxed);
  lost_.fetch_add(records, std::memory_order_relaxed);
}

void LogClient::SenderEntry(void* self) { static_cast<LogClient*>(self)->SenderLoop(); }

void LogClient::SenderLoop() {
  for (;;) {
    uint32_t wait_ms = platform::kInfinite;
    std::size_t size = 0;
    uint32_t records = 0;
    {
      platform::ScopedLock hold(lock_);
      // While the service is absent, records wait for the next try unless someone wants them now.
      bool hold_back = false;
      if (retry_pending_ && !flush_wanted_ && !stopping_) {
        const uint32_t since = ElapsedSince(last_failure_);
        if (since < kRetryMs) {
          hold_back = true;
          wait_ms = kRetryMs - since;
        }
      }
      if (filled_ == 0 && stopping_) break;
      if (filled_ != 0 && !hold_back) {
        std::swap(filling_, sending_);
        size = filled_;
        records = filled_records_;
        filled_ = 0;
        filled_records_ = 0;
        flush_wanted_ = false;
      } else if (filled_ == 0) {
        // Nothing left for a flush to hurry; wait for records.
        sender_idle_ = true;
        flush_wanted_ = false;
        wait_ms = platform::kInfinite;
      }
    }
    if (records == 0) {
      wake_.Wait(wait_ms);
      continue;
    }
    Deliver(sending_, size, records);
    {
      platform::ScopedLock hold(lock_);
      done_ += records;
    }
    progress_.Set();
  }
  pipe_.Close();
}

void LogClient::Deliver(const uint8_t* bytes, std::size_t size, uint32_t records) {
  int connections = 0;
  std::size_t at = 0;
  while (at < size) {
    if (!pipe_.is_open()) {
      if (connections == kConnectionsPerBatch || !Connect()) {
        CountLost(records);
        retry_pending_ = true;
        last_failure_ = platform::TickCountMs();
        return;
      }
      ++connections;
      retry_pending_ = false;
    }
    // After a loss, the first record goes out alone and the report right behind it.
    const bool report = unreported_lost_.load(std::memory_order_relaxed) != 0;
    const std::size_t end = report ? at + RecordSize(bytes + at) : size;
    std::size_t written = 0;
    const bool ok = WriteAll(bytes + at, end - at, &written);
    std::size_t whole = 0;
    const uint32_t sent = WholeRecords(bytes + at, written, &whole);
    delivered_.fetch_add(sent, std::memory_order_relaxed);
    records -= sent;
    at += whole;
    if (!ok) {
      pipe_.Close();
      if (written != whole) {  // the service has a piece of this one: it is lost
        at += RecordSize(bytes + at);
        --records;
        CountLost(1);
      }
      continue;
    }
    if (report && !WriteLossReport()) pipe_.Close();
  }
}

bool LogClient::Connect() {
  if (!platform::IsPresenceHeld(kLogServiceEventName)) return false;
  while (pipe_.Open(kLogServicePipeName, /*read_access=*/false) != platform::kErrorSuccess) {
    if (stop_requested_.load()) return false;
    const uint32_t start = platform::TickCountMs();
    if (platform::WaitForPipe(kLogServicePipeName, kPipeWaitMs) != platform::kErrorSuccess) {
      if (!platform::IsPresenceHeld(kLogServiceEventName)) return false;
    } else if (ElapsedSince(start) < kRefusedPauseMs) {
      platform::SleepMs(kRefusedPauseMs);  // the pipe is there but refused us: no spinning
    }
  }
  pipe_.SetReadMode(platform::PipeMode::kMessage);
  return true;
}

bool LogClient::WriteAll(const uint8_t* bytes, std::size_t size, std::size_t* written) {
  *written = 0;
  while (*written < size) {
    const std::size_t rest = size - *written;
    // One call takes at most 1 MiB, so that the count fits the pipe's 32-bit sizes.
    const uint32_t piece = static_cast<uint32_t>(rest < (1u << 20) ? rest : (1u << 20));
    uint32_t done = 0;
    if (pipe_.Write(bytes + *written, piece, &done) != platform::kErrorSuccess) return false;
    *written += done;
  }
  return true;
}

bool LogClient::WriteLossReport() {
  const uint32_t lost = unreported_lost_.exchange(0, std::memory_order_relaxed);
  if (lost == 0) return true;
  uint8_t record[kRecordHeaderSize + kLogBufferChars * 2];
  char16_t text[kLogBufferChars];
  RecordHeader header;
  header.time = platform::FileTimeNow();
  header.process_id = platform::CurrentProcessId();
  header.thread_id = platform::CurrentThreadId();
  header.level = 0;
  header.text_length = static_cast<uint32_t>(FormatLog(text, u"%d messages lost", lost));
  EncodeRecordHeader(header, record);
  EncodeText(text, header.text_length, record + kRecordHeaderSize);
  std::size_t written = 0;
  if (WriteAll(record, kRecordHeaderSize + std::size_t{header.text_length} * 2, &written)) return true;
  // Not reported after all: the count waits for the next record that gets through.
  unreported_lost_.fetch_add(lost, std::memory_order_relaxed);
  return false;
}

}  // namespace orlenda::logging
