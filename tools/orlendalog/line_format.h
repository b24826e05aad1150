// How the log service writes a record: one line of UTF-8 text, ending in '\n':
//
//   2026-11-21 16:48:01.123 pid 1234 tid 5678 L4 text [3 bytes: 00 ff 7f]
//
// The time is the writer's, in local time with milliseconds. Control characters in the text are
// escaped (\r, \n, \t, \xNN) so that a record never spans lines; the data part appears only when the
// record has data. Notices of the log service itself (dropped records) read
//
//   2026-11-21 16:48:01.123 orlendalog: <notice>
#pragma once

#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"
#include "logging/log_record.h"

namespace orlenda::logservice {

// Appends the line of one record to `line`. The service formats every record it takes, so this
// allocates nothing once `line` has grown and converts the time once per second of the writer's.
void AppendRecordLine(HeapString* line, const logging::RecordHeader& header, WStringView text,
                      const uint8_t* data, uint32_t data_size);

HeapString FormatRecordLine(const logging::RecordHeader& header, WStringView text, const uint8_t* data,
                            uint32_t data_size);

HeapString FormatNoticeLine(uint64_t filetime, const char* notice);

}  // namespace orlenda::logservice
