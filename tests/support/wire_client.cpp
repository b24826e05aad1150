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

uint32_t Frame::Word() const { return body.size() >= 4 ? Get32(body, 0) : 0; }

std::string DwordBytes(uint32_t value) {
  std::string bytes(4, '\0');
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<char>(value >> (8 * i));
  return bytes;
}

std::string RequestFrame(uint32_t code, uint64_t tag, const std::string& body) {
  return DwordBytes(static_cast<uint32_t>(SK_FRAME_HEADER_SIZE + body.size())) + DwordBytes(code) +
         DwordBytes(static_cast<uint32_t>(tag)) + DwordBytes(static_cast<uint32_t>(tag >> 32)) + body;
}

std::string OpenFrame(uint64_t tag, const std::u16string& name) {
  // UTF-16LE as this (little-endian) machine holds it, with the terminating NUL.
  const std::string units(reinterpret_cast<const char*>(name.c_str()), (name.size() + 1) * 2);
  return RequestFrame(SK_FRAME_OPEN, tag, units);
}

uint32_t WireClient::ConnectTcp(uint16_t port, const char* from) {
  pending_.clear();
  return platform::ConnectTcp("127.0.0.1", port, 5000, &socket_, from);
}

uint32_t WireClient::ConnectLocal(const char16_t* name) {
  pending_.clear();
  return platform::ConnectLocal(name, &socket_);
}

bool WireClient::Send(const std::string& bytes) {
  std::size_t sent = 0;
  return platform::SendAll(socket_, bytes.data(), bytes.size(), 10000, &sent) == platform::kErrorSuccess;
}

int TakeFrame(std::string* bytes, Frame* frame, int* pings) {
  for (;;) {
    if (bytes->size() < 4) return 0;
    const uint32_t length = Get32(*bytes, 0);
    if (length == 0) {
      if (pings != nullptr) ++*pings;
      bytes->erase(0, 4);
      continue;
    }
    if (length < SK_FRAME_HEADER_SIZE) return -1;
    if (bytes->size() < length) return 0;
    frame->code = Get32(*bytes, 4);
    frame->tag = Get32(*bytes, 8) | static_cast<uint64_t>(Get32(*bytes, 12)) << 32;
    frame->body = bytes->substr(SK_FRAME_HEADER_SIZE, length - SK_FRAME_HEADER_SIZE);
    bytes->erase(0, length);
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
  for (int taken; (taken = TakeFrame(&pending_, frame, &pings_)) != 1;) {
    if (taken < 0 || ReceiveSome(Remaining(deadline)) <= 0) return false;
  }
  return true;
}

bool WireClient::NextReply(Frame* frame, uint32_t timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (!Next(frame, Remaining(deadline))) return false;
    if (frame->code != SK_FRAME_EVENT) return true;
  }
}

uint32_t WireClient::Call(const std::string& request, Frame* reply) {
  Frame local;
  Frame* answer = reply != nullptr ? reply : &local;
  if (!Send(request) || !NextReply(answer)) return 0xFFFFFFFFu;
  return answer->Word();
}

bool WireClient::AwaitClosed(uint32_t timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const int got = ReceiveSome(Remaining(deadline));
    if (got <= 0) return got < 0;  // closed, or still open at the deadline
    pending_.clear();
  }
}

uint16_t FreeTcpPort() {
  platform::Socket probe;
  uint16_t port = 0;
  if (platform::OpenTcpSocket(&probe) == platform::kErrorSuccess &&
      platform::BindIpv4(probe, 0x7F000001u, 0) == platform::kErrorSuccess) {
    platform::LocalPort(probe, &port);
  }
  return port;
}

}  // namespace orlenda::testing
