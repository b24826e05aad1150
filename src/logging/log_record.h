// The record format of the log service, shared by the log client and the log service.
//
// One record: a 32-byte header, then the text (UTF-16LE, no terminator), then the data bytes.
// Header, little-endian:
//   0  u64 time          FILETIME (UTC, 100 ns since 1601) when the record was built
//   8  u32 process id    of the writer
//  12  u32 thread id     of the writer
//  16  u32 kind          0 = log message
//  20  u32 level         as the caller gave it
//  24  u32 text length   in UTF-16 units, no terminator
//  28  u32 data length   in bytes
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::logging {

// The log service's pipe ("\\.\pipe\" + this) and presence event ("Global\" + this).
inline constexpr char16_t kLogServicePipeName[] = u"MorvanePointOfServiceLogService.pipe";
inline constexpr char16_t kLogServiceEventName[] = u"MorvanePointOfServiceLogService.event";

constexpr std::size_t kRecordHeaderSize = 32;

constexpr uint32_t kRecordKindMessage = 0;
// Kinds 1 and 2 are requests that expect a string back; kind 3 sends a text. The service's own
// client sends only messages.
constexpr uint32_t kRecordKindLast = 3;

struct RecordHeader {
  uint64_t time = 0;
  uint32_t process_id = 0;
  uint32_t thread_id = 0;
  uint32_t kind = kRecordKindMessage;
  uint32_t level = 0;
  uint32_t text_length = 0;
  uint32_t data_length = 0;
};

void EncodeRecordHeader(const RecordHeader& header, uint8_t out[kRecordHeaderSize]);
RecordHeader DecodeRecordHeader(const uint8_t in[kRecordHeaderSize]);

}  // namespace orlenda::logging
