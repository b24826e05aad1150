// A fake network printer for tests and the benchmark: a TCP server on 127.0.0.1 that takes one
// connection at a time, keeps every byte it receives, answers a status request, and can be
// switched off and on again on the same port.
//
//   status request   the bytes DLE EOT 1 (0x10 0x04 0x01), as receipt printers take them; each one
//                    received is answered with the status byte kFakePrinterStatus
//   SwitchOff        drops the connection and stops listening (connections are refused)
//   SwitchOn         listens again on the same port
//   StopReading      leaves what arrives in the system's buffers, as a printer that is out of
//                    paper; ResumeReading takes it in again
//
// Its thread serves the connection; every wait in it is bounded, and the destructor ends it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "netprinter/net_socket.h"

namespace orlenda::device_testing {

constexpr char kFakePrinterStatus = 0x12;
inline const std::string kStatusRequest("\x10\x04\x01", 3);

class FakePrinter {
 public:
  FakePrinter();  // listening on a free port
  ~FakePrinter();
  FakePrinter(const FakePrinter&) = delete;
  FakePrinter& operator=(const FakePrinter&) = delete;

  uint16_t port() const { return port_; }
  bool listening() const { return listening_; }

  void SwitchOff();
  bool SwitchOn();  // false when the port could not be taken again
  void StopReading() { reading_ = false; }
  void ResumeReading() { reading_ = true; }

  // Everything received over all connections, in order.
  std::string Received();
  std::size_t ReceivedSize();
  // Connections accepted so far, and whether one is open now.
  int Connections() const { return connections_; }
  bool Connected() const { return client_open_; }

 private:
  void Serve();
  void ServeClient(NetSocket client);

  uint16_t port_ = 0;
  std::mutex lock_;  // guards received_ and the sockets' replacement
  std::string received_;
  NetSocket listener_ = NET_NO_SOCKET;
  std::atomic<bool> listening_{false};
  std::atomic<bool> stop_{false};
  std::atomic<bool> off_{false};
  std::atomic<bool> reading_{true};
  std::atomic<bool> client_open_{false};
  std::atomic<int> connections_{0};
  std::thread thread_;
};

}  // namespace orlenda::device_testing
