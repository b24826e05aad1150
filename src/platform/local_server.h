// The server end of the service's local pipe, for clients on the same machine: Windows named pipe
// instances "\\.\pipe\<name>" (duplex, message mode), on POSIX the Unix stream socket
// "<run dir>/<name>" (mode 0666). One thread runs the loop: it accepts clients and reads them all,
// and every call of the handler comes from it. Writes to a client may come from any thread.
//
// Windows: one unconnected instance always waits; each client's reads are ReadFileEx with a
// completion routine, run on the loop thread while it waits alertably; the pipe's security allows
// every user (on Windows 6 and later also low-integrity processes). POSIX: poll on the listening
// socket and the clients' sockets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/sync.h"

namespace orlenda::platform {

// One connected client; owned by the loop until handed to CloseLocalChannel.
struct LocalChannel;

// What the loop reports of its set-up; the caller logs it.
enum class LocalServerFailure {
  kCreateInstance,   // Windows CreateNamedPipeW; POSIX creating the socket
  kConnectInstance,  // Windows ConnectNamedPipe
  kUnsafeFolder,     // POSIX: the socket's folder is not this user's (or root's) alone
  kTerminated,       // the loop ended early (after one of the above, or a failed wait)
};

class LocalServer {
 public:
  class Handler {
   public:
    virtual ~Handler() = default;
    // A client connected. Returns its context, handed back with its bytes and its end; null turns
    // the client away (the channel is closed by the loop).
    virtual void* OnConnect(LocalChannel* channel) = 0;
    // Bytes of the client, in order. False drops the client (OnLost follows).
    virtual bool OnBytes(void* context, const uint8_t* bytes, std::size_t size) = 0;
    // The client is gone (or a write to it failed). No read of it is pending any more: the handler
    // may close its channel on any thread. The loop does not call it again for this client.
    virtual void OnLost(void* context) = 0;
    virtual void OnFailure(LocalServerFailure what, uint32_t error) = 0;
  };

  LocalServer();
  ~LocalServer();
  LocalServer(const LocalServer&) = delete;
  LocalServer& operator=(const LocalServer&) = delete;

  // Runs the loop on the calling thread until `stop` is set (and Wake called, for POSIX). Clients
  // still connected when it returns are the caller's: close their channels on this thread.
  void Run(const char16_t* name, Event* stop, Handler* handler);
  // Makes a running loop look at its stop event now. Any thread.
  void Wake();
  // The pipe mode its Windows instances are created with (PIPE_TYPE_MESSAGE |
  // PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS); 0 on POSIX. The system has no
  // call that reads the remote-rejection flag back from an instance.
  static uint32_t InstanceMode();

 private:
  struct Impl;
  Impl* impl_;
};

// Writes one whole message to the client. Waits while the client does not read, for at most
// `limit_ms` without progress; then (or when the client is gone) fails, and the client counts as
// lost (the loop reports it). Concurrent writers each send a whole message.
uint32_t WriteLocalChannel(LocalChannel* channel, const void* data, std::size_t size, uint32_t limit_ms);

// Gives the client up as lost (the loop reports it), without waiting for a write in progress,
// which fails. Any thread.
void AbandonLocalChannel(LocalChannel* channel);

// Ends the client and frees the channel: on the loop's thread, or for a client the loop reported
// lost, on any thread.
void CloseLocalChannel(LocalChannel* channel);

}  // namespace orlenda::platform
