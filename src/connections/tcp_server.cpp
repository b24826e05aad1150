#include "connections/tcp_server.h"

#include "common/heap.h"
#include "common/result_codes.h"
#include "components/configuration.h"
#include "connections/tcp_connection.h"
#include "logging/log.h"
#include "platform/thread.h"
#include "skein/protocol.h"

namespace orlenda {
namespace {

constexpr uint32_t kFailureLevel = 0;
constexpr uint32_t kTraceLevel = 4;
constexpr uint32_t kLongestSleepMs = 1000;
constexpr uint32_t kSleepWithoutWakeMs = 100;  // if the wake-up socket could not be made
constexpr uint32_t kSelectFailurePauseMs = 1000;

constexpr const char16_t* kCommunication = u"/SK_TCP_COMMUNICATION";
constexpr const char16_t* kPingInterval = u"/TCP_PING_INTERVAL";
constexpr const char16_t* kKeepaliveTimeout = u"/TCP_KEEPALIVE_TIMEOUT";
constexpr const char16_t* kPort = u"/TCP_COMMUNICATION_PORT";

uint32_t NumberOrDefault(const char16_t* path, uint32_t fallback) {
  uint32_t value = fallback;
  if (!CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.GetNumber(path, &value); })) {
    value = fallback;
    CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetNumber(path, fallback); });
  }
  return value;
}

}  // namespace

TCPServer::Settings TCPServer::ReadSettings() {
  WString mode;
  if (!CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.GetString(kCommunication, &mode); })) {
    mode = u"Enable";
    CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetString(kCommunication, mode); });
  }
  Settings settings;
  settings.enabled = mode == u"Enable";
  settings.keepalive_timeout = NumberOrDefault(kKeepaliveTimeout, kDefaultKeepaliveTimeout);
  settings.ping_interval = NumberOrDefault(kPingInterval, kDefaultPingInterval);
  settings.port = NumberOrDefault(kPort, SK_TCP_DEFAULT_PORT) & 0xFFFFu;
  return settings;
}

TCPServer::TCPServer() {
  const Settings settings = ReadSettings();
  enabled_ = settings.enabled;
  ping_interval_ = settings.ping_interval;
  keepalive_timeout_ = settings.keepalive_timeout;
  port_ = settings.port;
  wake_open_ = wake_.Open() == platform::kErrorSuccess;
}

TCPServer::~TCPServer() { Stop(); }

uint32_t TCPServer::OpenListener() {
  platform::SocketStartup();
  listening_port_ = port_.load(std::memory_order_acquire);
  listening_ = false;
  uint32_t error = platform::OpenTcpSocket(&listener_);
  if (error != platform::kErrorSuccess) {
    Log(kFailureLevel, u"-- TCPServer::TCPServer Win32API::socket(AF_INET, SOCK_STREAM, 0) = <%d>", error);
    return SKR_SYSTEM_ERROR;
  }
  error = platform::SetNonBlocking(listener_);
  if (error != platform::kErrorSuccess) {
    Log(kFailureLevel, u"-- TCPServer::TCPServer Win32API::ioctlsocket(socket, FIONBIO, &flag) = <%d>", error);
    return SKR_SYSTEM_ERROR;
  }
  error = platform::BindIpv4(listener_, 0, static_cast<uint16_t>(listening_port_));
  if (error != platform::kErrorSuccess) {
    Log(kFailureLevel,
        u"-- TCPServer::TCPServer Win32API::bind(socket, (struct sockaddr *)&sAddr, sizeof(sAddr)) = <%d>", error);
    return SKR_SYSTEM_ERROR;
  }
  error = platform::ListenOn(listener_);
  if (error != platform::kErrorSuccess) {
    Log(kFailureLevel, u"-- TCPServer::TCPServer Win32API::listen(socket, SOMAXCONN) = <%d>", error);
    return SKR_SYSTEM_ERROR;
  }
  listening_ = true;
  return SKR_SUCCESS;
}

void TCPServer::CloseListener() {
  listener_.Close();
  listening_ = false;
}

uint32_t TCPServer::Start() {
  if (!enabled()) return SKR_INVALID_PARAMETER;
  if (running()) return SKR_SUCCESS;
  OpenListener();  // a failure is logged; the clients already here would still be served
  return SKServer::Start();
}

uint32_t TCPServer::Stop() {
  stop_event().Set();
  Wake();
  SKServer::Stop();
  CloseListener();
  return SKR_SUCCESS;
}

uint32_t TCPServer::ApplySettings() {
  const Settings settings = ReadSettings();
  // Each exchange must run, so no short-circuit here.
  const bool ping_changed = settings.ping_interval != ping_interval_.exchange(settings.ping_interval);
  const bool keepalive_changed = settings.keepalive_timeout != keepalive_timeout_.exchange(settings.keepalive_timeout);
  const bool port_changed = settings.port != port_.exchange(settings.port);
  const bool changed = ping_changed || keepalive_changed || port_changed;
  enabled_ = settings.enabled;
  if (settings.enabled) {
    if (!running()) Start();
  } else if (running()) {
    Stop();
  }
  if (changed) {
    settings_applied_.Reset();
    settings_changed_.Set();
    Wake();
    platform::Event* done[] = {&settings_applied_, &stop_event()};
    platform::WaitForAny(done, 2, platform::kInfinite);
    settings_changed_.Reset();
  }
  return SKR_SUCCESS;
}

void TCPServer::ConnectionDispatcher() {
  uint32_t ping_interval = ping_interval_;
  uint32_t keepalive_timeout = keepalive_timeout_;
  if (!stop_event().Wait(0)) {
    while (Pass(&ping_interval, &keepalive_timeout)) {
    }
  }
  DeleteAllConnections();
}

bool TCPServer::Pass(uint32_t* ping_interval, uint32_t* keepalive_timeout) {
  // New settings: timing for every connection, and a listener on a new port.
  bool new_timing = false;
  if (settings_changed_.Wait(0) && !settings_applied_.Wait(0)) {
    new_timing = *ping_interval != ping_interval_ || *keepalive_timeout != keepalive_timeout_;
    *ping_interval = ping_interval_;
    *keepalive_timeout = keepalive_timeout_;
    if (port_.load(std::memory_order_acquire) != listening_port_) {
      CloseListener();
      OpenListener();
    }
    settings_applied_.Set();
  }

  // The read set: the wake-up socket, the listening socket, then the first 63 connections. All
  // connections count for the time to sleep.
  platform::SocketWait set[kReadSetSize + 1];
  std::size_t count = 0;
  std::size_t clients = 0;
  if (wake_open_) set[count++] = platform::SocketWait{wake_.handle(), true, false, false, false};
  const std::size_t listener_at = count;
  set[count++] = platform::SocketWait{listener_.handle(), listening_, false, false, false};
  const std::size_t first_client = count;
  uint32_t sleep = wake_open_ ? kLongestSleepMs : kSleepWithoutWakeMs;
  {
    platform::ScopedLock hold(connection_lock());
    const uint32_t now = platform::TickCountMs();
    for (CSKConnection* c : connections()) {
      auto* connection = static_cast<CTCPConnection*>(c);
      if (new_timing) connection->SetTiming(*ping_interval, *keepalive_timeout);
      if (clients + 1 < kReadSetSize) {
        ++clients;
        set[count++] = platform::SocketWait{connection->socket(), true, false, false, false};
      }
      const uint32_t due = connection->MillisecondsUntilDue(now);
      if (due < sleep) sleep = due;
    }
  }

  // Only the dispatcher changes the list, so it may sleep without the lock.
  std::size_t ready = 0;
  const uint32_t error = platform::WaitSockets(set, count, sleep, &ready);
  if (error != platform::kErrorSuccess) {
    Log(kFailureLevel, u"-- TCPServer::ConnectionDispatcher Win32API::select(0, &inFd, NULL, NULL, &tv) = <%d>",
        error);
    stop_event().Wait(kSelectFailurePauseMs);
    return !stop_event().Wait(0);
  }
  if (wake_open_ && set[0].readable) wake_.Drain();

  {
    platform::ScopedLock hold(connection_lock());
    HeapVector<CSKConnection*> lost;
    std::size_t position = 0;
    for (CSKConnection* c : connections()) {
      auto* connection = static_cast<CTCPConnection*>(c);
      const bool readable = position < clients && set[first_client + position].readable;
      ++position;
      if (connection->Poll(readable ? CTCPConnection::kReadable : CTCPConnection::kTick) != SKR_SUCCESS) {
        Log(kTraceLevel, u"Connection lost.");
        lost.push_back(connection);
      }
    }
    for (CSKConnection* connection : lost) Retire(connection);
  }

  if (set[listener_at].readable) AcceptOne(*ping_interval, *keepalive_timeout);
  return !stop_event().Wait(0);
}

void TCPServer::AcceptOne(uint32_t ping_interval, uint32_t keepalive_timeout) {
  platform::Socket client;
  uint32_t peer = 0;
  if (platform::AcceptClient(listener_, &client, &peer) != platform::kErrorSuccess) return;
  if (platform::SetNoDelay(client) != platform::kErrorSuccess) return;      // closes the socket
  if (platform::SetNonBlocking(client) != platform::kErrorSuccess) return;  // the same
  auto* connection = HeapNew<CTCPConnection>(std::move(client), ping_interval, keepalive_timeout, this, peer);
  if (connection != nullptr) AddConnection(connection);
}

}  // namespace orlenda
