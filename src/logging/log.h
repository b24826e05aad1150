// The log client: every trace of the system goes through here to the log service.
//
// Each record opens the log service's pipe, writes one record and closes it, so records of different
// threads never interleave and no lock is needed. When the log service is not running the record is
// dropped at once and counted; after the next record that gets through, "%d messages lost" follows at
// level 0 with that count. Level 0 is for failures, 4 for ordinary traces.
//
// While the service's presence object exists but its pipe is busy or not yet there, a call waits in
// steps of 100 ms for as long as the presence object stays.
//
// The sending operations return whether their record was sent; callers are free to ignore it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/log_format.h"

namespace orlenda {

bool LogV(uint32_t level, const char16_t* format, const LogArg* args, std::size_t count);
bool LogDataFormatV(uint32_t level, const void* data, uint32_t size, const char16_t* format,
                    const LogArg* args, std::size_t count);

// Log(level, format, ...): formats as described in log_format.h, sends the text with no data.
template <class... A>
bool Log(uint32_t level, const char16_t* format, const A&... args) {
  const LogArg list[] = {LogArg(args)..., LogArg()};
  return LogV(level, format, list, sizeof...(A));
}

// Sends an empty text with the given data.
bool LogData(uint32_t level, const void* data, uint32_t size);

// Formats as Log does and sends the text together with the data.
template <class... A>
bool LogDataFormat(uint32_t level, const void* data, uint32_t size, const char16_t* format,
                   const A&... args) {
  const LogArg list[] = {LogArg(args)..., LogArg()};
  return LogDataFormatV(level, data, size, format, list, sizeof...(A));
}

// Whether the log service's presence object exists.
bool IsLogServiceRunning();

// The number of records lost since the last "messages lost" report.
uint32_t LostMessageCount();

}  // namespace orlenda
