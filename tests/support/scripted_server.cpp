#include "support/scripted_server.h"

#include "platform/errors.h"
#include "skein/protocol.h"

namespace orlenda::testing {

ScriptedServer::ScriptedServer(Answer answer) : answer_(std::move(answer)) {
  if (platform::OpenTcpSocket(&listener_) != platform::kErrorSuccess ||
      platform::BindIpv4(listener_, 0x7F000001u, 0) != platform::kErrorSuccess ||
      platform::ListenOn(listener_) != platform::kErrorSuccess ||
      platform::SetNonBlocking(listener_) != platform::kErrorSuccess ||
      platform::LocalPort(listener_, &port_) != platform::kErrorSuccess) {
    port_ = 0;
    return;
  }
  thread_ = std::thread([this] { Serve(); });
}

ScriptedServer::~ScriptedServer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

void ScriptedServer::Serve() {
  platform::Socket client;
  std::string pending;
  while (!stop_) {
    platform::SocketWait waits[2] = {{listener_.handle(), true, false, false, false},
                                     {client.handle(), client.is_open(), false, false, false}};
    std::size_t ready = 0;
    platform::WaitSockets(waits, client.is_open() ? 2 : 1, 20, &ready);
    uint32_t peer = 0;
    if (waits[0].readable && platform::AcceptClient(listener_, &client, &peer) == platform::kErrorSuccess) {
      pending.clear();
    }
    if (!client.is_open() || !waits[1].readable) continue;
    char buffer[65536];
    std::size_t got = 0;
    if (platform::Receive(client, buffer, sizeof(buffer), &got) != platform::kErrorSuccess || got == 0) {
      client.Close();
      continue;
    }
    pending.append(buffer, got);
    Frame request;
    while (TakeFrame(&pending, &request) == 1) {  // the client's pings are passed over
      const std::string bytes = answer_(request);
      if (bytes == kHangUp) {
        client.Close();
        break;
      }
      std::size_t sent = 0;
      if (!bytes.empty()) platform::SendAll(client, bytes.data(), bytes.size(), 5000, &sent);
    }
  }
}

}  // namespace orlenda::testing
