// Broker benchmark: the broker's TCP and local-pipe servers beside plain echo servers of the same
// transport and framing (echo_servers.h), all driven by the client library. Reports, without pass
// or fail:
//   - the round trip of a 16-byte Write to the loopback port (median and 99th percentile);
//   - requests per second with 16 and with 63 clients, each writing 16 bytes to a port of its own;
//   - MB/s of 64 KiB Writes from one client;
//   - the CPU time of the server process while 63 TCP clients (in a child process) stay connected
//     and idle for 10 s, only pinging.
// Natively the broker runs in this process, on a fresh store in temporary folders. With
// --external HOST:PORT the broker figures are those of a broker already running there (over TCP;
// its configuration must have the port given by --port, default "loop/dev1", whose clients here
// take the lock each with an access key of its own), and --pid PID (repeated: the sum, e.g. the
// broker's process under Wine and its wineserver) adds its idle CPU time from /proc. The echo servers always run in this process.
//   broker_bench [--seconds S] [--idle-seconds S] [--only round-trip|rate|64k|idle]
//                [--external HOST:PORT [--port NAME] [--pid PID]]
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "components/configuration.h"
#include "connections/pipe_server.h"
#include "connections/tcp_server.h"
#include "echo_servers.h"
#include "platform/socket.h"
#include "scratch_folders.h"
#include "settings/property_handler.h"
#include "skein/client.hpp"
#include "test_modules.h"

extern char** environ;

namespace orlenda::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr char kBrokerPipe[] = "skein-bench";
constexpr char16_t kBrokerPipe16[] = u"skein-bench";
constexpr char kEchoPipe[] = "skein-bench-echo";
constexpr char16_t kEchoPipe16[] = u"skein-bench-echo";
constexpr int kMaxClients = 63;
constexpr int kRepeats = 3;

struct Options {
  std::string only;  // "round-trip", "rate", "64k" or "idle": that group alone (for a profiler)
  double seconds = 2;
  double idle_seconds = 10;
  std::string external;
  std::string port = "loop/dev1";
  std::vector<long> pids;  // external: the broker's processes (under Wine also its wineserver)
};

// Where a measurement connects: TCP "host:port", or a local pipe; and the port each client opens.
struct Target {
  std::string tcp;
  const char* pipe = nullptr;
  std::function<std::string(int)> port_name;
};

uint16_t FreePort() {
  platform::Socket probe;
  uint16_t port = 0;
  if (platform::OpenTcpSocket(&probe) != 0 || platform::BindIpv4(probe, 0x7F000001u, 0) != 0 ||
      platform::LocalPort(probe, &port) != 0) {
    std::abort();
  }
  return port;
}

// The in-process broker's store: the loopback stack, one member per client, TCP on `port`.
bool PrepareStore(uint16_t port) {
  {
    CPropertyHandler store{WString(u"Orlenda.configuration")};
    if (!store.SetString(u"/components/loopback/filename", ORLENDA_LOOPBACK_MODULE) ||
        !store.SetString(u"/stack/loop/loopback/note", u"")) {
      return false;
    }
  }
  if (!CConfiguration::Load()) return false;
  return CConfiguration::WithProperties([&](CPropertyHandler& s) {
    for (int i = 0; i < kMaxClients; ++i) {
      const std::string member = "loop/c" + std::to_string(i) + "/model";
      if (!s.SetString(View(WString(member.begin(), member.end())), u"any")) return false;
    }
    return s.SetNumber(u"/TCP_COMMUNICATION_PORT", port);
  });
}

uint32_t Connect(skein::Client& client, const Target& target) {
  return target.tcp.empty() ? client.ConnectLocal(target.pipe) : client.ConnectTcp(target.tcp);
}

// A client on its own port, holding the lock; false (with a message) when that fails.
bool Ready(skein::Client& client, const Target& target, int index) {
  uint32_t result = Connect(client, target);
  if (result == SKR_SUCCESS) result = client.Open(target.port_name(index));
  if (result == SKR_SUCCESS) result = client.Ioctl(SK_PORT_LOCK, skein::Dword(1));
  if (result != SKR_SUCCESS) std::fprintf(stderr, "broker_bench: client %d: %s\n", index, skein::Client::Describe(result).c_str());
  return result == SKR_SUCCESS;
}

// Median and 99th percentile of one client's 16-byte Write round trips, in microseconds.
std::vector<double> RoundTrip(const Target& target, double seconds) {
  skein::Client client;
  if (!Ready(client, target, 0)) return {0, 0};
  const std::string data(16, 'r');
  std::vector<double> times;
  for (int i = 0; i < 200; ++i) client.Write(data);  // warm up: threads, buffers
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  while (Clock::now() < end || times.empty()) {
    const Clock::time_point start = Clock::now();
    if (client.Write(data) != SKR_SUCCESS) return {0, 0};
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::sort(times.begin(), times.end());
  return {times[times.size() / 2], times[times.size() * 99 / 100]};
}

// Measures the broker and the echo in turns, kRepeats times each, so that both meet the same
// load of a shared machine; keeps the best run of each (by the first figure).
template <class Measure>
std::pair<std::vector<double>, std::vector<double>> BestOf(const Measure& measure, const Target& broker,
                                                           const Target& echo, bool lower_is_better) {
  std::vector<double> best[2];
  for (int run = 0; run < kRepeats; ++run) {
    for (int which = 0; which < 2; ++which) {
      const std::vector<double> got = measure(which == 0 ? broker : echo);
      if (best[which].empty() || (lower_is_better ? got[0] < best[which][0] : got[0] > best[which][0])) {
        best[which] = got;
      }
    }
  }
  return {best[0], best[1]};
}

// Context switches of this process so far, voluntary and not.
double ContextSwitches() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
}

// Writes of `size` bytes from `count` clients at once, each waiting for its reply before the
// next: calls per second, and the context switches of the process per call (clients and server
// together; the clients are the same for both servers).
std::vector<double> Rate(const Target& target, int count, std::size_t size, double seconds) {
  std::vector<std::unique_ptr<skein::Client>> clients;
  for (int i = 0; i < count; ++i) {
    clients.push_back(std::make_unique<skein::Client>());
    if (!Ready(*clients.back(), target, i)) return {0, 0};
  }
  const std::string data(size, 'w');
  std::atomic<bool> go{false};
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> done{0};
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  for (auto& client : clients) {
    threads.emplace_back([&, c = client.get()] {
      while (!go) std::this_thread::yield();
      uint64_t mine = 0;
      while (!stop) {
        if (c->Write(data) != SKR_SUCCESS) {
          ++failed;
          break;
        }
        ++mine;
      }
      done += mine;
    });
  }
  const double switches = ContextSwitches();
  const Clock::time_point start = Clock::now();
  go = true;
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (auto& thread : threads) thread.join();
  const double spent = std::chrono::duration<double>(Clock::now() - start).count();
  if (failed != 0) std::fprintf(stderr, "broker_bench: %d clients failed\n", failed.load());
  const double calls = static_cast<double>(done);
  return {calls / spent, calls > 0 ? (ContextSwitches() - switches) / calls : 0};
}

double CpuSeconds(const std::vector<long>& pids) {
  if (pids.size() > 1) {
    double sum = 0;
    for (long pid : pids) sum += CpuSeconds({pid});
    return sum;
  }
  const long pid = pids.empty() ? 0 : pids[0];
  if (pid == 0) {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
  }
  // /proc/PID/stat: utime and stime are fields 14 and 15, in clock ticks; the name (field 2) may
  // hold blanks, so count from its closing parenthesis.
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos || close + 4 >= text.size()) return 0;
  char* at = &text[close + 4];  // past ") S ", the state
  unsigned long long ticks[2] = {0, 0};
  for (int field = 4; field <= 15; ++field) {
    const unsigned long long value = std::strtoull(at, &at, 10);
    if (field >= 14) ticks[field - 14] = value;
  }
  return static_cast<double>(ticks[0] + ticks[1]) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Percent of one core that processes `pids` (none: this one) spend while 63 idle TCP clients of a
// child process stay connected to `address`.
double IdleCpu(const std::string& address, const std::vector<long>& pids, double seconds, const char* self) {
  const std::string count = std::to_string(kMaxClients);
  const std::string hold = std::to_string(seconds + 4);
  const char* argv[] = {self, "--idle-clients", address.c_str(), count.c_str(), hold.c_str(), nullptr};
  pid_t child = 0;
  if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) return -1;
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the clients connect
  const double before = CpuSeconds(pids);
  const Clock::time_point start = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const double used = CpuSeconds(pids) - before;
  const double spent = std::chrono::duration<double>(Clock::now() - start).count();
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::fprintf(stderr, "broker_bench: the idle clients failed\n");
  return 100.0 * used / spent;
}

// The child of IdleCpu: `count` clients connected to `address`, idle for `seconds`; exit status 1
// when one could not connect or was dropped.
int HoldIdleClients(const std::string& address, int count, double seconds) {
  std::vector<std::unique_ptr<skein::Client>> clients;
  for (int i = 0; i < count; ++i) {
    clients.push_back(std::make_unique<skein::Client>());
    if (clients.back()->ConnectTcp(address) != SKR_SUCCESS) return 1;
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  for (auto& client : clients) {
    if (!client->connected()) return 1;
  }
  return 0;
}

// One figure of both servers, and the broker's as a ratio to the echo's.
void Row(const std::string& what, double broker, double echo, const char* unit, const char* target) {
  const double ratio = echo > 0 ? broker / echo : 0;
  std::printf("%-40s %11.2f %11.2f %-6s %6.2fx  %s\n", what.c_str(), broker, echo, unit, ratio, target);
}

int Run(const Options& options, const char* self) {
  bench::UseScratchFolders();
  std::unique_ptr<TCPServer> tcp;
  std::unique_ptr<CPipeServer> pipe;
  Target broker_tcp;
  Target broker_local;
  if (options.external.empty()) {
    const uint16_t port = FreePort();
    if (!PrepareStore(port)) {
      std::fprintf(stderr, "broker_bench: cannot prepare the store\n");
      return 1;
    }
    tcp = std::make_unique<TCPServer>();
    pipe = std::make_unique<CPipeServer>(kBrokerPipe16);
    if (tcp->Start() != SKR_SUCCESS || pipe->Start() != SKR_SUCCESS) return 1;
    broker_tcp.tcp = "127.0.0.1:" + std::to_string(port);
    broker_local.pipe = kBrokerPipe;
    broker_tcp.port_name = broker_local.port_name = [](int i) { return "loop/c" + std::to_string(i); };
  } else {
    broker_tcp.tcp = options.external;
    const std::string name = options.port;
    broker_tcp.port_name = [name](int i) { return name + "?bench" + std::to_string(i); };
  }
  auto echo_tcp_server = EchoServer::StartTcp();
  auto echo_local_server = EchoServer::StartLocal(kEchoPipe16);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the local listeners come up
  Target echo_tcp;
  echo_tcp.tcp = "127.0.0.1:" + std::to_string(echo_tcp_server->port());
  echo_tcp.port_name = [](int) { return std::string("echo"); };
  Target echo_local = echo_tcp;
  echo_local.tcp.clear();
  echo_local.pipe = kEchoPipe;

  const double s = options.seconds;
  std::printf("%-40s %11s %11s %-6s %7s  (best of %d, taken in turns)\n", "", "broker", "echo", "", "broker/echo",
              kRepeats);
  struct Transport {
    const char* name;
    const Target* broker;
    const Target* echo;
  };
  std::vector<Transport> transports{{"TCP", &broker_tcp, &echo_tcp}};
  if (options.external.empty()) transports.push_back({"local", &broker_local, &echo_local});
  const auto wanted = [&](const char* group) { return options.only.empty() || options.only == group; };
  for (const Transport& t : transports) {
    if (!wanted("round-trip")) break;
    const auto times = BestOf([&](const Target& target) { return RoundTrip(target, s); }, *t.broker, *t.echo, true);
    Row(std::string("round trip 16 B, ") + t.name + ", median", times.first[0], times.second[0], "us", "target <= 1.5x");
    Row(std::string("round trip 16 B, ") + t.name + ", 99th pct", times.first[1], times.second[1], "us", "");
  }
  for (const Transport& t : transports) {
    if (!wanted("rate")) break;
    for (int clients : {16, 63}) {
      const auto rates = BestOf([&](const Target& target) { return Rate(target, clients, 16, s); }, *t.broker,
                                *t.echo, false);
      Row(std::string("requests/s, ") + std::to_string(clients) + " clients, " + t.name, rates.first[0],
          rates.second[0], "req/s", "target >= 0.50x");
      Row("  context switches per request", rates.first[1], rates.second[1], "", "");
    }
  }
  for (const Transport& t : transports) {
    if (!wanted("64k")) break;
    const auto rates = BestOf([&](const Target& target) { return Rate(target, 1, 65536, s); }, *t.broker, *t.echo,
                              false);
    Row(std::string("64 KiB writes, ") + t.name, rates.first[0] * 65536 / 1e6, rates.second[0] * 65536 / 1e6, "MB/s",
        "target >= 0.70x");
  }
  const bool cpu_known = options.external.empty() || !options.pids.empty();
  const double broker_cpu =
      cpu_known && wanted("idle") ? IdleCpu(broker_tcp.tcp, options.pids, options.idle_seconds, self) : -1;
  const double echo_cpu = wanted("idle") ? IdleCpu(echo_tcp.tcp, {}, options.idle_seconds, self) : -1;
  if (wanted("idle")) std::printf("%-40s %10.2f%% %10.2f%% of one core over %.0f s (target < 1%%)%s\n", "CPU, 63 idle TCP clients",
              broker_cpu, echo_cpu, options.idle_seconds, cpu_known ? "" : " (broker: give --pid)");

  if (tcp) {
    tcp.reset();
    pipe.reset();
    CConfiguration::Unload();
  }
  return 0;
}

}  // namespace
}  // namespace orlenda::bench

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // rows show as they are measured
  orlenda::bench::Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool value = i + 1 < argc;
    if (arg == "--idle-clients" && i + 3 < argc) {
      return orlenda::bench::HoldIdleClients(argv[i + 1], std::atoi(argv[i + 2]), std::atof(argv[i + 3]));
    } else if (arg == "--only" && value) {
      options.only = argv[++i];
    } else if (arg == "--seconds" && value) {
      options.seconds = std::atof(argv[++i]);
    } else if (arg == "--idle-seconds" && value) {
      options.idle_seconds = std::atof(argv[++i]);
    } else if (arg == "--external" && value) {
      options.external = argv[++i];
    } else if (arg == "--port" && value) {
      options.port = argv[++i];
    } else if (arg == "--pid" && value) {
      options.pids.push_back(std::atol(argv[++i]));
    } else {
      std::fprintf(stderr,
                   "usage: broker_bench [--seconds S] [--idle-seconds S] [--only round-trip|rate|64k|idle]\n"
                   "                    [--external HOST:PORT [--port NAME] [--pid PID]]\n");
      return 2;
    }
  }
  return orlenda::bench::Run(options, argv[0]);
}
