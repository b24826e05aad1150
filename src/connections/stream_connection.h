// CSKStreamConnection: a client connection that speaks the framed protocol over a byte stream (a
// pipe instance or a socket). The transport feeds the bytes it receives into Receive, on its
// dispatcher thread, and provides the raw write of one finished message (slot 3); this class turns
// whole frames into requests against the connection's port operations and writes the replies and
// the events the connection registered.
//
// Each request runs on a thread of its own (RequestPool), so the requests of one connection run at
// the same time and their replies may leave in any order; the client matches them by tag. The
// connection may not go away while a request runs: Shutdown waits for them.
//
// A transport's destructor calls Shutdown before it tears its stream down: it waits for the
// running requests, then closes the connection's port (which passes its lock on, and after which
// no event walk of the port can still reach this connection), and from then on pushed events are
// dropped. Only then may the raw write stop working.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/blob.h"
#include "connections/frame_reader.h"
#include "ports/sk_connection.h"

namespace orlenda {

class CSKStreamConnection : public CSKConnection, private FrameReader::Sink {
 public:
  CSKStreamConnection();
  ~CSKStreamConnection() override;

  // Feeds received bytes, in any split of the stream. False when the stream cannot go on (a frame
  // length too short for a header): the transport then drops the connection.
  bool Receive(const uint8_t* bytes, std::size_t size);

  // Slot 0: frames the event and hands it to the raw write.
  void PushEvent(uint32_t event, BlobRef data) override;
  // Slot 3: sends one whole message. False when it could not be sent.
  virtual bool RawWrite(BlobRef message) = 0;

  bool HasRequestsRunning() const override { return active_.load(std::memory_order_acquire) != 0; }

 protected:
  // The first step of every transport's destructor (see above). Idempotent.
  void Shutdown();

 private:
  struct Request;
  void OnFrame(BlobRef copy, uint32_t length) override;
  static void RequestMain(void* request);
  void Serve(const BlobRef& copy, uint32_t length);
  void Reply(uint32_t code, uint64_t tag, uint32_t result, const void* tail, std::size_t tail_size);

  FrameReader reader_;
  std::atomic<int32_t> active_{0};
  std::atomic<bool> shut_{false};
};

}  // namespace orlenda
