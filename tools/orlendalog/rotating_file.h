// The log file: appends lines, and when the next line would take the file past its size limit,
// moves it aside first: NAME.log becomes NAME.1.log, NAME.1.log becomes NAME.2.log, and so on,
// keeping at most `keep` old files (the oldest is deleted). Each line is flushed as it is
// written, so that a crash of the log service loses nothing already accepted.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string_view>

namespace orlenda::logservice {

class RotatingFile {
 public:
  // Opens (creating the folder and the file as needed) `folder`/`base`.log for appending.
  bool Open(const std::filesystem::path& folder, const std::string& base, uint64_t max_bytes, int keep);
  // Appends one line, rotating first when needed. False when the file cannot be written.
  bool Append(std::string_view line);

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
  std::ofstream out_;
};

}  // namespace orlenda::logservice
