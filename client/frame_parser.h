// The client's framer: the service's bytes in, in any split, whole frames out. A length field of 0
// is the service's ping and is dropped. A frame longer than the limit is never stored: its header
// is reported and its body skipped as it arrives, so a hostile length (4 GiB) costs nothing. A
// length of 1 to 15 cannot hold a header: the stream cannot go on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orlenda::client {

class FrameParser {
 public:
  class Sink {
   public:
    virtual ~Sink() = default;
    // A whole frame: its code, tag and the bytes after the 16-byte header.
    virtual void OnFrame(uint32_t code, uint64_t tag, const uint8_t* body, std::size_t size) = 0;
    // A frame over the limit; its body is being skipped.
    virtual void OnTooLarge(uint32_t code, uint64_t tag) = 0;
  };

  explicit FrameParser(uint32_t max_frame) : max_frame_(max_frame) {}

  // False when the stream cannot go on (a length of 1 to 15, or no memory for a frame).
  bool Feed(const uint8_t* bytes, std::size_t size, Sink* sink);

 private:
  // The header is whole: start the body, or skip it, or deliver a bare header. False without memory.
  bool HeaderDone(Sink* sink);
  void Deliver(Sink* sink);

  const uint32_t max_frame_;
  uint8_t header_[16] = {};
  std::size_t header_got_ = 0;
  uint32_t length_ = 0;
  uint32_t code_ = 0;
  uint64_t tag_ = 0;
  uint64_t skip_ = 0;  // body bytes of an oversized frame still to drop
  std::vector<uint8_t> body_;
};

inline uint32_t Le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

inline void PutLe32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

}  // namespace orlenda::client
