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
// Sending: replies and events leave through the connection's send queue, in the order they were
// made, one whole message at a time. A request thread that finds nobody sending writes its own
// reply (no thread hop on the common path) and hands whatever queued up behind it to a pool
// thread; an event push never writes: it queues the event and, when nobody is sending, starts a
// pool thread for it. So a client that stops reading holds up only its own requests, never the
// thread that raised an event (a device's, or another client's write on the same port). When the
// queue holds more than kSendQueueBytes behind the message being written, or a raw write fails,
// the stream cannot stay whole: everything queued is dropped and the transport is told to give
// the client up (Abandon), which then loses its connection as if it had gone away.
//
// A transport's destructor calls Shutdown before it tears its stream down: it waits for the
// running requests and sends, then closes the connection's port (which passes its lock on, and
// after which no event walk of the port can still reach this connection), and from then on pushed
// events are dropped. Only then may the raw write stop working.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/blob.h"
#include "common/heap.h"
#include "connections/frame_reader.h"
#include "platform/sync.h"
#include "ports/sk_connection.h"

namespace orlenda {

class CSKStreamConnection : public CSKConnection, private FrameReader::Sink {
 public:
  CSKStreamConnection();
  ~CSKStreamConnection() override;

  // Feeds received bytes, in any split of the stream. False when the stream cannot go on (a frame
  // length too short for a header): the transport then drops the connection.
  bool Receive(const uint8_t* bytes, std::size_t size);

  // Bytes the send queue may hold behind the message being written.
  static constexpr uint64_t kSendQueueBytes = 4 * 1024 * 1024;

  // Slot 0: frames the event and queues it; never waits for the client.
  void PushEvent(uint32_t event, BlobRef data) override;
  // Slot 3: sends one whole message. False when it could not be sent; the transport then counts
  // the client as lost.
  virtual bool RawWrite(BlobRef message) = 0;
  // The client cannot be served whole any more (its send queue overflowed): the transport drops it
  // as lost. Any thread; must not wait for a raw write in progress.
  virtual void Abandon() = 0;

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
  // Queues a message; a request thread (`write_own`) writes it at once when nobody is sending.
  void Send(BlobRef message, bool write_own);
  // Writes queued messages in order until the queue is empty; with `own_only`, only the first and
  // then hands the rest to a pool thread.
  void Drain(bool own_only);
  void StartDrain();
  // Under the send lock: nothing queued or later is ever sent.
  void BreakLocked();
  static void DrainMain(void* self);
  void WaitIdle() const;

  FrameReader reader_;
  // Requests running and pool threads sending: the connection's last touch by either.
  std::atomic<int32_t> active_{0};
  std::atomic<bool> shut_{false};
  platform::CriticalSection send_lock_;  // a leaf: nothing is called while it is held
  HeapDeque<BlobRef> send_queue_;
  uint64_t queued_bytes_ = 0;
  bool sending_ = false;  // a thread is writing (and owns the queue's head)
  bool broken_ = false;   // a write failed or the queue overflowed: nothing more is sent
};

}  // namespace orlenda
