// One client connection: the calls of any number of threads matched to their replies by tag, a
// reader thread that receives replies and events (and, over TCP, sends the pings and watches the
// keep-alive), and the one lost state that fails every pending and later call.
//
// Lock order: the pending-call lock is never held while sending or while the event callback runs.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "frame_parser.h"
#include "platform/client_channel.h"
#include "platform/thread.h"
#include "skein/client.h"

namespace orlenda::client {

class Connection : private FrameParser::Sink {
 public:
  // What came back: the result and the bytes after it (a Write's count, an Ioctl's output).
  struct Reply {
    uint32_t result = 0;
    std::vector<uint8_t> data;
  };

  // `options` with every zero field replaced by its default.
  explicit Connection(const SkClientOptions& options);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Connects and starts the reader. SKR_SUCCESS, SKC_CANNOT_CONNECT or SKC_OUT_OF_MEMORY.
  uint32_t ConnectLocal(const char16_t* pipe_name);
  uint32_t ConnectTcp(const char* host, uint16_t port);

  // Sends request `code` with the body `head` then `body` (either may be empty) and waits for its
  // reply. The reply's result, or one of the library's codes.
  uint32_t Call(uint32_t code, const void* head, std::size_t head_size, const void* body, std::size_t body_size,
                Reply* reply);

  // SKR_SUCCESS while connected, else the code calls fail with.
  uint32_t lost() const { return lost_.load(std::memory_order_acquire); }

 private:
  struct Pending {
    uint32_t code = 0;
    bool done = false;
    Reply* reply = nullptr;
    std::condition_variable changed;
  };

  uint32_t Start();
  static void ReaderThread(void* self);
  void ReaderLoop();
  // Over TCP: pings when due; how long the reader may wait before it must look again (kInfinite on
  // the local pipe). False when the keep-alive time-out passed or a ping could not be sent.
  bool KeepAlive(uint32_t* wait_ms);
  // Marks the connection lost with `code` (the first code stays) and fails every pending call.
  void Lose(uint32_t code);
  void Complete(uint64_t tag, uint32_t code, uint32_t result, const uint8_t* data, std::size_t size);

  void OnFrame(uint32_t code, uint64_t tag, const uint8_t* body, std::size_t size) override;
  void OnTooLarge(uint32_t code, uint64_t tag) override;

  const SkClientOptions options_;
  platform::ClientChannel channel_;
  FrameParser parser_;
  platform::Thread reader_;
  std::atomic<uint32_t> reader_id_{0};
  std::atomic<bool> closing_{false};
  std::atomic<uint32_t> lost_{0};
  std::atomic<uint64_t> next_tag_{1};
  std::atomic<uint32_t> last_send_{0};
  uint32_t last_receive_ = 0;  // the reader's

  std::mutex mutex_;  // guards pending_ and each Pending's done and reply
  std::unordered_map<uint64_t, Pending*> pending_;
};

}  // namespace orlenda::client
