// Test support for the client side: the real servers (TCP and the local pipe) started in the test
// process on the port layer's fixture (port_test_fixture.h gives its stacks and members), and
// clients of the client library connected to them. Header-only: the tests that include it link the
// connections and the client library themselves.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "connections/pipe_server.h"
#include "connections/tcp_server.h"
#include "support/port_test_fixture.h"
#include "skein/client.hpp"
#include "support/wire_client.h"

namespace orlenda::testing {

enum class Transport { kTcp, kLocal };

inline const char* TransportName(const ::testing::TestParamInfo<Transport>& info) {
  return info.param == Transport::kTcp ? "Tcp" : "Local";
}

// The local pipe's name in the tests (never the service's own).
constexpr char kTestPipe[] = "skein-client-test";
constexpr char16_t kTestPipe16[] = u"skein-client-test";

class ServedTest : public port_testing::PortTest {
 protected:
  void TearDown() override {
    StopServers();
    PortTest::TearDown();
  }

  // Starts the server of `transport` (TCP on a free port with the given timing).
  void Serve(Transport transport, uint32_t ping = 500, uint32_t keepalive = 5000) {
    if (transport == Transport::kTcp) {
      tcp_port_ = FreeTcpPort();
      ASSERT_TRUE(port_testing::SetNumberProperty(u"/TCP_COMMUNICATION_PORT", tcp_port_));
      ASSERT_TRUE(port_testing::SetNumberProperty(u"/TCP_PING_INTERVAL", ping));
      ASSERT_TRUE(port_testing::SetNumberProperty(u"/TCP_KEEPALIVE_TIMEOUT", keepalive));
      servers_.emplace_back(new TCPServer());
    } else {
      servers_.emplace_back(new CPipeServer(kTestPipe16));
    }
    ASSERT_EQ(servers_.back()->Start(), SKR_SUCCESS);
  }

  // Stops and deletes every server, which deletes their connections and closes their ports.
  void StopServers() { servers_.clear(); }

  // "127.0.0.1:<port>" of the TCP server.
  std::string TcpAddress() const { return "127.0.0.1:" + std::to_string(tcp_port_); }

  // Connects `client` to the server of `transport`, retrying while the listener comes up.
  uint32_t Connect(skein::Client& client, Transport transport) {
    uint32_t result = SKC_CANNOT_CONNECT;
    for (int attempt = 0; attempt < 200 && result == SKC_CANNOT_CONNECT; ++attempt) {
      result = transport == Transport::kTcp ? client.ConnectTcp(TcpAddress()) : client.ConnectLocal(kTestPipe);
      if (result == SKC_CANNOT_CONNECT) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return result;
  }

  std::size_t Connections() const { return servers_.empty() ? 0 : servers_.back()->ConnectionCount(); }

  uint16_t tcp_port_ = 0;
  std::vector<std::unique_ptr<SKServer>> servers_;
};

}  // namespace orlenda::testing
