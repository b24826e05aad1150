#include "logging/log_record.h"

namespace orlenda::logging {
namespace {

void Put(uint8_t* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint64_t Get(const uint8_t* in, int bytes) {
  uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | in[i];
  return value;
}

}  // namespace

void EncodeRecordHeader(const RecordHeader& h, uint8_t out[kRecordHeaderSize]) {
  Put(out + 0, h.time, 8);
  Put(out + 8, h.process_id, 4);
  Put(out + 12, h.thread_id, 4);
  Put(out + 16, h.kind, 4);
  Put(out + 20, h.level, 4);
  Put(out + 24, h.text_length, 4);
  Put(out + 28, h.data_length, 4);
}

RecordHeader DecodeRecordHeader(const uint8_t in[kRecordHeaderSize]) {
  RecordHeader h;
  h.time = Get(in + 0, 8);
  h.process_id = static_cast<uint32_t>(Get(in + 8, 4));
  h.thread_id = static_cast<uint32_t>(Get(in + 12, 4));
  h.kind = static_cast<uint32_t>(Get(in + 16, 4));
  h.level = static_cast<uint32_t>(Get(in + 20, 4));
  h.text_length = static_cast<uint32_t>(Get(in + 24, 4));
  h.data_length = static_cast<uint32_t>(Get(in + 28, 4));
  return h;
}

}  // namespace orlenda::logging
