// SKServer: a listener for client connections with one dispatcher thread and a locked list of the
// connections it owns. The pipe server (CPipeServer) and the TCP server (TCPServer) derive from it.
//
// Life: constructed (stop event set, no thread) -> started (event reset, dispatcher running) ->
// stopping (event set; the dispatcher sees it, deletes every connection and returns) -> stopped
// (thread joined). Start may be called again after Stop. A derived server's destructor calls its
// own Stop first.
//
// Connections are added and removed by the dispatcher only. Deleting one waits for its requests
// (CSKStreamConnection), which may be blocked in a slow device for minutes, so a connection whose
// client went away while a request of it still runs is not deleted on the dispatcher thread (that
// would stall every other client of the server): Retire hands it to a thread of its own, and Stop
// waits for every retired connection to be gone before it returns, so that nothing of a server
// outlives it.
//
// Lock order: the connection lock is taken before anything of the port layer (deleting a
// connection closes its port).
#pragma once

#include <atomic>
#include <cstdint>
#include <list>

#include "common/heap.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace orlenda {

class CSKConnection;

class SKServer {
 public:
  SKServer();
  virtual ~SKServer();
  SKServer(const SKServer&) = delete;
  SKServer& operator=(const SKServer&) = delete;

  // Slot 0: the dispatcher body, on the dispatcher thread. It serves until the stop event is set
  // and calls DeleteAllConnections as its last act.
  virtual void ConnectionDispatcher() = 0;
  // Slot 1, the settings notification: reread the settings this server depends on and apply what
  // changed. Called from a request thread, with the server registry's lock held; it must not
  // register or unregister servers. The result is not looked at by the registry.
  virtual uint32_t ApplySettings() = 0;
  // Slot 2: starts the dispatcher thread. SKR_SUCCESS, or SKR_SYSTEM_ERROR (logged) when the
  // thread cannot be made.
  virtual uint32_t Start();
  // Slot 3: sets the stop event and waits for the dispatcher thread; then for the connections that
  // were retired. Returns 0; does nothing when no thread runs.
  virtual uint32_t Stop();

  bool running() const { return running_.load(std::memory_order_acquire); }
  platform::Event& stop_event() { return stop_; }

  // The connection list; each change under the connection lock.
  void AddConnection(CSKConnection* connection);
  void RemoveConnection(CSKConnection* connection);
  // Deletes every connection in list order, under the connection lock, then empties the list.
  void DeleteAllConnections();
  // Unlinks `connection` and deletes it: at once when no request of it runs, else on a thread of
  // its own that waits for them.
  void Retire(CSKConnection* connection);
  std::size_t ConnectionCount();

 protected:
  platform::CriticalSection& connection_lock() { return connection_lock_; }
  std::list<CSKConnection*, HeapAllocator<CSKConnection*>>& connections() { return connections_; }

 private:
  struct Retiring;
  static void DispatcherThread(void* server);
  static void RetiredThread(void* retiring);

  platform::Thread dispatcher_;
  std::atomic<bool> running_{false};
  platform::Event stop_{platform::ResetMode::kManual, true};
  platform::CriticalSection connection_lock_;
  std::list<CSKConnection*, HeapAllocator<CSKConnection*>> connections_;
  std::atomic<int32_t> retired_{0};
};

}  // namespace orlenda
