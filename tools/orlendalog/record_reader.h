// Splits the byte stream of one writer's connection into log records.
//
// A writer keeps its connection and sends record after record; a record may arrive in pieces,
// and one piece may hold many records. Nothing is allocated ahead of the bytes that arrived: a header that announces megabytes
// costs nothing until they come. A record that cannot be read (a short header, lengths beyond what
// arrived before the end, an absurd length, an unknown kind) is reported once, as a notice, and
// dropped; after a header that cannot be trusted the rest of that stream is dropped with it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"
#include "logging/log_record.h"

namespace orlenda::logservice {

// Receives what a reader finds. Called from the reader's thread.
class RecordSink {
 public:
  virtual ~RecordSink() = default;
  virtual void OnRecord(const logging::RecordHeader& header, WStringView text, const uint8_t* data,
                        uint32_t data_size) = 0;
  // `notice` is one line of plain text (UTF-8) saying what was dropped and why.
  virtual void OnMalformed(const char* notice) = 0;
  // Called at a short interval and when the service stops: what the sink holds back goes out.
  virtual void Flush() {}
};

class RecordReader {
 public:
  // Longest text a record may announce (the service's own client sends at most 1023 units).
  static constexpr uint32_t kMaxTextUnits = 1u << 20;
  static constexpr uint32_t kMaxDataBytes = 64u << 20;

  explicit RecordReader(RecordSink* sink) : sink_(sink) {}

  // Takes the next bytes of the stream and reports every record they complete.
  void Feed(const uint8_t* bytes, std::size_t size);
  // The stream ended: reports a record left incomplete.
  void Finish();

  // Bytes held for a record not yet complete.
  std::size_t pending() const { return pending_.size(); }

 private:
  // Reports the records complete at the start of `bytes`; *used tells how many bytes they took.
  // False once the stream cannot be trusted.
  bool Drain(const uint8_t* bytes, std::size_t size, std::size_t* used);

  RecordSink* sink_;
  HeapVector<uint8_t> pending_;  // the start of a record not yet complete
  WString text_;                 // the record's text, decoded; reused from record to record
  bool broken_ = false;
};

}  // namespace orlenda::logservice
