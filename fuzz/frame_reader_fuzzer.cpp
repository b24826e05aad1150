// The framer of client streams against a plain model of the protocol: for any bytes fed in any
// split, every whole frame comes out once, whole and in order; keep-alives come out as nothing; a
// length of 1-15 ends the stream; and nothing is read or written out of bounds (AddressSanitizer).
//
// Input: byte 0 picks the split (piece sizes cycle through the next bytes), the rest is the stream.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "connections/frame_reader.h"
#include "skein/protocol.h"

namespace {

using orlenda::BlobRef;
using orlenda::FrameReader;

struct Collector : FrameReader::Sink {
  void OnFrame(BlobRef copy, uint32_t length) override {
    const std::size_t kept = static_cast<std::size_t>(copy.size()) - FrameReader::kBackPointer - FrameReader::kSlack;
    const char* frame = reinterpret_cast<const char*>(copy.data()) + FrameReader::kBackPointer;
    if (kept != length) std::abort();  // no frame of a fuzz input is over the limit
    frames.emplace_back(frame, kept);
  }
  std::vector<std::string> frames;
};

uint32_t U32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

// The model: the whole frames of `stream`, and whether it ends with a length of 1-15.
std::vector<std::string> Model(const uint8_t* stream, std::size_t size, bool* broken) {
  std::vector<std::string> frames;
  *broken = false;
  std::size_t at = 0;
  while (size - at >= 4) {
    const uint32_t length = U32(stream + at);
    if (length == 0) {
      at += 4;
      continue;
    }
    if (length < SK_FRAME_HEADER_SIZE) {
      *broken = true;
      break;
    }
    if (size - at < length) break;
    frames.emplace_back(reinterpret_cast<const char*>(stream + at), length);
    at += length;
  }
  return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const uint8_t split = data[0];
  const uint8_t* stream = data + 1;
  const std::size_t length = size - 1;

  bool broken = false;
  const std::vector<std::string> expected = Model(stream, length, &broken);

  FrameReader reader(data);
  Collector collector;
  bool going = true;
  std::size_t at = 0;
  for (std::size_t turn = 0; at < length && going; ++turn) {
    // Piece sizes from 1 up, taken from the input itself; split 0 feeds everything at once.
    std::size_t piece = split == 0 ? length : 1 + (stream[turn % length] ^ split) % 64u;
    if (piece > length - at) piece = length - at;
    going = reader.Feed(stream + at, piece, &collector);
    at += piece;
  }
  if (collector.frames != expected) std::abort();
  if (going == broken) std::abort();  // the stream ends exactly when a length of 1-15 comes
  return 0;
}
