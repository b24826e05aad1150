// The service's wire protocol from outside, for the transport and client tests: frame builders and
// a raw client that sends any bytes (whole frames, single bytes, nonsense) and reads frames back
// with a time-out; accepting a connection, it plays the service's side. Over TCP on every platform,
// over the local pipe where that is a socket (POSIX).
#pragma once

#include <cstdint>
#include <string>

#include "platform/socket.h"
#include "skein/protocol.h"

namespace orlenda::testing {

// The little-endian u32 at `at` of `bytes`.
uint32_t Get32(const std::string& bytes, std::size_t at);

struct Frame {
  uint32_t code = 0;
  uint64_t tag = 0;
  std::string body;  // everything after the 16-byte header
  // The u32 at offset 16 (the result of a reply, the identifier of an event); 0 when absent.
  uint32_t Word() const { return body.size() >= 4 ? Get32(body, 0) : 0; }
  // The bytes after offset 20 (an Ioctl's output, an event's data).
  std::string Tail() const { return body.size() > 4 ? body.substr(4) : std::string(); }
};

// Frame builders: a request of `code` and `tag` carrying `body`.
std::string RequestFrame(uint32_t code, uint64_t tag, const std::string& body = std::string());
std::string DwordBytes(uint32_t value);
// `text` as UTF-16LE units with the terminating NUL, as names travel.
std::string Utf16Z(const std::u16string& text);
inline std::string OpenFrame(uint64_t tag, const std::u16string& name) {
  return RequestFrame(SK_FRAME_OPEN, tag, Utf16Z(name));
}
inline std::string WriteFrame(uint64_t tag, const std::string& data) { return RequestFrame(SK_FRAME_WRITE, tag, data); }
inline std::string IoctlFrame(uint64_t tag, uint32_t control, const std::string& input = std::string()) {
  return RequestFrame(SK_FRAME_IOCTL, tag, DwordBytes(control) + input);
}
inline std::string RegisterFrame(uint64_t tag, uint32_t event) {
  return RequestFrame(SK_FRAME_REGISTER, tag, DwordBytes(event));
}
// `frame` with its length field replaced by `length`.
inline std::string LengthAs(std::string frame, uint32_t length) { return DwordBytes(length) + frame.substr(4); }

// One connection a client: it is not made again.
class WireClient {
 public:
  // To 127.0.0.1 from `from` (any address of the loopback range; null: the system's choice).
  uint32_t ConnectTcp(uint16_t port, const char* from = nullptr) {
    return platform::ConnectTcp("127.0.0.1", port, 5000, &socket_, from);
  }
  uint32_t ConnectLocal(const char16_t* name) { return platform::ConnectLocal(name, &socket_); }
  // The next client of `listener` becomes this one's peer (a server's side), within `timeout_ms`.
  bool Accept(const platform::Socket& listener, uint32_t timeout_ms);
  void Disconnect() { socket_.Close(); }

  bool Send(const std::string& bytes);
  // The next frame, within `timeout_ms`; pings (length 0) are counted and skipped. False on time-out
  // or when the peer closed the connection.
  bool Next(Frame* frame, uint32_t timeout_ms = 10000);
  // Sends a request and waits, passing events over, for its reply's result word (0xFFFFFFFF when
  // none came within 10 s).
  uint32_t Call(const std::string& request);
  // Waits until the peer closes the connection; false when it is still open after `timeout_ms`.
  bool AwaitClosed(uint32_t timeout_ms);

  int pings() const { return pings_; }

 private:
  // Takes the first frame off what arrived (pings, length 0, are taken off and counted): 1 when one
  // was taken, 0 while it is not whole yet, -1 when its length is shorter than a header.
  int Take(Frame* frame);
  // Appends what arrives within `timeout_ms`: 1 when bytes came, 0 on time-out, -1 when the
  // connection ended.
  int ReceiveSome(uint32_t timeout_ms);

  platform::Socket socket_;
  std::string pending_;
  int pings_ = 0;
};

// Listens on a free loopback port.
bool ListenOnLoopback(platform::Socket* listener, uint16_t* port);
// A TCP port that was free a moment ago (bound to 0, read back, closed).
uint16_t FreeTcpPort();

// A reply frame as the service would build it: the request's code and tag, the result, then `tail`.
inline std::string ReplyFrame(const Frame& request, uint32_t result, const std::string& tail = std::string()) {
  return RequestFrame(request.code, request.tag, DwordBytes(result) + tail);
}

}  // namespace orlenda::testing
