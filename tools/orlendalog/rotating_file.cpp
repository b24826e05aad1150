#include "rotating_file.h"

#include <string>
#include <system_error>

namespace orlenda::logservice {

bool RotatingFile::Open(const std::filesystem::path& folder, const std::string& base, uint64_t max_bytes,
                        int keep) {
  folder_ = folder;
  base_ = base;
  max_bytes_ = max_bytes;
  keep_ = keep < 0 ? 0 : keep;
  std::error_code ec;
  std::filesystem::create_directories(folder_, ec);
  return Reopen();
}

std::filesystem::path RotatingFile::PathOf(int index) const {
  if (index == 0) return folder_ / (base_ + ".log");
  return folder_ / (base_ + "." + std::to_string(index) + ".log");
}

bool RotatingFile::Reopen() {
  out_.close();
  out_.clear();
  // A buffer of our size rather than the library's small default: fewer, larger writes.
  if (buffer_ == nullptr) buffer_ = std::make_unique<char[]>(kBufferBytes);
  out_.rdbuf()->pubsetbuf(buffer_.get(), kBufferBytes);
  out_.open(current(), std::ios::binary | std::ios::app);
  std::error_code ec;
  const auto size = std::filesystem::file_size(current(), ec);
  size_ = ec ? 0 : static_cast<uint64_t>(size);
  return out_.is_open();
}

bool RotatingFile::Rotate() {
  out_.close();
  std::error_code ec;
  if (keep_ == 0) {
    std::filesystem::remove(current(), ec);
  } else {
    std::filesystem::remove(PathOf(keep_), ec);
    for (int i = keep_ - 1; i >= 0; --i) {
      if (std::filesystem::exists(PathOf(i), ec)) std::filesystem::rename(PathOf(i), PathOf(i + 1), ec);
    }
  }
  return Reopen();
}

bool RotatingFile::Append(std::string_view line) {
  // A line longer than the limit still goes into a file of its own rather than being cut.
  if (size_ != 0 && size_ + line.size() > max_bytes_ && !Rotate()) return false;
  if (!out_.is_open() && !Reopen()) return false;
  out_.write(line.data(), static_cast<std::streamsize>(line.size()));
  if (!out_) {
    out_.clear();
    return false;
  }
  size_ += line.size();
  return true;
}

bool RotatingFile::Flush() {
  if (!out_.is_open()) return false;
  out_.flush();
  if (!out_) {
    out_.clear();
    return false;
  }
  return true;
}

}  // namespace orlenda::logservice
