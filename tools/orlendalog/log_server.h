// The log service's listener: one thread reads every writer on the log pipe, however many there
// are and however many records each sends over its connection, into a RecordReader per writer
// that reports to one shared sink. The sink is flushed every kFlushIntervalMs and when the server
// stops.
#pragma once

#include <cstdint>

#include "platform/pipe_read_loop.h"
#include "platform/thread.h"
#include "record_reader.h"

namespace orlenda::logservice {

class LogServer : private platform::PipeReadLoop::Handler {
 public:
  static constexpr uint32_t kFlushIntervalMs = 100;

  // `sink` is called from the server's thread only; it must outlive the server.
  explicit LogServer(RecordSink* sink) : sink_(sink) {}
  ~LogServer() override { Stop(); }
  LogServer(const LogServer&) = delete;
  LogServer& operator=(const LogServer&) = delete;

  // Creates the pipe and starts reading. Returns 0 or the system error.
  uint32_t Start();
  // Takes no new writers, reads what the writers had sent by now, hands it to the sink, flushes
  // the sink and returns. The writers' connections are closed.
  void Stop();

 private:
  void* OnConnect() override;
  void OnBytes(void* writer, const uint8_t* bytes, std::size_t size) override;
  void OnDisconnect(void* writer) override;
  void OnTick() override;
  static void RunLoop(void* self);

  RecordSink* sink_;
  platform::PipeReadLoop loop_;
  platform::Thread thread_;
};

}  // namespace orlenda::logservice
