#include "log_server.h"

#include "logging/log_record.h"
#include "platform/errors.h"

namespace orlenda::logservice {

struct LogServer::Connection {
  RecordSink* sink = nullptr;
  platform::PipeStream stream;
  platform::Thread thread;
  std::atomic<bool> finished{false};
};

uint32_t LogServer::Start() {
  const uint32_t error = listener_.Listen(logging::kLogServicePipeName, platform::PipeMode::kMessage);
  if (error != platform::kErrorSuccess) return error;
  if (!acceptor_.Start(&LogServer::AcceptLoop, this)) {
    listener_.Shutdown();
    return platform::LastError();
  }
  return platform::kErrorSuccess;
}

void LogServer::AcceptLoop(void* self_pointer) {
  LogServer* self = static_cast<LogServer*>(self_pointer);
  for (;;) {
    platform::PipeStream stream;
    const uint32_t error = self->listener_.Accept(&stream);
    if (error == platform::kErrorOperationAborted) return;
    if (error != platform::kErrorSuccess) {
      // A failed accept (a client that vanished at once) is no reason to stop serving the others.
      platform::SleepMs(10);
      continue;
    }
    self->accepted_.fetch_add(1);
    self->Reap(false);
    Connection* connection = HeapNew<Connection>();
    if (connection == nullptr) {
      self->sink_->OnMalformed("out of memory; a writer was turned away");
      continue;
    }
    connection->sink = self->sink_;
    connection->stream = std::move(stream);
    if (!connection->thread.Start(&LogServer::ReadConnection, connection)) {
      // No thread for it: read it here rather than lose its record.
      ReadConnection(connection);
    }
    platform::ScopedLock hold(self->connections_lock_);
    self->connections_.push_back(connection);
  }
}

void LogServer::ReadConnection(void* connection_pointer) {
  Connection* connection = static_cast<Connection*>(connection_pointer);
  RecordReader reader(connection->sink);
  uint8_t chunk[4096];
  for (;;) {
    uint32_t got = 0;
    if (connection->stream.Read(chunk, sizeof chunk, &got) != platform::kErrorSuccess || got == 0) break;
    reader.Feed(chunk, got);
  }
  reader.Finish();
  connection->stream.Close();
  connection->finished.store(true);
}

void LogServer::Reap(bool all) {
  HeapVector<Connection*> done;
  {
    platform::ScopedLock hold(connections_lock_);
    auto keep = connections_.begin();
    for (Connection* c : connections_) {
      if (all || c->finished.load()) {
        done.push_back(c);
      } else {
        *keep++ = c;
      }
    }
    connections_.erase(keep, connections_.end());
  }
  for (Connection* c : done) {
    c->thread.Join();
    HeapDelete(c);
  }
}

void LogServer::StopAccepting() {
  listener_.Shutdown();
  acceptor_.Join();
}

void LogServer::Stop() {
  StopAccepting();
  Reap(true);
}

}  // namespace orlenda::logservice
