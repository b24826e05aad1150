#include "log_server.h"

#include "common/heap.h"
#include "logging/log_record.h"
#include "platform/errors.h"

namespace orlenda::logservice {

uint32_t LogServer::Start() {
  const uint32_t error = loop_.Listen(logging::kLogServicePipeName, platform::PipeMode::kMessage);
  if (error != platform::kErrorSuccess) return error;
  if (!thread_.Start(&LogServer::RunLoop, this)) {
    const uint32_t start_error = platform::LastError();
    loop_.Shutdown();
    loop_.Run(this, kFlushIntervalMs);  // returns at once: the pipe goes away
    return start_error;
  }
  return platform::kErrorSuccess;
}

void LogServer::RunLoop(void* self) {
  LogServer* server = static_cast<LogServer*>(self);
  server->loop_.Run(server, kFlushIntervalMs);
}

void LogServer::Stop() {
  loop_.Shutdown();
  thread_.Join();
}

void* LogServer::OnConnect() {
  RecordReader* reader = HeapNew<RecordReader>(sink_);
  if (reader == nullptr) sink_->OnMalformed("out of memory; a writer was turned away");
  return reader;
}

void LogServer::OnBytes(void* writer, const uint8_t* bytes, std::size_t size) {
  static_cast<RecordReader*>(writer)->Feed(bytes, size);
}

void LogServer::OnDisconnect(void* writer) {
  RecordReader* reader = static_cast<RecordReader*>(writer);
  reader->Finish();
  HeapDelete(reader);
}

void LogServer::OnTick() { sink_->Flush(); }

}  // namespace orlenda::logservice
