#include "logging/log.h"

#include <atomic>

#include "logging/log_record.h"
#include "platform/errors.h"
#include "platform/pipe.h"
#include "platform/presence.h"
#include "platform/thread.h"

namespace orlenda {
namespace {

constexpr uint32_t kPipeWaitMs = 100;

// Records lost since the last report. Atomic so that concurrent loggers neither race nor tear it;
// a report may still be interleaved with a new loss, which is then counted for the next report.
std::atomic<uint32_t> g_lost_messages{0};

// Opens a connection to the log service, or fails when the service is not running. While the
// service is present but its pipe cannot be opened, waits in steps of kPipeWaitMs.
bool Connect(platform::PipeStream* pipe) {
  if (!IsLogServiceRunning()) return false;
  while (pipe->Open(logging::kLogServicePipeName, /*read_access=*/false) != platform::kErrorSuccess) {
    if (platform::WaitForPipe(logging::kLogServicePipeName, kPipeWaitMs) != platform::kErrorSuccess &&
        !IsLogServiceRunning()) {
      return false;
    }
  }
  pipe->SetReadMode(platform::PipeMode::kMessage);
  return true;
}

// Writes one piece of a record completely. A pipe that the service has already disconnected
// counts as complete: the service has what it is going to take of this record.
bool WriteAll(platform::PipeStream* pipe, const uint8_t* bytes, uint32_t size) {
  while (size > 0) {
    uint32_t written = 0;
    const uint32_t error = pipe->Write(bytes, size, &written);
    if (error == platform::kErrorPipeNotConnected) return true;
    if (error != platform::kErrorSuccess) return false;
    bytes += written;
    size -= written;
  }
  return true;
}

bool SendRecord(uint32_t level, const char16_t* text, std::size_t text_length, const void* data,
                uint32_t data_size) {
  // Header and text go out from one buffer, the text encoded little-endian whatever the host.
  uint8_t buffer[logging::kRecordHeaderSize + kLogTextMax * 2];
  if (text_length > kLogTextMax) text_length = kLogTextMax;

  logging::RecordHeader header;
  header.time = platform::FileTimeNow();
  header.process_id = platform::CurrentProcessId();
  header.thread_id = platform::CurrentThreadId();
  header.kind = logging::kRecordKindMessage;
  header.level = level;
  header.text_length = static_cast<uint32_t>(text_length);
  header.data_length = data == nullptr ? 0 : data_size;
  logging::EncodeRecordHeader(header, buffer);
  uint8_t* text_bytes = buffer + logging::kRecordHeaderSize;
  for (std::size_t i = 0; i < text_length; ++i) {
    text_bytes[2 * i] = static_cast<uint8_t>(text[i]);
    text_bytes[2 * i + 1] = static_cast<uint8_t>(text[i] >> 8);
  }

  platform::PipeStream pipe;
  if (!Connect(&pipe)) {
    g_lost_messages.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  bool ok = WriteAll(&pipe, buffer, logging::kRecordHeaderSize);
  if (ok && header.text_length != 0) {
    ok = WriteAll(&pipe, text_bytes, header.text_length * 2);
  }
  if (ok && header.data_length != 0) {
    ok = WriteAll(&pipe, static_cast<const uint8_t*>(data), header.data_length);
  }
  pipe.Close();
  if (!ok) {
    g_lost_messages.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  return true;
}

// After a record got through, reports the records lost before it. The report goes through Log,
// so that if it is lost in turn it is counted again.
void ReportLostMessages() {
  const uint32_t lost = g_lost_messages.exchange(0, std::memory_order_relaxed);
  if (lost != 0) Log(0, u"%d messages lost", lost);
}

bool SendAndReport(uint32_t level, const char16_t* text, std::size_t text_length, const void* data,
                   uint32_t data_size) {
  const bool sent = SendRecord(level, text, text_length, data, data_size);
  if (sent) ReportLostMessages();
  return sent;
}

}  // namespace

bool LogV(uint32_t level, const char16_t* format, const LogArg* args, std::size_t count) {
  char16_t text[kLogBufferChars];
  const std::size_t length = FormatLogV(text, format, args, count);
  return SendAndReport(level, text, length, nullptr, 0);
}

bool LogData(uint32_t level, const void* data, uint32_t size) {
  return SendAndReport(level, u"", 0, data, size);
}

bool LogDataFormatV(uint32_t level, const void* data, uint32_t size, const char16_t* format,
                    const LogArg* args, std::size_t count) {
  char16_t text[kLogBufferChars];
  const std::size_t length = FormatLogV(text, format, args, count);
  return SendAndReport(level, text, length, data, size);
}

bool IsLogServiceRunning() { return platform::IsPresenceHeld(logging::kLogServiceEventName); }

uint32_t LostMessageCount() { return g_lost_messages.load(std::memory_order_relaxed); }

}  // namespace orlenda
