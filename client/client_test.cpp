// The client library against the real servers in this process (both transports), and against a
// scripted stand-in for the cases a real service never produces: silence, a closed connection and
// malformed replies.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/served_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers
using namespace orlenda::testing;       // NOLINT: the served fixture, the wire client and its frames

class ClientTest : public ServedTest, public ::testing::WithParamInterface<Transport> {};

// Every operation and its reply, in one session of one client (what the service answers is the port
// layer's to show; here it must come back whole, with an ioctl's output). The
// events of its writes reach the callback, where a call would wait for the thread that runs it and
// fails at once instead. Then the service goes away: a later call fails with the lost connection,
// at once and for good.
TEST_P(ClientTest, EveryCallGetsItsReplyUntilTheServerStops) {
  Serve(GetParam());
  skein::Client client;
  std::mutex mutex;
  std::vector<std::pair<uint32_t, std::string>> events;
  std::atomic<uint32_t> inner{0};
  const auto received = [&] {
    std::lock_guard<std::mutex> hold(mutex);
    return events;
  };
  client.OnEvent([&](uint32_t event, std::string_view data) {
    inner = client.Write("again");
    std::lock_guard<std::mutex> hold(mutex);
    events.emplace_back(event, std::string(data));
  });
  ASSERT_EQ(Connect(client, GetParam()), SKR_SUCCESS);
  std::string output;
  struct Step {
    const char* what;
    std::function<uint32_t()> call;
    uint32_t expected;
  };
  const std::vector<Step> steps = {
      {"open", [&] { return client.Open("loop/dev1"); }, SKR_SUCCESS},
      {"write unlocked", [&] { return client.Write("x"); }, SKR_NOT_LOCKED},
      {"lock", [&] { return client.Ioctl(SK_PORT_LOCK, skein::Dword(1)); }, SKR_SUCCESS},
      {"register", [&] { return client.RegisterCallback(kLoopbackData); }, SKR_SUCCESS},
      {"write", [&] { return client.Write("hello"); }, SKR_SUCCESS},
      {"set a string", [&] { return client.Ioctl(SK_CONFIG_SET_STRING_PROPERTY, Utf16Z(u"Model") + Utf16Z(u"X")); },
       SKR_SUCCESS},
      {"get it back", [&] { return client.Ioctl(SK_CONFIG_GET_STRING_PROPERTY, Utf16Z(u"Model"), &output); },
       SKR_SUCCESS},
      {"unregister", [&] { return client.UnregisterCallback(kLoopbackData); }, SKR_SUCCESS},
      {"write unheard", [&] { return client.Write("quiet"); }, SKR_SUCCESS},
      {"close", [&] { return client.Close(); }, SKR_SUCCESS},
  };
  for (const Step& step : steps) EXPECT_EQ(step.call(), step.expected) << step.what;
  EXPECT_EQ(output, Utf16Z(u"X"));
  for (int i = 0; i < 1000 && received().empty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(received(), (std::vector<std::pair<uint32_t, std::string>>{{kLoopbackData, "hello"}}));
  EXPECT_EQ(inner.load(), SKC_WRONG_THREAD);
  StopServers();
  for (int i = 0; i < 500 && client.connected(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Write("x"), SKC_CONNECTION_LOST);
  EXPECT_EQ(client.Close(), SKC_CONNECTION_LOST);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

// Calls of many threads at once on one client, one of them held in the device: the others are
// answered meanwhile (their replies overtake it), and every reply reaches its own call.
TEST_P(ClientTest, CallsOfManyThreadsGetTheirOwnRepliesInAnyOrder) {
  Serve(GetParam());
  skein::Client client;
  ASSERT_EQ(Connect(client, GetParam()), SKR_SUCCESS);
  ASSERT_EQ(client.Open("mixed/dev1"), SKR_SUCCESS);
  ASSERT_EQ(client.Ioctl(SK_PORT_LOCK, skein::Dword(1)), SKR_SUCCESS);
  const auto held_writes = [&] {
    std::string count;
    client.Ioctl(kTestHeldWrites, {}, &count);
    return count.size() == 4 ? static_cast<uint8_t>(count[0]) : 0xFFu;
  };
  ASSERT_EQ(client.Ioctl(kTestHoldWrites, skein::Dword(1)), SKR_SUCCESS);  // mixed/dev1 is port 1
  uint32_t held_written = 0;
  std::atomic<uint32_t> held_result{0xFFFFFFFFu};
  std::thread held([&] { held_result = client.Write(std::string(777, 'h'), &held_written); });
  for (int i = 0; i < 1000 && held_writes() != 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(held_writes(), 1);

  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i) {
        const std::u16string name = u"n" + std::u16string(1, static_cast<char16_t>(u'a' + t));
        const std::string value(4, static_cast<char>(t * 10 + i));
        std::string back;
        if (client.Ioctl(SK_CONFIG_SET_NUMBER_PROPERTY, Utf16Z(name) + value) != SKR_SUCCESS ||
            client.Ioctl(SK_CONFIG_GET_NUMBER_PROPERTY, Utf16Z(name), &back) != SKR_SUCCESS ||
            back != value) {
          ++mismatches;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, 0);
  EXPECT_EQ(held_result.load(), 0xFFFFFFFFu);  // still held: everything above overtook it
  ASSERT_EQ(client.Ioctl(kTestHoldWrites, skein::Dword(0)), SKR_SUCCESS);
  held.join();
  EXPECT_EQ(held_result.load(), SKR_SUCCESS);
  EXPECT_EQ(held_written, 777u);
}

INSTANTIATE_TEST_SUITE_P(Both, ClientTest, ::testing::Values(Transport::kTcp, Transport::kLocal), TransportName);

// The service drops a client it does not hear from for its keep-alive time-out; the library's
// pings keep a silent client connected far beyond it.
TEST_F(ServedTest, AnIdleClientIsKeptAliveByItsPings) {
  Serve(Transport::kTcp, 100, 400);
  skein::Client idle;
  idle.options().ping_interval_ms = 100;
  ASSERT_EQ(Connect(idle, Transport::kTcp), SKR_SUCCESS);
  ASSERT_EQ(idle.Open("loop/dev1"), SKR_SUCCESS);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(idle.Close(), SKR_SUCCESS);  // neither side dropped the connection
}

TEST(ClientApi, ConnectingWhereNobodyListensFailsAndEveryCodeHasItsName) {
  SkClient* client = nullptr;
  const std::string nobody = "127.0.0.1:" + std::to_string(FreeTcpPort());
  EXPECT_EQ(SkConnectTcp(nobody.c_str(), nullptr, &client), SKC_CANNOT_CONNECT);
  EXPECT_EQ(SkConnectLocal("skein-nobody-here", nullptr, &client), SKC_CANNOT_CONNECT);
  for (const char* bad : {"", "host:", "host:0", "host:70000", "host:12x"}) {
    EXPECT_EQ(SkConnectTcp(bad, nullptr, &client), SKC_INVALID_ARGUMENT) << bad;
  }
  EXPECT_EQ(client, nullptr);
  EXPECT_EQ(SkOpen(nullptr, "x"), SKC_INVALID_ARGUMENT);
  // The service's names are printed by orlendactl's tests; the library's own come from a second list.
  EXPECT_STREQ(SkResultName(SKC_WRONG_THREAD), "SKC_WRONG_THREAD");
  EXPECT_EQ(skein::Client::Describe(SKR_NOT_LOCKED), "SKR_NOT_LOCKED (0x80010000)");
  EXPECT_EQ(skein::Client::Describe(0x80001234u), "0x80001234");  // no name for a code of neither list
}

// Against a stand-in for the service that this thread plays through a wire client: what the client
// makes of silence, a closed connection and malformed replies. The answer goes to the first call;
// the second call tells whether the connection survived, and is answered when it should have.
constexpr char kHangUp[] = "<hang up>";

struct Misbehaviour {
  const char* what;
  std::function<std::string(const Frame&)> answer;  // nothing at all is silence
  uint32_t first;
  uint32_t second;
};

class HostileServerTest : public ::testing::TestWithParam<Misbehaviour> {};

TEST_P(HostileServerTest, NeverHangsNorCrashes) {
  const Misbehaviour& m = GetParam();
  platform::Socket listener;
  uint16_t port = 0;
  ASSERT_TRUE(ListenOnLoopback(&listener, &port));
  skein::Client client;
  client.options().call_timeout_ms = 3000;
  client.options().keepalive_timeout_ms = 600;
  ASSERT_EQ(client.ConnectTcp("127.0.0.1:" + std::to_string(port)), SKR_SUCCESS);
  WireClient service;
  ASSERT_TRUE(service.Accept(listener, 5000));
  const auto start = std::chrono::steady_clock::now();
  auto first = std::async(std::launch::async, [&] { return client.Close(); });
  Frame request;
  ASSERT_TRUE(service.Next(&request));
  const std::string answer = m.answer(request);
  if (answer == kHangUp) service.Disconnect();
  if (answer != kHangUp) service.Send(answer);
  EXPECT_EQ(first.get(), m.first) << m.what;
  auto second = std::async(std::launch::async, [&] { return client.Close(); });
  if (m.second == SKR_SUCCESS && service.Next(&request, 5000)) service.Send(ReplyFrame(request, SKR_SUCCESS));
  EXPECT_EQ(second.get(), m.second) << m.what;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << m.what;
}

const Misbehaviour kMisbehaviours[] = {
    {"silent past the keep-alive", [](const Frame&) { return ""; }, SKC_CONNECTION_LOST, SKC_CONNECTION_LOST},
    {"hangs up", [](const Frame&) { return std::string(kHangUp); }, SKC_CONNECTION_LOST, SKC_CONNECTION_LOST},
    {"length 15", [](auto& r) { return LengthAs(ReplyFrame(r, 0), 15); }, SKC_PROTOCOL_ERROR, SKC_PROTOCOL_ERROR},
    {"length 4 GiB", [](auto& r) { return LengthAs(ReplyFrame(r, 0), 0xFFFFFFFFu); }, SKC_REPLY_TOO_LARGE,
     SKC_CONNECTION_LOST},
    {"a header without result", [](const Frame& r) { return RequestFrame(r.code, r.tag); }, SKC_BAD_REPLY, SKR_SUCCESS},
    {"the wrong code", [](const Frame& r) { return ReplyFrame(Frame{r.code + 1, r.tag, ""}, 0); }, SKC_BAD_REPLY,
     SKR_SUCCESS},
    {"an unknown tag, then nothing", [](const Frame& r) { return ReplyFrame(Frame{r.code, r.tag + 99, ""}, 0); },
     SKC_CONNECTION_LOST, SKC_CONNECTION_LOST},
    {"pings and a short event first",
     [](const Frame& r) { return std::string(8, '\0') + RequestFrame(SK_FRAME_EVENT, 0, "ab") + ReplyFrame(r, 7); }, 7u,
     SKR_SUCCESS},
};

// Numbered as listed; a failure names the misbehaviour.
INSTANTIATE_TEST_SUITE_P(Replies, HostileServerTest, ::testing::ValuesIn(kMisbehaviours));

// Many clients over both transports at once, each locking, writing and notifying on ports it
// shares with others while their events arrive: built to be run under ThreadSanitizer. Every call
// must get a reply of the service (never one of the library's own failures), a write that went
// through must report all its bytes, and the echoes and notices must reach the callbacks.
constexpr int kClients = 16;
constexpr int kRounds = 150;  // four requests each

TEST_F(ServedTest, SixteenClientsOverBothTransportsAtOnce) {
  Serve(Transport::kTcp);
  Serve(Transport::kLocal);
  std::vector<std::atomic<int>> events(kClients);
  std::vector<skein::Client> clients(kClients);
  for (int i = 0; i < kClients; ++i) {
    clients[i].OnEvent([&events, i](uint32_t, std::string_view) { ++events[i]; });
    ASSERT_EQ(Connect(clients[i], i % 2 == 0 ? Transport::kTcp : Transport::kLocal), SKR_SUCCESS) << i;
    // Two ports shared by eight clients each; a third of them with access keys.
    const std::string port = i % 4 < 2 ? "loop/dev1" : "loop/dev2";
    ASSERT_EQ(clients[i].Open(i % 3 == 0 ? port + "?k" + std::to_string(i) : port), SKR_SUCCESS) << i;
    ASSERT_EQ(clients[i].RegisterCallback(kLoopbackData), SKR_SUCCESS);
    ASSERT_EQ(clients[i].RegisterCallback(SK_EVENT_NOTIFY), SKR_SUCCESS);
  }

  std::atomic<int> library_failures{0}, short_writes{0}, writes_done{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      const auto check = [&](uint32_t result) {
        library_failures += (result & 0xFFFF0000u) == 0x80FE0000u;
        return result;
      };
      for (int round = 0; round < kRounds; ++round) {
        check(clients[i].Ioctl(SK_PORT_LOCK, skein::Dword(1)));
        const std::string data(1 + (i * 31 + round) % 200, static_cast<char>('a' + i));
        uint32_t written = 0;
        if (check(clients[i].Write(data, &written)) == SKR_SUCCESS) {
          ++writes_done;
          short_writes += written != data.size();
        }
        check(clients[i].Ioctl(SK_PORT_NOTIFY, "n"));
        check(clients[i].Ioctl(SK_PORT_LOCK, skein::Dword(2)));
      }
    });
  }
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(library_failures, 0);
  EXPECT_EQ(short_writes, 0);
  EXPECT_GT(writes_done, 0);
  // Every client hears the notices of the seven others on its port.
  for (int i = 0; i < kClients; ++i) EXPECT_GE(events[i].load(), kRounds) << i;
}

}  // namespace
}  // namespace orlenda
