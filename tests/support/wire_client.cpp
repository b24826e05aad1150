#include "support/wire_client.h"

#include <chrono>

#include "platform/errors.h"
#include "skein/protocol.h"

namespace orlenda::testing {

static uint32_t Remaining(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<uint32_t>(left.count()) : 0;
}

uint32_t Get32(const std::string& bytes, std::size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<uint8_t>(bytes[at + i]);
  return v;
}

std::string DwordBytes(uint32_t value) {
  std::string bytes(4, '\0');
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<char>(value >> (8 * i));
  return bytes;
}

std::string RequestFrame(uint32_t code, uint64_t tag, const std::string& body) {
  return DwordBytes(static_cast<uint32_t>(SK_FRAME_HEADER_SIZE + body.size())) + DwordBytes(code) +
         DwordBytes(static_cast<uint32_t>(tag)) + DwordBytes(static_cast<uint32_t>(tag >> 32)) + body;
}

std::string Utf16Z(const std::u16string& text) {
  // UTF-16LE as this (little-endian) machine holds it.
  return std::string(reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * 2);
}

bool WireClient::Accept(const platform::Socket& listener, uint32_t timeout_ms) {
  platform::SocketWait wait{listener.handle(), true, false, false, false};
  std::size_t ready = 0;
  uint32_t peer = 0;
  return platform::WaitSockets(&wait, 1, timeout_ms, &ready) == platform::kErrorSuccess && ready == 1 &&
         platform::AcceptClient(listener, &socket_, &peer) == platform::kErrorSuccess;
}

bool WireClient::Send(const std::string& bytes) {
  std::size_t sent = 0;
  return platform::SendAll(socket_, bytes.data(), bytes.size(), 10000, &sent) == platform::kErrorSuccess;
}

int WireClient::Take(Frame* frame) {
  for (;;) {
    if (pending_.size() < 4) return 0;
    const uint32_t length = Get32(pending_, 0);
    if (length == 0) {
      ++pings_;
      pending_.erase(0, 4);
      continue;
    }
    if (length < SK_FRAME_HEADER_SIZE) return -1;
    if (pending_.size() < length) return 0;
    frame->code = Get32(pending_, 4);
    frame->tag = Get32(pending_, 8) | static_cast<uint64_t>(Get32(pending_, 12)) << 32;
    frame->body = pending_.substr(SK_FRAME_HEADER_SIZE, length - SK_FRAME_HEADER_SIZE);
    pending_.erase(0, length);
    return 1;
  }
}

int WireClient::ReceiveSome(uint32_t timeout_ms) {
  platform::SocketWait wait{socket_.handle(), true, false, false, false};
  std::size_t ready = 0, got = 0;
  if (platform::WaitSockets(&wait, 1, timeout_ms, &ready) != platform::kErrorSuccess) return -1;
  if (ready == 0) return 0;
  char buffer[65536];
  if (platform::Receive(socket_, buffer, sizeof(buffer), &got) != platform::kErrorSuccess || got == 0) return -1;
  pending_.append(buffer, got);
  return 1;
}

bool WireClient::Next(Frame* frame, uint32_t timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (int taken; (taken = Take(frame)) != 1;) {
    if (taken < 0 || ReceiveSome(Remaining(deadline)) <= 0) return false;
  }
  return true;
}

uint32_t WireClient::Call(const std::string& request) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(10000);
  Frame reply;
  if (!Send(request)) return 0xFFFFFFFFu;
  do {  // events on the way are passed over
    if (!Next(&reply, Remaining(deadline))) return 0xFFFFFFFFu;
  } while (reply.code == SK_FRAME_EVENT);
  return reply.Word();
}

bool WireClient::AwaitClosed(uint32_t timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const int got = ReceiveSome(Remaining(deadline));
    if (got <= 0) return got < 0;  // closed, or still open at the deadline
    pending_.clear();
  }
}

bool ListenOnLoopback(platform::Socket* listener, uint16_t* port) {
  return platform::OpenTcpSocket(listener) == platform::kErrorSuccess &&
         platform::BindIpv4(*listener, 0x7F000001u, 0) == platform::kErrorSuccess &&
         platform::ListenOn(*listener) == platform::kErrorSuccess &&
         platform::LocalPort(*listener, port) == platform::kErrorSuccess;
}

uint16_t FreeTcpPort() {
  platform::Socket probe;
  uint16_t port = 0;
  return ListenOnLoopback(&probe, &port) ? port : 0;
}

}  // namespace orlenda::testing
