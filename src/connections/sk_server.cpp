#include "connections/sk_server.h"

#include "common/result_codes.h"
#include "connections/request_pool.h"
#include "logging/log.h"
#include "platform/errors.h"
#include "ports/sk_connection.h"

namespace orlenda {
namespace {

constexpr uint32_t kFailureLevel = 0;
constexpr uint32_t kPollMs = 10;

}  // namespace

struct SKServer::Retiring {
  SKServer* server;
  CSKConnection* connection;
};

SKServer::SKServer() = default;

SKServer::~SKServer() {
  // A derived server has stopped by now; what is left in the list was never served.
  DeleteAllConnections();
}

void SKServer::DispatcherThread(void* server) { static_cast<SKServer*>(server)->ConnectionDispatcher(); }

uint32_t SKServer::Start() {
  if (running()) return SKR_SUCCESS;
  stop_.Reset();
  if (!dispatcher_.Start(&DispatcherThread, this)) {
    Log(kFailureLevel,
        u"-- SKServer::start Win32API::CreateThread(NULL, 0, ConnectionDispatcherThread, this, 0, &dwThreadId) = <%d>",
        platform::LastError());
    stop_.Set();
    return SKR_SYSTEM_ERROR;
  }
  running_.store(true, std::memory_order_release);
  return SKR_SUCCESS;
}

uint32_t SKServer::Stop() {
  if (running()) {
    stop_.Set();
    dispatcher_.Join();
    running_.store(false, std::memory_order_release);
  }
  while (retired_.load(std::memory_order_acquire) > 0) platform::SleepMs(kPollMs);
  return SKR_SUCCESS;
}

void SKServer::AddConnection(CSKConnection* connection) {
  platform::ScopedLock hold(connection_lock_);
  connections_.push_back(connection);
}

void SKServer::RemoveConnection(CSKConnection* connection) {
  platform::ScopedLock hold(connection_lock_);
  for (auto it = connections_.begin(); it != connections_.end(); ++it) {
    if (*it == connection) {
      connections_.erase(it);
      return;
    }
  }
}

void SKServer::DeleteAllConnections() {
  platform::ScopedLock hold(connection_lock_);
  for (CSKConnection* connection : connections_) HeapDelete(connection);
  connections_.clear();
}

std::size_t SKServer::ConnectionCount() {
  platform::ScopedLock hold(connection_lock_);
  return connections_.size();
}

void SKServer::Retire(CSKConnection* connection) {
  RemoveConnection(connection);
  if (!connection->HasRequestsRunning()) {
    HeapDelete(connection);
    return;
  }
  auto* retiring = HeapNew<Retiring>();
  if (retiring != nullptr) {
    *retiring = Retiring{this, connection};
    retired_.fetch_add(1, std::memory_order_acq_rel);
    if (RequestPool::Run(&RetiredThread, retiring)) return;
    retired_.fetch_sub(1, std::memory_order_acq_rel);
    HeapDelete(retiring);
  }
  HeapDelete(connection);  // no thread to spare: wait here
}

void SKServer::RetiredThread(void* argument) {
  auto* retiring = static_cast<Retiring*>(argument);
  SKServer* server = retiring->server;
  HeapDelete(retiring->connection);  // waits for its requests
  HeapDelete(retiring);
  server->retired_.fetch_sub(1, std::memory_order_acq_rel);
}

}  // namespace orlenda
