// A raw client of the service's wire protocol for the transport tests: it sends any bytes (whole
// frames, single bytes, nonsense) and reads frames back with a time-out. Over TCP on every
// platform, over the local pipe where that is a socket (POSIX).
#pragma once

#include <cstdint>
#include <string>

#include "platform/socket.h"
#include "skein/protocol.h"

namespace orlenda::testing {

struct Frame {
  uint32_t code = 0;
  uint64_t tag = 0;
  std::string body;  // everything after the 16-byte header
  // The u32 at offset 16 (the result of a reply, the identifier of an event); 0 when absent.
  uint32_t Word() const;
  // The bytes after offset 20 (an Ioctl's output, an event's data).
  std::string Tail() const { return body.size() > 4 ? body.substr(4) : std::string(); }
};

// Frame builders: a request of `code` and `tag` carrying `body`.
std::string RequestFrame(uint32_t code, uint64_t tag, const std::string& body = std::string());
std::string OpenFrame(uint64_t tag, const std::u16string& name);
std::string DwordBytes(uint32_t value);
inline std::string WriteFrame(uint64_t tag, const std::string& data) { return RequestFrame(SK_FRAME_WRITE, tag, data); }
inline std::string IoctlFrame(uint64_t tag, uint32_t control, const std::string& input = std::string()) {
  return RequestFrame(SK_FRAME_IOCTL, tag, DwordBytes(control) + input);
}
inline std::string RegisterFrame(uint64_t tag, uint32_t event) {
  return RequestFrame(SK_FRAME_REGISTER, tag, DwordBytes(event));
}
// `frame` with its length field replaced by `length`.
inline std::string LengthAs(std::string frame, uint32_t length) { return DwordBytes(length) + frame.substr(4); }
// The little-endian u32 at `at` of `bytes`.
uint32_t Get32(const std::string& bytes, std::size_t at);

// Takes the first frame off `bytes` (pings, length 0, are taken off and counted in `pings`): 1 when
// one was taken, 0 while it is not whole yet, -1 when its length is shorter than a header.
int TakeFrame(std::string* bytes, Frame* frame, int* pings = nullptr);

class WireClient {
 public:
  // To 127.0.0.1 from `from` (any address of the loopback range; null: the system's choice).
  uint32_t ConnectTcp(uint16_t port, const char* from = nullptr);
  uint32_t ConnectLocal(const char16_t* name);
  void Disconnect() { socket_.Close(); }

  bool Send(const std::string& bytes);
  // The next frame, within `timeout_ms`; pings (length 0) are counted and skipped. False on time-out
  // or when the service closed the connection.
  bool Next(Frame* frame, uint32_t timeout_ms = 10000);
  // The next frame that is not an event (events on the way are passed over).
  bool NextReply(Frame* frame, uint32_t timeout_ms = 10000);
  // Sends a request and waits for its reply's result word (0xFFFFFFFF when none came).
  uint32_t Call(const std::string& request, Frame* reply = nullptr);
  // Waits until the service closes the connection; false when it is still open after `timeout_ms`.
  bool AwaitClosed(uint32_t timeout_ms);

  int pings() const { return pings_; }

 private:
  // Appends what arrives within `timeout_ms`: 1 when bytes came, 0 on time-out, -1 when the
  // connection ended.
  int ReceiveSome(uint32_t timeout_ms);

  platform::Socket socket_;
  std::string pending_;
  int pings_ = 0;
};

// A TCP port that was free a moment ago (bound to 0, read back, closed).
uint16_t FreeTcpPort();

}  // namespace orlenda::testing
