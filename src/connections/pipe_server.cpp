#include "connections/pipe_server.h"

#include "common/heap.h"
#include "logging/log.h"
#include "platform/errors.h"

namespace orlenda {
namespace {

constexpr uint32_t kFailureLevel = 0;
constexpr uint32_t kTraceLevel = 4;

}  // namespace

CPipeConnection::CPipeConnection(platform::LocalChannel* channel) : channel_(channel) {}

CPipeConnection::~CPipeConnection() {
  Shutdown();  // no request, no event may write after this
  platform::CloseLocalChannel(channel_);
}

bool CPipeConnection::RawWrite(BlobRef message) {
  return platform::WriteLocalChannel(channel_, message.data(), static_cast<std::size_t>(message.size()),
                                     kWriteLimitMs) == platform::kErrorSuccess;
}

void CPipeConnection::Abandon() { platform::AbandonLocalChannel(channel_); }

CPipeServer::CPipeServer(const char16_t* name) : name_(name) {}

CPipeServer::~CPipeServer() { Stop(); }

uint32_t CPipeServer::Stop() {
  stop_event().Set();
  local_.Wake();
  return SKServer::Stop();
}

void CPipeServer::ConnectionDispatcher() {
  local_.Run(name_, &stop_event(), this);
  DeleteAllConnections();  // on this thread: their pending reads are cancelled here
}

void* CPipeServer::OnConnect(platform::LocalChannel* channel) {
  auto* connection = HeapNew<CPipeConnection>(channel);
  if (connection != nullptr) AddConnection(connection);
  return connection;
}

bool CPipeServer::OnBytes(void* context, const uint8_t* bytes, std::size_t size) {
  return static_cast<CPipeConnection*>(context)->Receive(bytes, size);
}

void CPipeServer::OnLost(void* context) { Retire(static_cast<CPipeConnection*>(context)); }

void CPipeServer::OnFailure(platform::LocalServerFailure what, uint32_t error) {
  switch (what) {
    case platform::LocalServerFailure::kCreateInstance:
      Log(kFailureLevel, u"-- CPipeServer::CreateAndConnectInstance Win32API::CreateNamedPipe(...) = <%d>", error);
      break;
    case platform::LocalServerFailure::kConnectInstance:
      Log(kFailureLevel, u"-- CPipeServer::CreateAndConnectInstance Win32API::ConnectNamedPipe(...) = <%d>", error);
      break;
    case platform::LocalServerFailure::kUnsafeFolder:
      Log(kFailureLevel,
          u"-- CPipeServer: the pipe's folder could be changed by other users (it must be a folder of this user "
          u"or root that nobody else may write): not listening");
      break;
    case platform::LocalServerFailure::kTerminated:
      Log(kTraceLevel, u"PipeServer: Thread terminated. Last error : %d", error);
      break;
  }
}

}  // namespace orlenda
