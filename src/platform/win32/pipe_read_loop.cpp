// The pipe read loop on Windows. The loop thread keeps one free pipe instance with an overlapped
// ConnectNamedPipe pending on it, and waits alertably for that connection or for Shutdown. Each
// writer has one ReadFileEx pending at a time; its completion routine runs on the loop thread
// during that alertable wait, hands the bytes over and starts the next read.
#include "platform/pipe_read_loop.h"

#include <new>
#include <vector>

#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/win32/pipe_server.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

constexpr DWORD kBufferBytes = 64 * 1024;
// At the end, the writers' bytes are read until the pipes stay quiet this long, for at most
// kDrainMs in all.
constexpr DWORD kQuietMs = 20;
constexpr DWORD kDrainMs = 1000;

}  // namespace

struct PipeReadLoop::Impl : PipeServer {
  struct Client {
    OVERLAPPED ov;  // first: the completion routine finds its client from it
    Impl* loop;
    HANDLE pipe;
    void* context;
    bool reading;   // a ReadFileEx is pending
    bool stopping;  // no further read once the pending one completes
    bool ended;
    uint8_t buffer[kBufferBytes];
  };

  OVERLAPPED connect_ov{};
  bool connect_pending = false;
  Handler* handler = nullptr;
  std::vector<Client*> clients;

  // Waits for writers on free instances, taking at once those already connected.
  DWORD StartConnect() {
    for (;;) {
      if (next == INVALID_HANDLE_VALUE) {
        const DWORD error = CreateInstance();
        if (error != ERROR_SUCCESS) return error;
      }
      connect_ov = OVERLAPPED{};
      connect_ov.hEvent = connected();
      ResetEvent(connect_ov.hEvent);
      DWORD error = ConnectNamedPipe(next, &connect_ov) ? ERROR_SUCCESS : GetLastError();
      if (error == ERROR_IO_PENDING) {
        connect_pending = true;
        return ERROR_SUCCESS;
      }
      // Connected between CreateNamedPipeW and here; or connected and gone again, which reads as
      // the end of its stream after any bytes it left.
      if (error == ERROR_SUCCESS || error == ERROR_PIPE_CONNECTED || error == ERROR_NO_DATA) {
        Adopt();
        continue;
      }
      CloseHandle(next);
      next = INVALID_HANDLE_VALUE;
      return error;
    }
  }

  // The pending connection completed (or was cancelled).
  void ConnectDone(bool wait) {
    connect_pending = false;
    DWORD ignored = 0;
    if (GetOverlappedResult(next, &connect_ov, &ignored, wait ? TRUE : FALSE)) {
      Adopt();
    } else {
      CloseHandle(next);  // the writer vanished before it was taken
      next = INVALID_HANDLE_VALUE;
    }
  }

  // Makes the connected free instance a writer of its own.
  void Adopt() {
    HANDLE pipe = next;
    next = INVALID_HANDLE_VALUE;
    Client* client = NewHeapObject<Client>();
    void* context = client == nullptr ? nullptr : handler->OnConnect();
    if (context == nullptr) {
      DeleteHeapObject(client);
      DisconnectNamedPipe(pipe);
      CloseHandle(pipe);
      return;
    }
    client->loop = this;
    client->pipe = pipe;
    client->context = context;
    clients.push_back(client);
    StartRead(client);
  }

  static void StartRead(Client* client) {
    client->ov = OVERLAPPED{};
    client->reading = true;
    // A message longer than the buffer is a success that Windows reports through GetLastError
    // and Wine through a failed call with ERROR_MORE_DATA; either way the routine comes.
    if (!ReadFileEx(client->pipe, client->buffer, kBufferBytes, &client->ov, &ReadDone) &&
        GetLastError() != ERROR_MORE_DATA) {
      client->reading = false;
      End(client);
    }
  }

  static void WINAPI ReadDone(DWORD error, DWORD bytes, OVERLAPPED* ov) {
    Client* client = reinterpret_cast<Client*>(ov);
    client->reading = false;
    // ERROR_MORE_DATA: a message longer than the buffer; its rest comes with the next read.
    if (error != ERROR_SUCCESS && error != ERROR_MORE_DATA) {
      End(client);
      return;
    }
    if (bytes != 0) client->loop->handler->OnBytes(client->context, client->buffer, bytes);
    if (!client->stopping) StartRead(client);
  }

  static void End(Client* client) {
    if (client->ended) return;
    client->ended = true;
    client->loop->handler->OnDisconnect(client->context);
    DisconnectNamedPipe(client->pipe);
    CloseHandle(client->pipe);
  }

  // Frees the writers that have ended.
  void Reap() {
    std::size_t kept = 0;
    for (Client* client : clients) {
      if (client->ended && !client->reading) {
        DeleteHeapObject(client);
      } else {
        clients[kept++] = client;
      }
    }
    clients.resize(kept);
  }

  void Finish() {
    // Writers that connected by now are still read: StartConnect takes those already there and
    // leaves one wait pending, which is cancelled (a writer that connects meanwhile is taken too).
    if (!connect_pending) StartConnect();
    if (connect_pending) {
      CancelIoEx(next, &connect_ov);
      ConnectDone(/*wait=*/true);
    }
    if (next != INVALID_HANDLE_VALUE) CloseHandle(next);
    next = INVALID_HANDLE_VALUE;
    // What the writers have sent completes their pending reads at once; read until all is quiet.
    const DWORD start = GetTickCount();
    while (GetTickCount() - start < kDrainMs && SleepEx(kQuietMs, TRUE) == WAIT_IO_COMPLETION) {
    }
    for (Client* client : clients) {
      client->stopping = true;
      if (client->reading) CancelIoEx(client->pipe, &client->ov);
    }
    // The cancelled reads' routines run in these waits; a cancellation completes promptly.
    for (int round = 0; round < 100; ++round) {
      bool reading = false;
      for (Client* client : clients) reading = reading || client->reading;
      if (!reading) break;
      SleepEx(10, TRUE);
    }
    for (Client* client : clients) {
      if (!client->reading) End(client);
    }
    Reap();
    handler->OnTick();
  }
};

PipeReadLoop::~PipeReadLoop() {
  DeleteHeapObject(impl_);
  impl_ = nullptr;
}

uint32_t PipeReadLoop::Listen(const char16_t* name, PipeMode mode) {
  if (impl_ != nullptr) return kErrorInvalidParameter;  // one pipe per loop
  return NewServerBody(name, mode, kBufferBytes, &impl_);
}

uint32_t PipeReadLoop::Run(Handler* handler, uint32_t tick_ms) {
  if (impl_ == nullptr) return kErrorInvalidHandle;
  Impl& loop = *impl_;
  loop.handler = handler;
  DWORD error = ERROR_SUCCESS;
  DWORD last_tick = GetTickCount();
  for (;;) {
    if (WaitForSingleObject(loop.shutdown(), 0) == WAIT_OBJECT_0) break;
    // Also a retry, once a tick, after a free instance could not be made.
    if (!loop.connect_pending) loop.StartConnect();
    const DWORD since_tick = GetTickCount() - last_tick;
    const DWORD timeout = since_tick >= tick_ms ? 0 : tick_ms - since_tick;
    HANDLE events[2] = {loop.shutdown(), loop.connected()};
    const DWORD which = WaitForMultipleObjectsEx(loop.connect_pending ? 2 : 1, events, FALSE, timeout, TRUE);
    if (which == WAIT_OBJECT_0 + 1) {
      loop.ConnectDone(/*wait=*/false);
    } else if (which == WAIT_FAILED) {
      error = GetLastError();
      break;
    }
    loop.Reap();
    if (GetTickCount() - last_tick >= tick_ms) {
      handler->OnTick();
      last_tick = GetTickCount();
    }
  }
  loop.Finish();
  return error;
}

void PipeReadLoop::Shutdown() {
  if (impl_ != nullptr) SetEvent(impl_->shutdown());
}

}  // namespace orlenda::platform
