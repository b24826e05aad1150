// The transports with real sockets: what both do (a lost client's port is closed and its lock
// passed on, a stop deletes every connection, a client that stops reading gets whole frames or is
// dropped), and what TCP adds (pings, the keep-alive drop, the 63 clients it reads, its settings at
// run time). The local pipe is exercised here where it is a socket (POSIX); the Windows pipe is
// exercised through the client library.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "connections/address_filter.h"
#include "platform/errors.h"
#include "platform/local_server.h"
#include "skein/protocol.h"
#include "support/log_capture.h"
#include "support/served_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers
using namespace orlenda::testing;       // NOLINT: the wire client and its frames

class TransportTest : public ServedTest, public ::testing::WithParamInterface<Transport> {
 protected:
  SKServer& server() { return *servers_.back(); }

  std::unique_ptr<WireClient> Connect(Transport transport = Transport::kTcp) {
    auto client = std::make_unique<WireClient>();
    uint32_t error = platform::kErrorConnectionRefused;
    // The local listener appears a moment after the start.
    for (int attempt = 0; attempt < 200 && error != platform::kErrorSuccess; ++attempt) {
      error = transport == Transport::kTcp ? client->ConnectTcp(tcp_port_) : client->ConnectLocal(kTestPipe16);
      if (error != platform::kErrorSuccess) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(error, platform::kErrorSuccess);
    return client;
  }

  // A client with `port` open, and locked when `lock`.
  std::unique_ptr<WireClient> Opened(Transport transport, const char16_t* port = u"loop/dev1", bool lock = false) {
    auto client = Connect(transport);
    EXPECT_EQ(client->Call(OpenFrame(1, port)), SKR_SUCCESS);
    if (lock) {
      EXPECT_EQ(client->Call(IoctlFrame(2, SK_PORT_LOCK, DwordBytes(1))), SKR_SUCCESS);
    }
    return client;
  }

  // Waits until the server holds `count` connections.
  void AwaitConnections(std::size_t count) {
    for (int i = 0; i < 1000 && Connections() != count; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(Connections(), count);
  }
};

// TCP, and the local pipe where the wire client can reach it (a socket: POSIX).
std::vector<Transport> Transports() {
  std::vector<Transport> all{Transport::kTcp};
  platform::Socket probe;
  if (platform::ConnectLocal(u"none", &probe) != platform::kErrorInvalidParameter) all.push_back(Transport::kLocal);
  return all;
}

TEST_P(TransportTest, ALostClientPassesItsLockOnAndAStopDeletesEveryConnection) {
  Serve(GetParam());
  auto holder = Opened(GetParam(), u"loop/dev1", true);
  auto waiter = Opened(GetParam());
  auto sharer = Opened(GetParam());
  auto other = Opened(GetParam(), u"loop/dev2");
  ASSERT_EQ(waiter->Call(RegisterFrame(2, SK_EVENT_LOCK)), SKR_SUCCESS);
  ASSERT_EQ(waiter->Call(IoctlFrame(3, SK_PORT_LOCK, DwordBytes(1))), SKR_LOCK_PENDING);
  holder->Disconnect();  // its port is closed and the lock goes to the waiter
  Frame event;
  ASSERT_TRUE(waiter->Next(&event));
  EXPECT_EQ(event.Word(), SK_EVENT_LOCK);
  EXPECT_EQ(event.Tail(), DwordBytes(1));
  AwaitConnections(3);
  server().Stop();  // two connections on one port, one on another
  EXPECT_EQ(server().ConnectionCount(), 0u);
  EXPECT_EQ(PortTable::Size(), 0u);
  for (auto* client : {&waiter, &sharer, &other}) EXPECT_TRUE((*client)->AwaitClosed(5000));
}

// A member that never reads while writes to its port echo to it: it gets whole frames until it is
// dropped, and the writer is never held by it.
TEST_P(TransportTest, AClientThatStopsReadingGetsWholeFramesOrIsDropped) {
  Serve(GetParam(), 500, 1000);
  auto sleeper = Opened(GetParam());
  auto writer = Opened(GetParam(), u"loop/dev1", true);
  ASSERT_EQ(sleeper->Call(RegisterFrame(2, kLoopbackData)), SKR_SUCCESS);
  const std::string chunk(65536, 'w');
  for (int i = 0; i < 120; ++i) ASSERT_EQ(writer->Call(WriteFrame(10 + i, chunk)), SKR_SUCCESS) << i;
  AwaitConnections(1);  // the sleeper was dropped
  // What reached the sleeper: whole event frames, the last perhaps cut by the drop.
  int whole = 0;
  Frame frame;
  while (sleeper->Next(&frame, 5000)) {
    ASSERT_EQ(frame.code, SK_FRAME_EVENT);
    ASSERT_EQ(frame.Word(), kLoopbackData);
    ASSERT_EQ(frame.Tail(), chunk);
    ++whole;
  }
  // The writer never waited for the sleeper, so the sleeper may have been sent every echo before it
  // was dropped.
  EXPECT_GT(whole, 0);
  EXPECT_LE(whole, 120);
  EXPECT_TRUE(sleeper->AwaitClosed(0));
}

INSTANTIATE_TEST_SUITE_P(Both, TransportTest, ::testing::ValuesIn(Transports()), TransportName);

class TcpTest : public TransportTest {};

// The settings, changed while the server runs: its port, whether it listens at all, who may connect
// and how many (a refused client is closed at once).
TEST_F(TcpTest, SettingsAreTakenUpAtRunTime) {
  testing::LogCapture capture;
  Serve(Transport::kTcp);
  const auto served = [&](const char* from) {
    WireClient client;
    if (client.ConnectTcp(tcp_port_, from) != platform::kErrorSuccess) return false;
    return client.Call(RequestFrame(SK_FRAME_CLOSE, 1)) == SKR_INVALID_HANDLE;
  };
  auto before = Connect();
  AwaitConnections(1);  // accepted: a client still in the old listener's queue would go with it
  const uint16_t old_port = tcp_port_;
  // A new port: the listener moves, the clients stay.
  tcp_port_ = FreeTcpPort();
  ASSERT_TRUE(SetNumberProperty(u"/TCP_COMMUNICATION_PORT", tcp_port_));
  server().ApplySettings();
  EXPECT_EQ(before->Call(RequestFrame(SK_FRAME_CLOSE, 1)), SKR_INVALID_HANDLE);
  auto after = Connect();
  WireClient refused;
  EXPECT_NE(refused.ConnectTcp(old_port), platform::kErrorSuccess);
  // Disabled: every client is dropped and nobody listens; enabled again: it serves everyone.
  ASSERT_TRUE(SetProperty(u"/SK_TCP_COMMUNICATION", u"Disable"));
  server().ApplySettings();
  EXPECT_TRUE(before->AwaitClosed(5000));
  EXPECT_TRUE(after->AwaitClosed(5000));
  EXPECT_NE(refused.ConnectTcp(tcp_port_), platform::kErrorSuccess);
  EXPECT_EQ(server().Start(), SKR_INVALID_PARAMETER);
  ASSERT_TRUE(SetProperty(u"/SK_TCP_COMMUNICATION", u"Enable"));
  server().ApplySettings();
  EXPECT_TRUE(served("127.0.0.2"));

  ASSERT_TRUE(SetProperty(u"/TCP_ALLOWED_CLIENTS", u"127.0.0.1, 10.0.0.0/8"));
  server().ApplySettings();
  EXPECT_TRUE(served("127.0.0.1"));
  EXPECT_FALSE(served("127.0.0.2"));
  ASSERT_TRUE(SetNumberProperty(u"/TCP_MAX_CONNECTIONS", 2));
  server().ApplySettings();
  auto first = Connect();
  auto second = Connect();
  AwaitConnections(2);
  EXPECT_FALSE(served("127.0.0.1"));  // the third
  first->Disconnect();
  AwaitConnections(1);
  EXPECT_TRUE(served("127.0.0.1"));
  const auto lines = capture.Lines();
  EXPECT_GE(testing::IndexOfPrefix(lines, u"-- TCPServer: client 127.0.0.2 refused: not among TCP_ALLOWED_CLIENTS"), 0)
      << testing::Dump(lines);
  EXPECT_GE(testing::IndexOfPrefix(lines, u"-- TCPServer: client 127.0.0.1 refused: TCP_MAX_CONNECTIONS (2)"), 0);
}

// The local pipe is this machine's alone: on Windows its instances reject remote clients (the
// system has no call that reads that back, so the mode they are made with is read), on POSIX its
// socket lives in a folder nobody else may change, or the server does not listen.
TEST_F(TcpTest, TheLocalPipeIsForThisMachineAlone) {
  const uint32_t mode = platform::LocalServer::InstanceMode();
  if (mode != 0) {
    EXPECT_EQ(mode & 0x8u, 0x8u);  // PIPE_REJECT_REMOTE_CLIENTS
    EXPECT_EQ(mode & 0x6u, 0x6u);  // message type and read mode, as always
    return;
  }
  namespace fs = std::filesystem;
  const fs::path run = std::getenv("ORLENDA_RUN_DIR");
  testing::LogCapture capture;
  fs::permissions(run, fs::perms::group_write | fs::perms::others_write, fs::perm_options::add);
  Serve(Transport::kLocal);
  int refused = -1;  // once the refusal is traced, the server has given up listening
  for (int i = 0; i < 500 && refused < 0; ++i) {
    refused = testing::IndexOfPrefix(capture.Lines(), u"-- CPipeServer: the pipe's folder could be changed");
  }
  EXPECT_GE(refused, 0);
  WireClient client;
  EXPECT_NE(client.ConnectLocal(kTestPipe16), platform::kErrorSuccess);
  StopServers();
  fs::permissions(run, fs::perms::group_write | fs::perms::others_write, fs::perm_options::remove);
  Serve(Transport::kLocal);
  Connect(Transport::kLocal);  // it listens
  EXPECT_EQ(fs::status(run / kTestPipe).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::group_write |
                fs::perms::others_read | fs::perms::others_write);
}

TEST(AddressFilter, ListsOfAddressesAndRanges) {
  struct Case {
    const char16_t* list;
    uint32_t address;
    bool allowed;
  };
  const Case cases[] = {
      {u"", 0x0A000001u, true},                       {u" * ", 0x0A000001u, true},
      {u"10.0.0.1", 0x0A000001u, true},              {u"10.0.0.1", 0x0A000002u, false},
      {u"10.0.0.0/24;192.168.1.9", 0x0A0000FFu, true}, {u"10.0.0.0/24;192.168.1.9", 0xC0A80109u, true},
      {u"10.0.0.0/24 192.168.1.9", 0x0A000100u, false}, {u"0.0.0.0/0", 0x01020304u, true},
      {u"10.0.0.256, 10.0.0.1/33, x", 0x0A000001u, false},  // nothing readable: nobody
      {u"10.0.0.256, 10.0.0.2", 0x0A000002u, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(AddressFilter::Parse(c.list, nullptr).Allows(c.address), c.allowed)
        << testing::Narrow(c.list) << " " << std::hex << c.address;
  }
  HeapVector<WString> rejected;
  AddressFilter::Parse(u"10.0.0.256, 10.0.0.1/33, 1.2.3.4", &rejected);
  EXPECT_EQ(rejected.size(), 2u);
  EXPECT_EQ(FormatIpv4(0x640A6309u), u"100.10.99.9");  // each digit count at its lowest and highest
}

TEST_F(TcpTest, TheSixtyFourthClientIsNeverReadAndIsPingedThenDropped) {
  Serve(Transport::kTcp, 200, 1500);
  std::vector<std::unique_ptr<WireClient>> clients;
  for (int i = 0; i < 64; ++i) {
    clients.push_back(Connect());
    AwaitConnections(static_cast<std::size_t>(i + 1));  // accepted in this order
  }
  for (auto& client : clients) ASSERT_TRUE(client->Send(RequestFrame(SK_FRAME_CLOSE, 1)));
  Frame reply;
  for (int i = 0; i < 63; ++i) ASSERT_TRUE(clients[i]->Next(&reply)) << i;
  // Everyone keeps talking; only the first 63 are heard. The last, silent as far as the server can
  // tell, is pinged and then dropped. (That a client's own pings keep it connected is shown with the
  // client library's.)
  for (int round = 0; round < 12; ++round) {
    for (auto& client : clients) client->Send(std::string(4, '\0'));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  EXPECT_FALSE(clients[63]->Next(&reply, 5000));
  EXPECT_GE(clients[63]->pings(), 3);
  EXPECT_TRUE(clients[63]->AwaitClosed(0));
  AwaitConnections(63);
}

}  // namespace
}  // namespace orlenda
