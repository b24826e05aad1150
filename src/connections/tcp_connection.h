// CTCPConnection: one TCP client. Its dispatcher (TCPServer) receives for it (Poll with kReadable)
// and ticks it (Poll with kTick): a ping after the ping interval of send silence, and the
// connection counts as lost after the keep-alive time-out of receive silence.
//
// Sending, a change from the plain socket send of the protocol's first form: each connection sends
// whole messages one at a time (its sender and the dispatcher's pings write this socket), and a
// writer that finds no room in the socket waits until there is, for at most the keep-alive
// time-out, after which the connection counts as lost: the write fails and the dispatcher drops
// the connection (which closes its port). A message is thus never torn, and a client that stops
// reading holds up only its own replies, for no longer than that. The dispatcher's ping never waits at all: it
// is sent only when nobody else is sending and the socket has room; a ping that went out in part
// is completed before the next message.
#pragma once

#include <atomic>
#include <cstdint>

#include "connections/stream_connection.h"
#include "platform/socket.h"
#include "platform/sync.h"

namespace orlenda {

class TCPServer;

class CTCPConnection : public CSKStreamConnection {
 public:
  enum PollReason { kReadable = 1, kTick = 2 };
  // What one pass of the dispatcher receives for a readable connection: the dispatcher's buffer
  // (one for all its connections, as only it receives), filled and fed to the framer again while
  // the socket fills it whole, up to kReceivePerPass, so that a large frame takes one pass and a
  // few receives, and no client keeps the others waiting longer than that.
  static constexpr std::size_t kReceiveBuffer = 64 * 1024;
  static constexpr std::size_t kReceivePerPass = 256 * 1024;

  // Takes over `socket` (non-blocking, TCP_NODELAY on). `server` is woken when a write finds the
  // connection lost; it outlives the connection.
  CTCPConnection(platform::Socket socket, uint32_t ping_interval, uint32_t keepalive_timeout, TCPServer* server,
                 uint32_t peer);
  ~CTCPConnection() override;

  // SKR_SUCCESS, or SKR_SUSPENDED when the connection is lost. `buffer` (kReceiveBuffer bytes) is
  // the dispatcher's, for kReadable.
  uint32_t Poll(PollReason reason, uint8_t* buffer);
  void SetTiming(uint32_t ping_interval, uint32_t keepalive_timeout);
  // Milliseconds from `now` until this connection's next ping or keep-alive check is due.
  uint32_t MillisecondsUntilDue(uint32_t now) const;

  bool RawWrite(BlobRef message) override;
  void Abandon() override;

  platform::SocketHandle socket() const { return socket_.handle(); }
  uint32_t peer() const { return peer_; }

 private:
  // Sends the rest of a ping cut short; under the send lock.
  bool FinishPing(uint32_t limit_ms);
  void MarkLost();

  platform::Socket socket_;
  TCPServer* server_;
  const uint32_t peer_;
  std::atomic<uint32_t> last_send_;
  uint32_t last_receive_;               // the dispatcher's
  std::atomic<uint32_t> ping_interval_;
  std::atomic<uint32_t> keepalive_timeout_;
  std::atomic<bool> lost_{false};
  platform::CriticalSection send_lock_;
  uint32_t ping_left_ = 0;  // under the send lock: bytes of a ping still to go
};

}  // namespace orlenda
