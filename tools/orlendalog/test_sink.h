// A sink for the log service's tests: keeps what readers report, safe for many reader threads. Tests
// read `records` and `notices` once the readers are done (the reader returned, or the server stopped).
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "record_reader.h"

namespace orlenda::logservice {

struct SeenRecord {
  logging::RecordHeader header;
  std::u16string text;
  std::vector<uint8_t> data;
};

class TestSink : public RecordSink {
 public:
  void OnRecord(const logging::RecordHeader& header, WStringView text, const uint8_t* data,
                uint32_t data_size) override {
    std::lock_guard<std::mutex> lock(mutex_);
    records.push_back({header, std::u16string(text), std::vector<uint8_t>(data, data + data_size)});
  }
  void OnMalformed(const char* notice) override {
    std::lock_guard<std::mutex> lock(mutex_);
    notices.emplace_back(notice);
  }

  std::vector<SeenRecord> records;
  std::vector<std::string> notices;

 private:
  std::mutex mutex_;
};

// The bytes of one record as a writer sends them.
inline std::vector<uint8_t> EncodeRecord(const logging::RecordHeader& header, const std::u16string& text,
                                         const std::vector<uint8_t>& data) {
  std::vector<uint8_t> bytes(logging::kRecordHeaderSize);
  logging::EncodeRecordHeader(header, bytes.data());
  for (char16_t unit : text) {
    bytes.push_back(static_cast<uint8_t>(unit));
    bytes.push_back(static_cast<uint8_t>(unit >> 8));
  }
  bytes.insert(bytes.end(), data.begin(), data.end());
  return bytes;
}

}  // namespace orlenda::logservice
