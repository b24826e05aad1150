#include "log_writer.h"

#include "line_format.h"
#include "platform/thread.h"

namespace orlenda::logservice {

void LogWriter::OnRecord(const logging::RecordHeader& header, WStringView text, const uint8_t* data,
                         uint32_t data_size) {
  platform::ScopedLock hold(lock_);
  line_.clear();  // keeps its room: one line after another, no allocation
  AppendRecordLine(&line_, header, text, data, data_size);
  WriteLocked(line_);
}

void LogWriter::OnMalformed(const char* notice) { Write(FormatNoticeLine(platform::FileTimeNow(), notice)); }

void LogWriter::Write(const HeapString& line) {
  platform::ScopedLock hold(lock_);
  WriteLocked(line);
}

void LogWriter::WriteLocked(const HeapString& line) {
  if (console_ != nullptr) std::fwrite(line.data(), 1, line.size(), console_);
  if (file_ != nullptr) NoteFileState(file_->Append(std::string_view(line.data(), line.size())));
}

void LogWriter::Flush() {
  platform::ScopedLock hold(lock_);
  if (file_ != nullptr) NoteFileState(file_->Flush());
  if (console_ != nullptr) std::fflush(console_);
}

void LogWriter::NoteFileState(bool ok) {
  // Say so once when the file stops taking lines, and once when it takes them again.
  if (ok == file_failed_ && console_ != nullptr) {
    const HeapString notice = FormatNoticeLine(
        platform::FileTimeNow(), ok ? "the log file is written again" : "cannot write the log file");
    std::fwrite(notice.data(), 1, notice.size(), console_);
  }
  file_failed_ = !ok;
}

}  // namespace orlenda::logservice
