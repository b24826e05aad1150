// The local pipe's client end on Windows: the named pipe opened for overlapped I/O in message read
// mode. The reader thread keeps one overlapped read outstanding and waits for it together with a
// wake-up event; a read still pending when the wait ends is simply waited for again by the next
// Receive. Writes are overlapped too, each waited for with its limit, so a blocked read never
// holds up a write, as it would on a handle opened for synchronous I/O.
#include <atomic>
#include <initializer_list>

#include "platform/client_channel_impl.h"
#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/win32/pipe_server.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

class PipeChannel final : public ClientChannel::Impl {
 public:
  ~PipeChannel() override {
    if (pipe_ != INVALID_HANDLE_VALUE) {
      CancelIoEx(pipe_, nullptr);
      if (reading_) {
        // The read's OVERLAPPED and buffer are this object's: the read must be over first.
        DWORD ignored = 0;
        GetOverlappedResult(pipe_, &read_, &ignored, TRUE);
      }
      CloseHandle(pipe_);
    }
    for (HANDLE event : {read_event_, write_event_, wake_event_}) {
      if (event != nullptr) CloseHandle(event);
    }
  }

  uint32_t Connect(const char16_t* name, uint32_t timeout_ms) {
    wchar_t full[kMaxPipeName];
    if (!FullPipeName(name, full)) return kErrorInvalidParameter;
    read_event_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    write_event_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    wake_event_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (read_event_ == nullptr || write_event_ == nullptr || wake_event_ == nullptr) return GetLastError();
    const DWORD start = GetTickCount();
    for (;;) {
      pipe_ = CreateFileW(full, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
      if (pipe_ != INVALID_HANDLE_VALUE) break;
      const DWORD error = GetLastError();
      if (error != ERROR_PIPE_BUSY) return error;
      // Every instance is taken: wait for one, within what is left of the time-out.
      const DWORD spent = GetTickCount() - start;
      if (spent >= timeout_ms || !WaitNamedPipeW(full, timeout_ms - spent)) return kErrorTimedOut;
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (!SetNamedPipeHandleState(pipe_, &mode, nullptr, nullptr)) return GetLastError();
    return kErrorSuccess;
  }

  uint32_t SendWhole(const void* data, std::size_t size, uint32_t limit_ms) override {
    if (closed_.load(std::memory_order_acquire)) return kErrorPipeNotConnected;
    OVERLAPPED write{};
    write.hEvent = write_event_;
    ResetEvent(write_event_);
    if (!WriteFile(pipe_, data, static_cast<DWORD>(size), nullptr, &write)) {
      const DWORD error = GetLastError();
      if (error != ERROR_IO_PENDING) return error;
      if (WaitForSingleObject(write_event_, limit_ms) != WAIT_OBJECT_0) {
        // The service does not read: give up; the OVERLAPPED lives here, so wait for the cancel.
        CancelIoEx(pipe_, &write);
        DWORD ignored = 0;
        GetOverlappedResult(pipe_, &write, &ignored, TRUE);
        return kErrorTimedOut;
      }
    }
    DWORD written = 0;
    if (!GetOverlappedResult(pipe_, &write, &written, FALSE)) return GetLastError();
    return written == size ? kErrorSuccess : kErrorTimedOut;
  }

  ClientChannel::Received Receive(uint32_t timeout_ms, const uint8_t** bytes, std::size_t* size) override {
    *size = 0;
    if (closed_.load(std::memory_order_acquire)) return ClientChannel::Received::kClosed;
    if (!reading_) {
      read_ = OVERLAPPED{};
      read_.hEvent = read_event_;
      ResetEvent(read_event_);
      if (!ReadFile(pipe_, buffer_, sizeof(buffer_), nullptr, &read_)) {
        const DWORD error = GetLastError();
        if (error != ERROR_IO_PENDING && error != ERROR_MORE_DATA) return ClientChannel::Received::kClosed;
      }
      reading_ = true;  // also when it finished at once: the event is set, the wait returns at once
    }
    HANDLE objects[2] = {read_event_, wake_event_};
    const DWORD which = WaitForMultipleObjects(2, objects, FALSE, timeout_ms);
    if (closed_.load(std::memory_order_acquire)) return ClientChannel::Received::kClosed;
    if (which == WAIT_TIMEOUT || which == WAIT_OBJECT_0 + 1) return ClientChannel::Received::kNothing;
    if (which != WAIT_OBJECT_0) return ClientChannel::Received::kClosed;
    DWORD got = 0;
    const BOOL done = GetOverlappedResult(pipe_, &read_, &got, FALSE);
    reading_ = false;
    // A message longer than the buffer comes in pieces: the rest with the next read.
    if (!done && GetLastError() != ERROR_MORE_DATA) return ClientChannel::Received::kClosed;
    if (got == 0) return ClientChannel::Received::kNothing;
    *bytes = buffer_;
    *size = got;
    return ClientChannel::Received::kBytes;
  }

  void Wake() override { SetEvent(wake_event_); }

  void Shutdown() override {
    closed_.store(true, std::memory_order_release);
    SetEvent(wake_event_);
    CancelIoEx(pipe_, nullptr);  // a write waiting for room ends too
  }

 private:
  HANDLE pipe_ = INVALID_HANDLE_VALUE;
  HANDLE read_event_ = nullptr;
  HANDLE write_event_ = nullptr;  // senders take turns: one is enough
  HANDLE wake_event_ = nullptr;   // auto reset
  OVERLAPPED read_{};
  bool reading_ = false;          // the reader thread's: a read is outstanding
  std::atomic<bool> closed_{false};
  uint8_t buffer_[kClientChannelBuffer];
};

}  // namespace

uint32_t ConnectLocalChannel(const char16_t* name, uint32_t timeout_ms, ClientChannel::Impl** out) {
  PipeChannel* channel = NewHeapObject<PipeChannel>();
  if (channel == nullptr) return kErrorNotEnoughMemory;
  const uint32_t error = channel->Connect(name, timeout_ms);
  if (error != kErrorSuccess) {
    DeleteHeapObject(channel);
    return error;
  }
  *out = channel;
  return kErrorSuccess;
}

}  // namespace orlenda::platform
