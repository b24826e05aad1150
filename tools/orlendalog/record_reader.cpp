#include "record_reader.h"

#include <cstdio>

namespace orlenda::logservice {

void RecordReader::Feed(const uint8_t* bytes, std::size_t size) {
  if (broken_ || size == 0) return;
  std::size_t used = 0;
  bool trusted;
  if (pending_.empty()) {
    // The common case: records straight from the bytes that came, only a cut one kept back.
    trusted = Drain(bytes, size, &used);
    if (trusted) pending_.assign(bytes + used, bytes + size);
  } else {
    pending_.insert(pending_.end(), bytes, bytes + size);
    trusted = Drain(pending_.data(), pending_.size(), &used);
    if (trusted) pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(used));
  }
  if (!trusted) {
    broken_ = true;
    HeapVector<uint8_t>().swap(pending_);
  }
}

bool RecordReader::Drain(const uint8_t* bytes, std::size_t size, std::size_t* used) {
  std::size_t offset = 0;
  while (size - offset >= logging::kRecordHeaderSize) {
    const uint8_t* at = bytes + offset;
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
      *used = offset;
      return false;
    }
    const std::size_t text_bytes = static_cast<std::size_t>(h.text_length) * 2;
    const std::size_t total = logging::kRecordHeaderSize + text_bytes + h.data_length;
    if (size - offset < total) break;

    const uint8_t* text = at + logging::kRecordHeaderSize;
    text_.resize(h.text_length);
    for (uint32_t i = 0; i < h.text_length; ++i) {
      text_[i] = static_cast<char16_t>(text[2 * i] | (text[2 * i + 1] << 8));
    }
    sink_->OnRecord(h, View(text_), text + text_bytes, h.data_length);
    offset += total;
  }
  *used = offset;
  return true;
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
