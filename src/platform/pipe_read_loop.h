// The receiving end of a pipe that many writers keep open for a long time: one thread accepts them
// and reads them all as their bytes arrive, with no thread per writer. On Windows the loop waits
// alertably for the next client while ReadFileEx completion routines take each writer's bytes; on
// POSIX it polls the listening socket and every writer's socket.
//
// Every call of the handler comes from the thread that runs the loop, so a handler needs no lock
// of its own. Bytes of one writer arrive in the order it wrote them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/pipe.h"

namespace orlenda::platform {

class PipeReadLoop {
 public:
  class Handler {
   public:
    virtual ~Handler() = default;
    // A writer connected. What this returns comes back with the writer's bytes and at its end;
    // null turns the writer away.
    virtual void* OnConnect() = 0;
    virtual void OnBytes(void* writer, const uint8_t* bytes, std::size_t size) = 0;
    // The writer hung up, or the loop is ending. Its last call for `writer`.
    virtual void OnDisconnect(void* writer) = 0;
    // At least every tick_ms while the loop runs (also while bytes keep arriving), and once as it
    // ends, after the last bytes.
    virtual void OnTick() = 0;
  };

  PipeReadLoop() = default;
  ~PipeReadLoop();
  PipeReadLoop(const PipeReadLoop&) = delete;
  PipeReadLoop& operator=(const PipeReadLoop&) = delete;

  // Creates the pipe `name` (inbound, any number of writers, `mode` on Windows). 0 or the error.
  uint32_t Listen(const char16_t* name, PipeMode mode);

  // Runs the loop on the calling thread until Shutdown. Before it returns, the bytes that the
  // writers (also those that connected and were not yet taken) had sent by the time it stops
  // accepting are read and handed over, and every writer is disconnected. On POSIX the writers'
  // later writes fail from that moment; on Windows a write that slips in after the last read is
  // lost with the pipe. Returns 0, or the error that ended the loop early.
  uint32_t Run(Handler* handler, uint32_t tick_ms);

  // Ends the loop: new writers no longer find the pipe and Run returns soon. Any thread; also
  // before Run, which then only reads what is waiting.
  void Shutdown();

 private:
  struct Impl;
  Impl* impl_ = nullptr;
};

}  // namespace orlenda::platform
