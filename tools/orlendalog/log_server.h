// The log service's listener: accepts any number of writers on the log pipe at once and reads each
// on a thread of its own into a RecordReader that reports to one shared sink.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/heap.h"
#include "platform/pipe.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "record_reader.h"

namespace orlenda::logservice {

class LogServer {
 public:
  // `sink` must be safe to call from several threads and outlive the server.
  explicit LogServer(RecordSink* sink) : sink_(sink) {}
  ~LogServer() { Stop(); }
  LogServer(const LogServer&) = delete;
  LogServer& operator=(const LogServer&) = delete;

  // Creates the pipe and starts accepting. Returns 0 or the system error.
  uint32_t Start();
  // Stops accepting new writers. Writers being read go on.
  void StopAccepting();
  // Stops accepting and waits until every writer already accepted has been read to its end.
  void Stop();

  // Writers accepted so far.
  uint64_t accepted() const { return accepted_.load(); }

 private:
  struct Connection;
  static void AcceptLoop(void* self);
  static void ReadConnection(void* connection);
  // Joins and frees the readers that have finished; with `all`, waits for every reader.
  void Reap(bool all);

  RecordSink* sink_;
  platform::PipeListener listener_;
  platform::Thread acceptor_;
  platform::CriticalSection connections_lock_;
  HeapVector<Connection*> connections_;
  std::atomic<uint64_t> accepted_{0};
};

}  // namespace orlenda::logservice
