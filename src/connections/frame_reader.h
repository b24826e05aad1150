// The framer of a client stream: bytes in, in any split, whole frames out.
//
// The read buffer begins with an 8-byte back-pointer to its owner, then holds the frame bytes, and
// always carries 16 spare bytes behind its capacity. The first buffer holds 1048 frame bytes (1072
// in all). A frame longer than the capacity grows the buffer in two steps, on purpose: when its
// length arrives the buffer is made anew, cleared, for 2·L frame bytes, and its capacity is taken
// from the cleared block (0); the next bytes of the frame find the frame longer than that and grow
// it once more, taking the capacity as twice the length field (2·L). A run of similar large frames
// thus costs one growth.
//
// Every whole frame is handed over as a copy of the buffer's first min(L, capacity) + 24 bytes
// (back-pointer, frame, 16 more bytes, which are zero): a copy shorter than L + 24 marks a frame
// that did not fit (its bytes past the capacity were counted and dropped, so the stream stays in
// step), to be answered SKR_TRUNCATED. A buffer that cannot grow keeps its capacity and logs
// "Unable to reallocate read buffer"; a frame longer than SK_FRAME_MAX_SIZE takes the same path
// without trying, so no client can make the service allocate more than that.
//
// A length field of 0 is a keep-alive and is discarded. A length of 1 to 15 cannot hold a header:
// Feed logs it and reports that the stream cannot go on (the connection is then closed).
//
// One thread feeds a reader; it takes no lock.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/blob.h"

namespace orlenda {

class FrameReader {
 public:
  // Where whole frames go: `copy` holds the back-pointer, the frame (perhaps cut short) and 16 zero
  // bytes; `length` is the frame's length field.
  class Sink {
   public:
    virtual ~Sink() = default;
    virtual void OnFrame(BlobRef copy, uint32_t length) = 0;
  };

  // Bytes of a frame copy before the frame itself, and after it.
  static constexpr std::size_t kBackPointer = 8;
  static constexpr std::size_t kSlack = 16;
  static constexpr std::size_t kFirstCapacity = 1048;

  explicit FrameReader(const void* owner) : owner_(owner) {}
  ~FrameReader();
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // Feeds a chunk of the stream. False when the stream cannot go on: a length field of 1 to 15.
  bool Feed(const uint8_t* bytes, std::size_t size, Sink* sink);

  // The frame bytes the buffer holds now (0 before the first byte).
  uint32_t capacity() const { return capacity_; }

 private:
  // Makes a new cleared block for `capacity` frame bytes; false (nothing changed) when memory is
  // short. `keep` frame bytes of the old block are copied over.
  bool Regrow(std::size_t capacity, std::size_t keep);
  uint8_t* frame() const { return buffer_ + kBackPointer; }
  uint32_t LengthField() const;
  // How many bytes of the current frame the buffer holds.
  std::size_t StoredBytes() const;
  void Deliver(Sink* sink);

  const void* owner_;
  uint8_t* buffer_ = nullptr;
  uint32_t capacity_ = 0;
  uint32_t received_ = 0;
};

}  // namespace orlenda
