// Many clients over both transports at once, each locking, writing and notifying on ports it
// shares with others while their events arrive: built to be run under ThreadSanitizer. Every call
// must get a reply of the service (never one of the library's own failures), a write that went
// through must report all its bytes, and the echoes and notices must reach the callbacks.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/served_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers
using testing::Transport;

constexpr int kClients = 16;
constexpr int kRounds = 150;  // four requests each

class ClientStressTest : public testing::ServedTest {};

TEST_F(ClientStressTest, SixteenClientsOverBothTransportsAtOnce) {
  Serve(Transport::kTcp);
  Serve(Transport::kLocal);
  struct Member {
    skein::Client client;
    std::atomic<int> events{0};
  };
  std::vector<std::unique_ptr<Member>> members;
  for (int i = 0; i < kClients; ++i) {
    members.push_back(std::make_unique<Member>());
    Member& m = *members.back();
    m.client.OnEvent([&m](uint32_t, std::string_view) { ++m.events; });
    const Transport transport = i % 2 == 0 ? Transport::kTcp : Transport::kLocal;
    ASSERT_EQ(Connect(m.client, transport), SKR_SUCCESS) << i;
    // Two ports shared by eight clients each; half of them with access keys.
    const std::string port = i % 4 < 2 ? "loop/dev1" : "loop/dev2";
    ASSERT_EQ(m.client.Open(i % 3 == 0 ? port + "?k" + std::to_string(i) : port), SKR_SUCCESS) << i;
    ASSERT_EQ(m.client.RegisterCallback(kLoopbackData), SKR_SUCCESS);
    ASSERT_EQ(m.client.RegisterCallback(SK_EVENT_NOTIFY), SKR_SUCCESS);
  }

  std::atomic<int> library_failures{0}, short_writes{0}, writes_done{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      skein::Client& client = members[i]->client;
      const auto check = [&](uint32_t result) {
        if ((result & 0xFFFF0000u) == 0x80FE0000u) ++library_failures;
        return result;
      };
      for (int round = 0; round < kRounds; ++round) {
        check(client.Ioctl(SK_PORT_LOCK, skein::Dword(1)));
        const std::string data(1 + (i * 31 + round) % 200, static_cast<char>('a' + i));
        uint32_t written = 0;
        if (check(client.Write(data, &written)) == SKR_SUCCESS) {
          ++writes_done;
          if (written != data.size()) ++short_writes;
        }
        check(client.Ioctl(SK_PORT_NOTIFY, "n"));
        check(client.Ioctl(SK_PORT_LOCK, skein::Dword(2)));
      }
    });
  }
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(library_failures, 0);
  EXPECT_EQ(short_writes, 0);
  EXPECT_GT(writes_done, 0);
  for (auto& m : members) {
    // Every client hears the notices of the seven others on its port.
    EXPECT_GE(m->events.load(), kRounds);
    EXPECT_EQ(m->client.Close(), SKR_SUCCESS);
  }
}

}  // namespace
}  // namespace orlenda
