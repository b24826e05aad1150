// TCPServer: serves clients on other PCs over TCP (port 2291 by default), every client's stream
// from one dispatcher thread. Four settings in the properties store, each written with its default
// when missing, and taken up at run time through the settings notification:
//   SK_TCP_COMMUNICATION    "Enable" (exactly) serves TCP; anything else ("Disable") does not
//   TCP_PING_INTERVAL       ms of send silence after which a connection is pinged (500)
//   TCP_KEEPALIVE_TIMEOUT   ms of receive silence after which a connection is dropped (5000)
//   TCP_COMMUNICATION_PORT  the port listened on (2291; its low 16 bits)
//
// The dispatcher's read set holds the listening socket and at most 63 clients; later clients are
// accepted but never read, so they are dropped when their keep-alive time-out passes. One client
// is accepted per pass.
//
// Beyond those four, three settings limit who reaches the port, read and applied live the same way
// (the service runs as the system on every till of a shop, and its port is open to the network):
//   TCP_BIND_ADDRESS        the one local IPv4 address to listen on ("0.0.0.0": every address, as
//                           before); one that cannot be read keeps the server from listening
//   TCP_ALLOWED_CLIENTS     the clients let in (address_filter.h; empty: every client)
//   TCP_MAX_CONNECTIONS     how many clients at once (0: no limit)
// A client refused by them is closed at once and traced with its address.
//
// A change from the polling loop of the protocol's first form: the dispatcher does not wake every
// 100 us to look. It sleeps until a socket is ready or the nearest ping or keep-alive deadline of
// its clients, and a wake-up socket in its read set lets the stop, a settings change and a write
// that found its connection lost wake it at once. Pings, drops and the read set behave as before.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"
#include "connections/address_filter.h"
#include "connections/sk_server.h"
#include "platform/socket.h"
#include "platform/sync.h"

namespace orlenda {

class TCPServer : public SKServer {
 public:
  static constexpr uint32_t kDefaultPingInterval = 500;
  static constexpr uint32_t kDefaultKeepaliveTimeout = 5000;
  static constexpr std::size_t kReadSetSize = 64;  // the listening socket and 63 clients

  // Reads the settings (storing the defaults of missing ones); does not listen until Start.
  TCPServer();
  ~TCPServer() override;

  void ConnectionDispatcher() override;
  // Rereads the settings: starts or stops the server as SK_TCP_COMMUNICATION says, and hands new
  // timing or a new port to the dispatcher, returning once it has taken them.
  uint32_t ApplySettings() override;
  // SKR_INVALID_PARAMETER without starting anything when TCP is switched off. Otherwise opens the
  // listening socket (a failure is logged, the dispatcher runs all the same) and starts.
  uint32_t Start() override;
  // Stops the dispatcher, then closes the listening socket.
  uint32_t Stop() override;

  // Wakes the dispatcher (any thread).
  void Wake() { wake_.Wake(); }

  bool enabled() const { return enabled_.load(std::memory_order_acquire); }
  uint16_t port() const { return static_cast<uint16_t>(port_.load(std::memory_order_acquire)); }

 private:
  struct Settings {
    bool enabled;
    uint32_t ping_interval;
    uint32_t keepalive_timeout;
    uint32_t port;
    WString bind_address;
    WString allowed_clients;
    uint32_t max_connections;
  };
  static Settings ReadSettings();
  // The listening socket on the current port, with the four logged failures; SKR_SYSTEM_ERROR on
  // failure (the socket is kept as it is).
  uint32_t OpenListener();
  void CloseListener();
  // One pass of the dispatcher; false when the stop event ends it.
  bool Pass(uint32_t* ping_interval, uint32_t* keepalive_timeout);
  void AcceptOne(uint32_t ping_interval, uint32_t keepalive_timeout);
  // The dispatcher's copy of the client limits, from the settings last read.
  void TakeClientLimits();

  platform::Socket listener_;
  bool listening_ = false;  // the listener is bound and listening
  std::atomic<bool> enabled_{true};
  std::atomic<uint32_t> ping_interval_{kDefaultPingInterval};
  std::atomic<uint32_t> keepalive_timeout_{kDefaultKeepaliveTimeout};
  std::atomic<uint32_t> port_{2291};
  // The client limits as last read (under settings_lock_), and the dispatcher's copy of them.
  platform::CriticalSection settings_lock_;
  WString bind_address_ = u"0.0.0.0";
  WString allowed_clients_;
  uint32_t max_connections_ = 0;
  WString listening_address_;   // the dispatcher's: the address the listener is bound to
  AddressFilter filter_;        // the dispatcher's
  uint32_t connection_limit_ = 0;  // the dispatcher's
  uint32_t listening_port_ = 0;  // the dispatcher's: the port the listener is bound to
  platform::Event settings_changed_{platform::ResetMode::kManual, false};
  platform::Event settings_applied_{platform::ResetMode::kManual, true};
  platform::WakeSocket wake_;
  bool wake_open_ = false;
  HeapVector<uint8_t> receive_buffer_;  // the dispatcher's (CTCPConnection::kReceiveBuffer bytes)
};

}  // namespace orlenda
