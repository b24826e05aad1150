// The server end of a pipe on Windows as PipeReadLoop builds on it: the full name
// "\\.\pipe\<name>" the system wants (which the clients and the local server use too), the pipe's
// type, the making of free inbound instances, and the two events a server waits on.
#pragma once

#include <cstddef>

#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/pipe.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {

constexpr std::size_t kMaxPipeName = 256;  // the system's limit, prefix included

// "\\.\pipe\<name>" into `out` (kMaxPipeName units); false when empty or too long.
inline bool FullPipeName(const char16_t* name, wchar_t* out) {
  static constexpr wchar_t kPipePrefix[] = L"\\\\.\\pipe\\";
  if (name == nullptr || name[0] == 0) return false;
  std::size_t used = 0;
  for (const wchar_t* c = kPipePrefix; *c != 0; ++c) out[used++] = *c;
  for (const char16_t* c = name; *c != 0; ++c) {
    if (used + 1 >= kMaxPipeName) return false;
    out[used++] = static_cast<wchar_t>(*c);
  }
  out[used] = 0;
  return true;
}

// The base of a server's body: the name and type, the free instance `next` that the next client
// connects to, and the events.
class PipeServer {
 public:
  PipeServer() = default;
  ~PipeServer() {
    if (next != INVALID_HANDLE_VALUE) CloseHandle(next);
    if (connected_ != nullptr) CloseHandle(connected_);
    if (shutdown_ != nullptr) CloseHandle(shutdown_);
  }
  PipeServer(const PipeServer&) = delete;
  PipeServer& operator=(const PipeServer&) = delete;

  DWORD Init(const char16_t* name, PipeMode mode, DWORD buffer_bytes) {
    if (!FullPipeName(name, name_)) return kErrorInvalidParameter;
    pipe_mode_ = mode == PipeMode::kMessage ? PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE
                                            : PIPE_TYPE_BYTE | PIPE_READMODE_BYTE;
    buffer_bytes_ = buffer_bytes;
    connected_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    shutdown_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return connected_ == nullptr || shutdown_ == nullptr ? GetLastError() : ERROR_SUCCESS;
  }

  // Makes `next` a new free inbound instance for overlapped I/O (any number of them). 0 or the
  // error; `next` is then INVALID_HANDLE_VALUE.
  DWORD CreateInstance() {
    next = CreateNamedPipeW(name_, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, pipe_mode_ | PIPE_WAIT,
                            PIPE_UNLIMITED_INSTANCES, buffer_bytes_, buffer_bytes_, 0, nullptr);
    return next == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
  }

  HANDLE connected() const { return connected_; }  // manual reset: an overlapped ConnectNamedPipe's
  HANDLE shutdown() const { return shutdown_; }    // manual reset: set once, for good

  HANDLE next = INVALID_HANDLE_VALUE;

 private:
  wchar_t name_[kMaxPipeName] = {};
  DWORD pipe_mode_ = 0;
  DWORD buffer_bytes_ = 0;
  HANDLE connected_ = nullptr;
  HANDLE shutdown_ = nullptr;
};

// Makes the body of a server (a PipeServer of its own kind) with its first free instance, so that
// the pipe exists as soon as this returns. 0 or the error.
template <class Impl>
DWORD NewServerBody(const char16_t* name, PipeMode mode, DWORD buffer_bytes, Impl** out) {
  Impl* impl = NewHeapObject<Impl>();
  if (impl == nullptr) return kErrorNotEnoughMemory;
  DWORD error = impl->Init(name, mode, buffer_bytes);
  if (error == ERROR_SUCCESS) error = impl->CreateInstance();
  if (error != ERROR_SUCCESS) {
    DeleteHeapObject(impl);
    return error;
  }
  *out = impl;
  return ERROR_SUCCESS;
}

}  // namespace orlenda::platform
