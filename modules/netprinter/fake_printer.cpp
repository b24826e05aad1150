#include "netprinter/fake_printer.h"

#include <algorithm>
#include <chrono>

namespace orlenda::device_testing {
namespace {

constexpr uint32_t kSliceMs = 20;  // how often the serving thread looks at its switches

void Pause() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

}  // namespace

FakePrinter::FakePrinter() {
  NetStartup();
  listener_ = NetListenLoopback(&port_);
  listening_ = listener_ != NET_NO_SOCKET;
  thread_ = std::thread([this] { Serve(); });
}

FakePrinter::~FakePrinter() {
  stop_ = true;
  thread_.join();
  NetClose(listener_);
  NetCleanup();
}

void FakePrinter::SwitchOff() {
  off_ = true;
  // The serving thread drops the connection and the listener; wait for it (bounded).
  for (int i = 0; i < 2000 && (listening() || client_open_); ++i) Pause();
}

bool FakePrinter::SwitchOn() {
  uint16_t port = port_;
  const NetSocket listener = NetListenLoopback(&port);
  if (listener == NET_NO_SOCKET) return false;
  {
    std::lock_guard<std::mutex> hold(lock_);
    listener_ = listener;
    listening_ = true;
    off_ = false;  // under the lock: the serving thread must not take the new listener for the old
  }
  return true;
}

std::string FakePrinter::Received() {
  std::lock_guard<std::mutex> hold(lock_);
  return received_;
}

std::size_t FakePrinter::ReceivedSize() {
  std::lock_guard<std::mutex> hold(lock_);
  return received_.size();
}

void FakePrinter::Serve() {
  while (!stop_) {
    NetSocket listener;
    {
      std::lock_guard<std::mutex> hold(lock_);
      listener = listener_;
      if (off_ && listener != NET_NO_SOCKET) {
        NetClose(listener);
        listener_ = NET_NO_SOCKET;
        listening_ = false;
        listener = NET_NO_SOCKET;
      }
    }
    if (listener == NET_NO_SOCKET) {
      Pause();
      continue;
    }
    const NetSocket client = NetAccept(listener, kSliceMs);
    if (client == NET_NO_SOCKET) continue;
    ++connections_;
    client_open_ = true;
    ServeClient(client);
    NetClose(client);
    client_open_ = false;
  }
}

void FakePrinter::ServeClient(NetSocket client) {
  char buffer[65536];
  std::size_t scanned = 0;  // status requests before this offset are answered
  {
    std::lock_guard<std::mutex> hold(lock_);
    scanned = received_.size();
  }
  while (!stop_ && !off_) {
    if (!reading_) {
      Pause();
      continue;
    }
    if (NetWait(client, 0, kSliceMs, nullptr) != NET_READY) continue;
    const long n = NetReceive(client, buffer, sizeof buffer);
    if (n < 0) return;  // closed by the other side, or failed
    if (n == 0) continue;
    int answers = 0;
    {
      std::lock_guard<std::mutex> hold(lock_);
      received_.append(buffer, static_cast<std::size_t>(n));
      for (std::size_t at = received_.find(kStatusRequest, scanned); at != std::string::npos;
           at = received_.find(kStatusRequest, scanned)) {
        ++answers;
        scanned = at + kStatusRequest.size();
      }
      if (received_.size() >= kStatusRequest.size()) {
        scanned = std::max(scanned, received_.size() - kStatusRequest.size() + 1);
      }
    }
    for (int i = 0; i < answers; ++i) {
      while (NetSend(client, &kFakePrinterStatus, 1) == 0) NetWait(client, 1, kSliceMs, nullptr);
    }
  }
}

}  // namespace orlenda::device_testing
