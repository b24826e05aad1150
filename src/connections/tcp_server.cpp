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
// Deadlines closer than this to each other share one wake-up: a ping or a drop a few milliseconds
// late costs nothing, a wake-up for each of 63 clients costs processor time while all are idle.
constexpr uint32_t kShortestSleepMs = 25;
constexpr uint32_t kSleepWithoutWakeMs = 100;  // if the wake-up socket could not be made
constexpr uint32_t kSelectFailurePauseMs = 1000;

constexpr const char16_t* kCommunication = u"/SK_TCP_COMMUNICATION";
constexpr const char16_t* kPingInterval = u"/TCP_PING_INTERVAL";
constexpr const char16_t* kKeepaliveTimeout = u"/TCP_KEEPALIVE_TIMEOUT";
constexpr const char16_t* kPort = u"/TCP_COMMUNICATION_PORT";
constexpr const char16_t* kBindAddress = u"/TCP_BIND_ADDRESS";
constexpr const char16_t* kAllowedClients = u"/TCP_ALLOWED_CLIENTS";
constexpr const char16_t* kMaxConnections = u"/TCP_MAX_CONNECTIONS";
constexpr const char16_t* kEveryAddress = u"0.0.0.0";

WString StringOrDefault(const char16_t* path, const char16_t* fallback) {
  WString value;
  if (!CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.GetString(path, &value); })) {
    value = fallback;
    CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetString(path, value); });
  }
  return value;
}

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
  Settings settings;
  settings.enabled = StringOrDefault(kCommunication, u"Enable") == u"Enable";
  settings.keepalive_timeout = NumberOrDefault(kKeepaliveTimeout, kDefaultKeepaliveTimeout);
  settings.ping_interval = NumberOrDefault(kPingInterval, kDefaultPingInterval);
  settings.port = NumberOrDefault(kPort, SK_TCP_DEFAULT_PORT) & 0xFFFFu;
  settings.bind_address = StringOrDefault(kBindAddress, kEveryAddress);
  settings.allowed_clients = StringOrDefault(kAllowedClients, u"");
  settings.max_connections = NumberOrDefault(kMaxConnections, 0);
  return settings;
}

TCPServer::TCPServer() {
  const Settings settings = ReadSettings();
  enabled_ = settings.enabled;
  ping_interval_ = settings.ping_interval;
  keepalive_timeout_ = settings.keepalive_timeout;
  port_ = settings.port;
  bind_address_ = settings.bind_address;
  allowed_clients_ = settings.allowed_clients;
  max_connections_ = settings.max_connections;
  wake_open_ = wake_.Open() == platform::kErrorSuccess;
}

void TCPServer::TakeClientLimits() {
  WString allowed;
  {
    platform::ScopedLock hold(settings_lock_);
    allowed = allowed_clients_;
    connection_limit_ = max_connections_;
  }
  HeapVector<WString> rejected;
  filter_ = AddressFilter::Parse(View(allowed), &rejected);
  for (const WString& entry : rejected) {
    Log(kFailureLevel, u"-- TCPServer: TCP_ALLOWED_CLIENTS entry '%s' is no address or range: left out", entry);
  }
}

TCPServer::~TCPServer() { Stop(); }

uint32_t TCPServer::OpenListener() {
  platform::SocketStartup();
  listening_port_ = port_.load(std::memory_order_acquire);
  listening_ = false;
  {
    platform::ScopedLock hold(settings_lock_);
    listening_address_ = bind_address_;
  }
  uint32_t address = 0;
  if (!ParseIpv4(View(listening_address_), &address)) {
    // Listening everywhere instead would open the port wider than asked.
    Log(kFailureLevel, u"-- TCPServer: TCP_BIND_ADDRESS '%s' is no IPv4 address: not listening", listening_address_);
    return SKR_INVALID_PARAMETER;
  }
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
  error = platform::BindIpv4(listener_, address, static_cast<uint16_t>(listening_port_));
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
  bool limits_changed;
  {
    platform::ScopedLock hold(settings_lock_);
    limits_changed = settings.bind_address != bind_address_ || settings.allowed_clients != allowed_clients_ ||
                     settings.max_connections != max_connections_;
    bind_address_ = settings.bind_address;
    allowed_clients_ = settings.allowed_clients;
    max_connections_ = settings.max_connections;
  }
  const bool changed = ping_changed || keepalive_changed || port_changed || limits_changed;
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
  receive_buffer_.resize(CTCPConnection::kReceiveBuffer);
  TakeClientLimits();
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
    TakeClientLimits();
    bool moved;
    {
      platform::ScopedLock hold(settings_lock_);
      moved = port_.load(std::memory_order_acquire) != listening_port_ || bind_address_ != listening_address_;
    }
    if (moved) {
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
      if (due < sleep) sleep = due < kShortestSleepMs ? kShortestSleepMs : due;
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
      if (connection->Poll(readable ? CTCPConnection::kReadable : CTCPConnection::kTick, receive_buffer_.data()) !=
          SKR_SUCCESS) {
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
  if (!filter_.Allows(peer)) {
    Log(kTraceLevel, u"-- TCPServer: client %s refused: not among TCP_ALLOWED_CLIENTS", FormatIpv4(peer));
    return;  // closes the socket
  }
  if (connection_limit_ != 0 && ConnectionCount() >= connection_limit_) {
    Log(kTraceLevel, u"-- TCPServer: client %s refused: TCP_MAX_CONNECTIONS (%u) reached", FormatIpv4(peer),
        connection_limit_);
    return;
  }
  if (platform::SetNoDelay(client) != platform::kErrorSuccess) return;      // closes the socket
  if (platform::SetNonBlocking(client) != platform::kErrorSuccess) return;  // the same
  auto* connection = HeapNew<CTCPConnection>(std::move(client), ping_interval, keepalive_timeout, this, peer);
  if (connection != nullptr) AddConnection(connection);
}

}  // namespace orlenda
