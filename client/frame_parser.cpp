#include "frame_parser.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace orlenda::client {

bool FrameParser::Feed(const uint8_t* bytes, std::size_t size, Sink* sink) {
  while (size != 0) {
    if (skip_ != 0) {
      const std::size_t n = static_cast<std::size_t>(std::min<uint64_t>(skip_, size));
      skip_ -= n;
      bytes += n;
      size -= n;
      continue;
    }
    if (header_got_ < 16) {
      // The length first: four bytes may be all there is (a ping).
      const std::size_t n = std::min((header_got_ < 4 ? 4 : 16) - header_got_, size);
      std::memcpy(header_ + header_got_, bytes, n);
      header_got_ += n;
      bytes += n;
      size -= n;
      if (header_got_ == 4) {
        length_ = Le32(header_);
        if (length_ == 0) header_got_ = 0;
        else if (length_ < 16) return false;
      } else if (header_got_ == 16 && !HeaderDone(sink)) {
        return false;
      }
      continue;
    }
    const std::size_t n = std::min<std::size_t>(length_ - 16u - body_.size(), size);
    body_.insert(body_.end(), bytes, bytes + n);
    bytes += n;
    size -= n;
    if (body_.size() == length_ - 16u) Deliver(sink);
  }
  return true;
}

bool FrameParser::HeaderDone(Sink* sink) {
  code_ = Le32(header_ + 4);
  tag_ = Le32(header_ + 8) | static_cast<uint64_t>(Le32(header_ + 12)) << 32;
  if (length_ > max_frame_) {
    skip_ = length_ - 16u;
    header_got_ = 0;
    sink->OnTooLarge(code_, tag_);
    return true;
  }
  body_.clear();
  try {
    body_.reserve(length_ - 16u);
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (length_ == 16) Deliver(sink);
  return true;
}

void FrameParser::Deliver(Sink* sink) {
  header_got_ = 0;
  sink->OnFrame(code_, tag_, body_.data(), body_.size());
}

}  // namespace orlenda::client
