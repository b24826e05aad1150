// The sink of the log service: turns records and notices into lines and writes them to the log
// file and, in the foreground, to standard output, through buffers that go out when they fill and
// at every Flush (the server flushes at a short interval and when it stops). The server's thread
// and the service's own notices call it; one lock keeps lines whole and in one order in both
// places.
#pragma once

#include <cstdio>

#include "platform/sync.h"
#include "record_reader.h"
#include "rotating_file.h"

namespace orlenda::logservice {

class LogWriter : public RecordSink {
 public:
  // `file` may be null (console only); `console` may be null (file only).
  LogWriter(RotatingFile* file, std::FILE* console) : file_(file), console_(console) {}

  void OnRecord(const logging::RecordHeader& header, WStringView text, const uint8_t* data,
                uint32_t data_size) override;
  void OnMalformed(const char* notice) override;
  void Flush() override;

  // A notice of the log service itself (start, stop, file trouble).
  void Notice(const char* notice) { OnMalformed(notice); }

 private:
  void Write(const HeapString& line);
  void WriteLocked(const HeapString& line);
  void NoteFileState(bool ok);

  platform::CriticalSection lock_;
  RotatingFile* file_;
  std::FILE* console_;
  bool file_failed_ = false;
  HeapString line_;  // the line being written, under lock_
};

}  // namespace orlenda::logservice
