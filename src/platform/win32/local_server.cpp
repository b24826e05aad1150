// The local pipe's server end on Windows: named pipe instances, one always waiting for the next
// client; every client's reads are ReadFileEx with a completion routine, which runs on the loop
// thread during its alertable wait. Writes are overlapped writes that the writing thread waits for;
// a message-mode write is whole by nature, so writers need no lock between them.
#include "platform/local_server.h"

#include <atomic>
#include <new>

#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/win32/event_handle.h"
#include "platform/win32/pipe_server.h"
#include "platform/win32/windows.h"

#include <sddl.h>

namespace orlenda::platform {
namespace {

constexpr DWORD kBufferBytes = 4096;
constexpr DWORD kOpenMode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;                 // 0x40000003
// The stated mode (6), and beside it the rejection of remote clients: a pipe whose security lets
// every user in would otherwise also let in clients of other machines over file sharing, where
// they belong on TCP, which has its own limits.
constexpr DWORD kPipeMode = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS;
constexpr DWORD kDrainSleepMs = 10;
constexpr DWORD kDrainLimitMs = 5000;


// The pipe's security, made on first use and kept until the loop ends: every user may connect; on
// Windows 6 and later low-integrity processes too. When the text cannot be converted, instances
// get the default security and the next instance tries again.
class PipeSecurity {
 public:
  ~PipeSecurity() { Free(); }
  SECURITY_ATTRIBUTES* Get() {
    if (descriptor_ == nullptr) {
      OSVERSIONINFOW version{};
      version.dwOSVersionInfoSize = sizeof(version);
      const bool modern = GetVersionExW(&version) && version.dwMajorVersion >= 6;
      const wchar_t* text = modern ? L"D:NO_ACCESS_CONTROLS:(ML;;NWNR;;;LW)" : L"D:(A;OICI;GA;;;WD)";
      if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &descriptor_, nullptr)) {
        descriptor_ = nullptr;
        return nullptr;
      }
    }
    attributes_.nLength = sizeof(attributes_);
    attributes_.lpSecurityDescriptor = descriptor_;
    attributes_.bInheritHandle = FALSE;
    return &attributes_;
  }
  void Free() {
    if (descriptor_ != nullptr) LocalFree(descriptor_);
    descriptor_ = nullptr;
  }

 private:
  PSECURITY_DESCRIPTOR descriptor_ = nullptr;
  SECURITY_ATTRIBUTES attributes_{};
};

}  // namespace

struct LocalChannel {
  OVERLAPPED read{};  // first: the completion routine finds its channel from it
  HANDLE pipe = INVALID_HANDLE_VALUE;
  LocalServer::Handler* handler = nullptr;
  void* context = nullptr;
  std::atomic<bool> closing{false};  // set when the channel is being closed: routines do nothing
  std::atomic<bool> lost{false};     // a write failed: the next completion reports the client lost
  bool reading = false;              // a ReadFileEx is pending (loop thread only)
  uint8_t buffer[kBufferBytes];
};

struct LocalServer::Impl {
  PipeSecurity security;
};

LocalServer::LocalServer() : impl_(NewHeapObject<Impl>()) {}

LocalServer::~LocalServer() { DeleteHeapObject(impl_); }

void LocalServer::Wake() {}  // the loop waits on the stop event itself

uint32_t LocalServer::InstanceMode() { return kPipeMode; }

namespace {

void WINAPI ReadDone(DWORD error, DWORD bytes, OVERLAPPED* overlapped);

// Issues the channel's next read. False when it cannot be issued: the client is gone.
bool StartRead(LocalChannel* channel) {
  if (channel->lost.load(std::memory_order_acquire)) return false;
  channel->read = OVERLAPPED{};
  channel->reading = ReadFileEx(channel->pipe, channel->buffer, kBufferBytes, &channel->read, &ReadDone) != FALSE;
  return channel->reading;
}

void WINAPI ReadDone(DWORD error, DWORD bytes, OVERLAPPED* overlapped) {
  auto* channel = reinterpret_cast<LocalChannel*>(overlapped);
  channel->reading = false;
  if (channel->closing.load(std::memory_order_acquire)) return;
  // The error is not looked at: a read that cannot be issued again tells that the client is gone.
  (void)error;
  bool alive = true;
  if (bytes != 0) alive = channel->handler->OnBytes(channel->context, channel->buffer, bytes);
  if (alive && StartRead(channel)) return;
  channel->lost.store(true, std::memory_order_release);
  channel->handler->OnLost(channel->context);  // may close the channel: not touched afterwards
}

// A new instance with a connect pending on `connect`; INVALID_HANDLE_VALUE (reported) on failure.
HANDLE CreateAndConnectInstance(const wchar_t* name, PipeSecurity& security, OVERLAPPED* connect,
                                LocalServer::Handler* handler) {
  HANDLE pipe = CreateNamedPipeW(name, kOpenMode, kPipeMode, PIPE_UNLIMITED_INSTANCES, kBufferBytes, kBufferBytes, 0,
                                 security.Get());
  if (pipe == INVALID_HANDLE_VALUE) {
    handler->OnFailure(LocalServerFailure::kCreateInstance, GetLastError());
    return INVALID_HANDLE_VALUE;
  }
  HANDLE event = connect->hEvent;
  *connect = OVERLAPPED{};
  connect->hEvent = event;
  if (ConnectNamedPipe(pipe, connect)) {
    SetEvent(event);
    return pipe;
  }
  const DWORD error = GetLastError();
  if (error == ERROR_PIPE_CONNECTED) {
    SetEvent(event);  // a client came between the two calls
    return pipe;
  }
  if (error == ERROR_IO_PENDING) return pipe;
  handler->OnFailure(LocalServerFailure::kConnectInstance, error);
  CloseHandle(pipe);
  return INVALID_HANDLE_VALUE;
}

}  // namespace

void LocalServer::Run(const char16_t* name, Event* stop, Handler* handler) {
  wchar_t full_name[kMaxPipeName];
  if (impl_ == nullptr || !FullPipeName(name, full_name)) {
    handler->OnFailure(LocalServerFailure::kTerminated, kErrorInvalidParameter);
    return;
  }
  HANDLE connected = CreateEventW(nullptr, FALSE, FALSE, nullptr);  // auto reset
  OVERLAPPED connect{};
  connect.hEvent = connected;
  HANDLE waiting = connected == nullptr ? INVALID_HANDLE_VALUE
                                        : CreateAndConnectInstance(full_name, impl_->security, &connect, handler);
  bool failed = waiting == INVALID_HANDLE_VALUE;
  while (!failed) {
    HANDLE objects[2] = {EventHandle(*stop), connected};
    const DWORD result = WaitForMultipleObjectsEx(2, objects, FALSE, INFINITE, TRUE);
    if (result == WAIT_IO_COMPLETION) continue;
    if (result == WAIT_OBJECT_0) break;
    if (result != WAIT_OBJECT_0 + 1) {
      failed = true;
      break;
    }
    LocalChannel* channel = NewHeapObject<LocalChannel>();
    if (channel != nullptr) {
      channel->pipe = waiting;
      channel->handler = handler;
      channel->context = handler->OnConnect(channel);
      if (channel->context == nullptr) {
        CloseLocalChannel(channel);
      } else if (!StartRead(channel)) {
        channel->lost.store(true, std::memory_order_release);
        handler->OnLost(channel->context);
      }
    } else {
      DisconnectNamedPipe(waiting);
      CloseHandle(waiting);
    }
    waiting = CreateAndConnectInstance(full_name, impl_->security, &connect, handler);
    failed = waiting == INVALID_HANDLE_VALUE;
  }
  impl_->security.Free();
  if (failed) handler->OnFailure(LocalServerFailure::kTerminated, GetLastError());
  if (waiting != INVALID_HANDLE_VALUE) {
    CancelIo(waiting);
    CloseHandle(waiting);
  }
  if (connected != nullptr) CloseHandle(connected);
}

uint32_t WriteLocalChannel(LocalChannel* channel, const void* data, std::size_t size, uint32_t limit_ms) {
  if (channel->lost.load(std::memory_order_acquire)) return kErrorPipeNotConnected;
  HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (done == nullptr) return GetLastError();
  const auto* bytes = static_cast<const uint8_t*>(data);
  std::size_t left = size;
  DWORD error = ERROR_SUCCESS;
  while (left > 0 && error == ERROR_SUCCESS) {
    OVERLAPPED write{};
    write.hEvent = done;
    const DWORD chunk = left > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<DWORD>(left);
    DWORD written = 0;
    if (!WriteFile(channel->pipe, bytes, chunk, &written, &write)) {
      error = GetLastError();
      if (error == ERROR_IO_PENDING) {
        // A client that does not read is given up after the limit (the write is cancelled).
        error = ERROR_SUCCESS;
        if (WaitForSingleObject(done, limit_ms) != WAIT_OBJECT_0) CancelIoEx(channel->pipe, &write);
        if (!GetOverlappedResult(channel->pipe, &write, &written, TRUE)) error = GetLastError();
      }
    }
    bytes += written;
    left -= written;
    ResetEvent(done);
    if (error == ERROR_SUCCESS && written == 0) error = ERROR_NO_DATA;
  }
  CloseHandle(done);
  if (error != ERROR_SUCCESS && !channel->lost.exchange(true, std::memory_order_acq_rel)) {
    // The loop learns it from its pending read, which this cancels (with every other write).
    CancelIoEx(channel->pipe, nullptr);
  }
  return error;
}

void AbandonLocalChannel(LocalChannel* channel) {
  // The loop learns it from its pending read, which this cancels with the write in progress.
  if (!channel->lost.exchange(true, std::memory_order_acq_rel)) CancelIoEx(channel->pipe, nullptr);
}

void CloseLocalChannel(LocalChannel* channel) {
  if (channel == nullptr) return;
  channel->closing.store(true, std::memory_order_release);
  // The cancelled read's routine must have run before the channel goes; it runs only on the loop
  // thread, which is this one whenever a read is pending.
  CancelIoEx(channel->pipe, nullptr);
  for (DWORD waited = 0; channel->reading && waited < kDrainLimitMs; waited += kDrainSleepMs) {
    SleepEx(kDrainSleepMs, TRUE);
  }
  DisconnectNamedPipe(channel->pipe);
  CloseHandle(channel->pipe);
  // A routine that never came (it cannot, on a closed handle, but the memory would be its) keeps
  // the block: a leak is better than a write into freed memory.
  if (!channel->reading) DeleteHeapObject(channel);
}

}  // namespace orlenda::platform
