// The log file: appends lines, and when the next line would take the file past its size limit,
// moves it aside first: NAME.log becomes NAME.1.log, NAME.1.log becomes NAME.2.log, and so on,
// keeping at most `keep` old files (the oldest is deleted). Lines go through a buffer of
// kBufferBytes that is written out when it fills and at every Flush; the log service flushes at a
// short interval, so a crash loses at most that interval's lines.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>

namespace orlenda::logservice {

class RotatingFile {
 public:
  // Opens (creating the folder and the file as needed) `folder`/`base`.log for appending.
  bool Open(const std::filesystem::path& folder, const std::string& base, uint64_t max_bytes, int keep);
  static constexpr std::size_t kBufferBytes = 64 * 1024;

  // Appends one line, rotating first when needed. False when the file cannot be written.
  bool Append(std::string_view line);
  // Writes out the buffer. False when the file cannot be written.
  bool Flush();

  std::filesystem::path current() const { return PathOf(0); }
  // The path of the old file `index` (1 = the newest old one); 0 gives the current file.
  std::filesystem::path PathOf(int index) const;

 private:
  bool Rotate();
  bool Reopen();

  std::filesystem::path folder_;
  std::string base_;
  uint64_t max_bytes_ = 0;
  int keep_ = 0;
  uint64_t size_ = 0;
  std::unique_ptr<char[]> buffer_;
  std::ofstream out_;
};

}  // namespace orlenda::logservice
