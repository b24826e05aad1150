// The client end of a local pipe: Windows named pipes "\\.\pipe\<name>", on POSIX Unix stream
// sockets "<run dir>/<name>". Names are given without the "\\.\pipe\" prefix. The pipes' server
// ends are PipeReadLoop (the log service) and LocalServer (the broker).
//
// Every call returns 0 or a system error from errors.h. On POSIX a stream socket has no message
// boundaries; readers of the log record format need none, since each record carries its lengths.
#pragma once

#include <cstdint>

namespace orlenda::platform {

// How a pipe carries what is written to it: a stream of bytes, or messages one write each.
enum class PipeMode { kByte, kMessage };

// A client's connection to a pipe. Movable, closes on destruction.
class PipeStream {
 public:
  PipeStream() = default;
  ~PipeStream() { Close(); }
  PipeStream(PipeStream&& other) noexcept : handle_(other.handle_) { other.handle_ = kClosed; }
  PipeStream& operator=(PipeStream&& other) noexcept {
    if (this != &other) {
      Close();
      handle_ = other.handle_;
      other.handle_ = kClosed;
    }
    return *this;
  }
  PipeStream(const PipeStream&) = delete;
  PipeStream& operator=(const PipeStream&) = delete;

  bool is_open() const { return handle_ != kClosed; }

  // Opens the pipe `name` for writing, and for reading too when `read_access` is set. Fails with
  // kErrorFileNotFound when no server listens and kErrorPipeBusy when every instance is in use.
  uint32_t Open(const char16_t* name, bool read_access);
  // SetNamedPipeHandleState with the read mode. POSIX accepts and ignores it.
  uint32_t SetReadMode(PipeMode mode);
  // One write call; *written tells how much went out. Writing to a pipe whose server end has gone
  // fails with kErrorPipeNotConnected or kErrorNoData (Windows) / kErrorPipeNotConnected (POSIX).
  uint32_t Write(const void* data, uint32_t size, uint32_t* written);
  void Close();

 private:
  static constexpr intptr_t kClosed = -1;
  intptr_t handle_ = kClosed;
};

// WaitNamedPipeW: waits up to `timeout_ms` for an instance of `name` to become free. Returns 0
// when one is. When the pipe does not exist the call still lasts the time-out before it fails
// (kErrorFileNotFound), so a caller that retries in a loop does not spin.
uint32_t WaitForPipe(const char16_t* name, uint32_t timeout_ms);

}  // namespace orlenda::platform
