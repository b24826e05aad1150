// The local pipe endpoint: Windows named pipes "\\.\pipe\<name>", on POSIX Unix stream sockets
// "<run dir>/<name>" (mode 0666). Names are given without the "\\.\pipe\" prefix.
//
// Every call returns 0 or a system error from errors.h. On POSIX a stream socket has no message
// boundaries; readers of the log record format need none, since each record carries its lengths.
#pragma once

#include <cstdint>

namespace orlenda::platform {

enum class PipeMode { kByte, kMessage };

// A connected pipe end, client or server side. Movable, closes on destruction.
class PipeStream {
 public:
  PipeStream() = default;
  ~PipeStream() { Close(); }
  PipeStream(PipeStream&& other) noexcept : handle_(other.handle_), server_side_(other.server_side_) {
    other.handle_ = kClosed;
    other.server_side_ = false;
  }
  PipeStream& operator=(PipeStream&& other) noexcept {
    if (this != &other) {
      Close();
      handle_ = other.handle_;
      server_side_ = other.server_side_;
      other.handle_ = kClosed;
      other.server_side_ = false;
    }
    return *this;
  }
  PipeStream(const PipeStream&) = delete;
  PipeStream& operator=(const PipeStream&) = delete;

  bool is_open() const { return handle_ != kClosed; }

  // One write call; *written tells how much went out. Writing to a pipe whose other end has gone
  // fails with kErrorPipeNotConnected or kErrorNoData (Windows) / kErrorPipeNotConnected (POSIX).
  uint32_t Write(const void* data, uint32_t size, uint32_t* written);
  // One read call. At the end of the stream (the other end closed) returns 0 with *got == 0.
  // A message longer than `size` is returned in pieces (kErrorMoreData is absorbed).
  uint32_t Read(void* buffer, uint32_t size, uint32_t* got);
  // Closes the handle (on the server side after disconnecting the client).
  void Close();

  // Client side: opens the pipe `name` for writing, and for reading too when `read_access` is set.
  // Fails with kErrorFileNotFound when no server listens and kErrorPipeBusy when every instance
  // is in use.
  uint32_t Open(const char16_t* name, bool read_access);
  // Client side: SetNamedPipeHandleState with the read mode. POSIX accepts and ignores it.
  uint32_t SetReadMode(PipeMode mode);

 private:
  friend class PipeListener;
  static constexpr intptr_t kClosed = -1;
  intptr_t handle_ = kClosed;
  bool server_side_ = false;
};

// WaitNamedPipeW: waits up to `timeout_ms` for an instance of `name` to become free. Returns 0
// when one is. When the pipe does not exist the call still lasts the time-out before it fails
// (kErrorFileNotFound), so a caller that retries in a loop does not spin.
uint32_t WaitForPipe(const char16_t* name, uint32_t timeout_ms);

// The server end: accepts any number of clients, one PipeStream each.
class PipeListener {
 public:
  PipeListener() = default;
  ~PipeListener();
  PipeListener(const PipeListener&) = delete;
  PipeListener& operator=(const PipeListener&) = delete;

  // Creates the pipe `name` (inbound, unlimited instances, in `mode` on Windows; on POSIX a stale
  // socket file of the same name is replaced and the run directory is created when missing).
  uint32_t Listen(const char16_t* name, PipeMode mode);
  // Waits for the next client. After Shutdown, hands out the clients that had already connected,
  // one per call, and then returns kErrorOperationAborted.
  uint32_t Accept(PipeStream* client);
  // Ends the listener: new clients no longer find the pipe, and a waiting Accept wakes. Any thread
  // may call it.
  void Shutdown();

 private:
  struct Impl;
  Impl* impl_ = nullptr;
};

}  // namespace orlenda::platform
