// Named pipes on Windows. The listener keeps one free instance at all times, created in Listen and
// again right after each Accept, so a client can connect whenever the server is up. Server-side
// instances are opened for overlapped I/O, which lets Accept wait for a client and for Shutdown at
// once; their reads and writes wait for completion, so callers see blocking calls either way.
#include "platform/pipe.h"

#include <new>

#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/sync.h"
#include "platform/win32/pipe_server.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

constexpr DWORD kBufferBytes = 4096;
constexpr DWORD kWaitPollMs = 10;

HANDLE AsHandle(intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

// One event per thread for the overlapped I/O of server-side streams: a thread waits for one
// operation at a time, so it can always reuse the same event.
class ThreadIoEvent {
 public:
  ~ThreadIoEvent() {
    if (event_ != nullptr) CloseHandle(event_);
  }
  HANDLE get() {
    if (event_ == nullptr) event_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return event_;
  }

 private:
  HANDLE event_ = nullptr;
};

thread_local ThreadIoEvent t_io_event;

// Runs ReadFile or WriteFile; on an overlapped handle waits for the operation to complete.
// Returns 0 or the error, the bytes moved in *done.
template <typename Operation>
DWORD TransferBlocking(HANDLE handle, bool overlapped, DWORD* done, Operation operation) {
  *done = 0;
  if (!overlapped) {
    return operation(done, nullptr) ? ERROR_SUCCESS : GetLastError();
  }
  OVERLAPPED ov{};
  ov.hEvent = t_io_event.get();
  if (ov.hEvent == nullptr) return GetLastError();
  if (!operation(nullptr, &ov)) {
    DWORD error = GetLastError();
    if (error != ERROR_IO_PENDING && error != ERROR_MORE_DATA) return error;
  }
  // Also when the operation finished at once: only the overlapped result tells how many bytes moved.
  return GetOverlappedResult(handle, &ov, done, TRUE) ? ERROR_SUCCESS : GetLastError();
}

}  // namespace

uint32_t PipeStream::Write(const void* data, uint32_t size, uint32_t* written) {
  *written = 0;
  if (!is_open()) return kErrorInvalidHandle;
  HANDLE handle = AsHandle(handle_);
  DWORD done = 0;
  DWORD error = TransferBlocking(handle, server_side_, &done, [&](DWORD* n, OVERLAPPED* ov) {
    return WriteFile(handle, data, size, n, ov) != FALSE;
  });
  *written = done;
  return error;
}

uint32_t PipeStream::Read(void* buffer, uint32_t size, uint32_t* got) {
  *got = 0;
  if (!is_open()) return kErrorInvalidHandle;
  HANDLE handle = AsHandle(handle_);
  DWORD done = 0;
  DWORD error = TransferBlocking(handle, server_side_, &done, [&](DWORD* n, OVERLAPPED* ov) {
    return ReadFile(handle, buffer, size, n, ov) != FALSE;
  });
  switch (error) {
    case ERROR_SUCCESS:
    case ERROR_MORE_DATA:  // the rest of the message comes with the next read
      *got = done;
      return kErrorSuccess;
    case ERROR_BROKEN_PIPE:
    case ERROR_PIPE_NOT_CONNECTED:
      return kErrorSuccess;  // the other end has gone: end of stream
    default:
      return error;
  }
}

void PipeStream::Close() {
  if (!is_open()) return;
  HANDLE handle = AsHandle(handle_);
  if (server_side_) DisconnectNamedPipe(handle);
  CloseHandle(handle);
  handle_ = kClosed;
  server_side_ = false;
}

uint32_t PipeStream::Open(const char16_t* name, bool read_access) {
  Close();
  wchar_t full[kMaxPipeName];
  if (!FullPipeName(name, full)) return kErrorInvalidParameter;
  DWORD access = GENERIC_WRITE | (read_access ? GENERIC_READ : 0);
  HANDLE handle = CreateFileW(full, access, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return GetLastError();
  handle_ = reinterpret_cast<intptr_t>(handle);
  server_side_ = false;
  return kErrorSuccess;
}

uint32_t PipeStream::SetReadMode(PipeMode mode) {
  if (!is_open()) return kErrorInvalidHandle;
  DWORD read_mode = mode == PipeMode::kMessage ? PIPE_READMODE_MESSAGE : PIPE_READMODE_BYTE;
  return SetNamedPipeHandleState(AsHandle(handle_), &read_mode, nullptr, nullptr) ? kErrorSuccess
                                                                                  : GetLastError();
}

uint32_t WaitForPipe(const char16_t* name, uint32_t timeout_ms) {
  wchar_t full[kMaxPipeName];
  if (!FullPipeName(name, full)) return kErrorInvalidParameter;
  const DWORD start = GetTickCount();
  for (;;) {
    if (WaitNamedPipeW(full, timeout_ms)) return kErrorSuccess;
    DWORD error = GetLastError();
    // A missing pipe fails at once. Spend the time-out here, so that a caller retrying in a loop
    // does not spin; a wait without end keeps looking for the pipe instead.
    if (error != ERROR_FILE_NOT_FOUND) return error;
    DWORD elapsed = GetTickCount() - start;
    if (timeout_ms != kInfinite) {
      if (elapsed < timeout_ms) Sleep(timeout_ms - elapsed);
      return error;
    }
    Sleep(kWaitPollMs);
  }
}

struct PipeListener::Impl : PipeServer {
  // Waits until a client is connected to `next`. 0, kErrorOperationAborted or the error.
  DWORD WaitForClient() {
    OVERLAPPED ov{};
    ov.hEvent = connected();
    ResetEvent(ov.hEvent);
    if (ConnectNamedPipe(next, &ov)) return ERROR_SUCCESS;
    DWORD error = GetLastError();
    // Already connected between CreateNamedPipeW and here; or connected and gone again, which the
    // stream reports as end of stream after any data the client left.
    if (error == ERROR_PIPE_CONNECTED || error == ERROR_NO_DATA) return ERROR_SUCCESS;
    if (error != ERROR_IO_PENDING) return error;
    HANDLE events[] = {connected(), shutdown()};
    DWORD which = WaitForMultipleObjects(2, events, FALSE, INFINITE);
    DWORD ignored = 0;
    if (which != WAIT_OBJECT_0) {
      DWORD wait_error = which == WAIT_OBJECT_0 + 1 ? kErrorOperationAborted : GetLastError();
      // The OVERLAPPED lives on this stack: the operation must be over before returning.
      CancelIo(next);
      if (GetOverlappedResult(next, &ov, &ignored, TRUE)) return ERROR_SUCCESS;  // connected meanwhile
      if (wait_error == kErrorOperationAborted) {
        // No client may connect to a listener that is leaving.
        CloseHandle(next);
        next = INVALID_HANDLE_VALUE;
      }
      return wait_error;
    }
    return GetOverlappedResult(next, &ov, &ignored, FALSE) ? ERROR_SUCCESS : GetLastError();
  }
};

PipeListener::~PipeListener() {
  DeleteHeapObject(impl_);
  impl_ = nullptr;
}

uint32_t PipeListener::Listen(const char16_t* name, PipeMode mode) {
  if (impl_ != nullptr) return kErrorInvalidParameter;  // one pipe per listener
  return NewServerBody(name, mode, kBufferBytes, &impl_);
}

uint32_t PipeListener::Accept(PipeStream* client) {
  if (impl_ == nullptr) return kErrorInvalidHandle;
  // After Shutdown, a client already connected to the free instance is still handed out, so that
  // what it sent is not lost; the wait below sees the shutdown only when none is.
  const bool stopping = WaitForSingleObject(impl_->shutdown(), 0) == WAIT_OBJECT_0;
  // A failed instance creation after the previous Accept is retried here.
  if (impl_->next == INVALID_HANDLE_VALUE) {
    if (stopping) return kErrorOperationAborted;
    DWORD error = impl_->CreateInstance();
    if (error != ERROR_SUCCESS) return error;
  }
  DWORD error = impl_->WaitForClient();
  if (error != ERROR_SUCCESS) return error;
  client->Close();
  client->handle_ = reinterpret_cast<intptr_t>(impl_->next);
  client->server_side_ = true;
  impl_->next = INVALID_HANDLE_VALUE;
  // At once, so the pipe never looks absent to the next client; none once the listener is leaving.
  if (!stopping) impl_->CreateInstance();
  return kErrorSuccess;
}

void PipeListener::Shutdown() {
  if (impl_ != nullptr) SetEvent(impl_->shutdown());
}

}  // namespace orlenda::platform
