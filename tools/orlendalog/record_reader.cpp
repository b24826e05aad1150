#include "record_reader.h"

#include <cstdio>

namespace orlenda::logservice {

void RecordReader::Feed(const uint8_t* bytes, std::size_t size) {
  if (broken_ || size == 0) return;
  pending_.insert(pending_.end(), bytes, bytes + size);
  if (!Drain()) {
    broken_ = true;
    HeapVector<uint8_t>().swap(pending_);
  }
}

bool RecordReader::Drain() {
  std::size_t offset = 0;
  bool trusted = true;
  while (pending_.size() - offset >= logging::kRecordHeaderSize) {
    const uint8_t* at = pending_.data() + offset;
    const logging::RecordHeader h = logging::DecodeRecordHeader(at);
    char notice[160];
    if (h.kind > logging::kRecordKindLast) {
      std::snprintf(notice, sizeof notice, "record of unknown kind %u; rest of the stream dropped", h.kind);
    } else if (h.text_length > kMaxTextUnits) {
      std::snprintf(notice, sizeof notice, "record with absurd text length %u; rest of the stream dropped",
                    h.text_length);
    } else if (h.data_length > kMaxDataBytes) {
      std::snprintf(notice, sizeof notice, "record with absurd data length %u; rest of the stream dropped",
                    h.data_length);
    } else {
      notice[0] = '\0';
    }
    if (notice[0] != '\0') {
      sink_->OnMalformed(notice);
      trusted = false;
      break;
    }
    const std::size_t text_bytes = static_cast<std::size_t>(h.text_length) * 2;
    const std::size_t total = logging::kRecordHeaderSize + text_bytes + h.data_length;
    if (pending_.size() - offset < total) break;

    const uint8_t* text = at + logging::kRecordHeaderSize;
    WString decoded;
    decoded.resize(h.text_length);
    for (uint32_t i = 0; i < h.text_length; ++i) {
      decoded[i] = static_cast<char16_t>(text[2 * i] | (text[2 * i + 1] << 8));
    }
    sink_->OnRecord(h, View(decoded), text + text_bytes, h.data_length);
    offset += total;
  }
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(offset));
  return trusted;
}

void RecordReader::Finish() {
  if (broken_ || pending_.empty()) return;
  char notice[160];
  if (pending_.size() < logging::kRecordHeaderSize) {
    std::snprintf(notice, sizeof notice, "short record header: %u of %u bytes",
                  static_cast<unsigned>(pending_.size()), static_cast<unsigned>(logging::kRecordHeaderSize));
  } else {
    const logging::RecordHeader h = logging::DecodeRecordHeader(pending_.data());
    const uint64_t total = logging::kRecordHeaderSize + static_cast<uint64_t>(h.text_length) * 2 + h.data_length;
    std::snprintf(notice, sizeof notice, "record cut short: %llu of %llu bytes arrived",
                  static_cast<unsigned long long>(pending_.size()), static_cast<unsigned long long>(total));
  }
  sink_->OnMalformed(notice);
  HeapVector<uint8_t>().swap(pending_);
}

}  // namespace orlenda::logservice
