// device_bench: the throughput of a 1 MiB write through the port layer (in-process, a
// LocalConnection) to the network printer module, beside the same bytes sent straight to the same
// fake printer over a socket of its own; then the same write through the broker running as a
// process of its own (`orlenda -debug` of this build), by the client library over TCP and over the
// local socket. A write counts as done when the printer has every byte.
//
//   device_bench [RUNS]      best of RUNS (5) for each way
//
// Runs in $ORLENDA_RUN_DIR and $ORLENDA_DATA_DIR, fresh temporary ones when those are not set; the
// broker runs there too, on the same configuration. The port layer traces every write with a dump
// of its data, as the service does; without a log service the records are counted as lost, which
// costs the formatting but no delivery.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

#include "common/blob.h"
#include "components/configuration.h"
#include "netprinter/fake_printer.h"
#include "ports/sk_connection.h"
#include "running_broker.h"
#include "scratch_folders.h"
#include "settings/property_handler.h"
#include "skein/client.hpp"
#include "skein/devices.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using Clock = std::chrono::steady_clock;
using device_testing::FakePrinter;
constexpr std::size_t kSize = 1u << 20;

bool Load(uint16_t printer_port) {
  {
    CPropertyHandler store{WString(u"Orlenda.configuration")};
    if (!store.SetString(u"/components/netprinter/filename", ORLENDA_NETPRINTER_MODULE) ||
        !store.SetString(u"/stack/printer/netprinter/note", u"")) {
      return false;
    }
  }
  if (!CConfiguration::Load()) return false;
  const std::string port = std::to_string(printer_port);
  return CConfiguration::WithProperties([&](CPropertyHandler& s) {
    return s.SetString(u"printer/p1/NETPRINTER_HOST", u"127.0.0.1") &&
           s.SetString(u"printer/p1/NETPRINTER_PORT", WString(port.begin(), port.end())) &&
           s.SetString(u"printer/p1/NETPRINTER_WRITE_TIMEOUT", u"60000");
  });
}

// Waits (60 s at most) until the printer holds `size` bytes.
bool AwaitReceived(FakePrinter& printer, std::size_t size) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
  while (printer.ReceivedSize() < size) {
    if (Clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

double MegabytesPerSecond(Clock::duration spent) {
  return static_cast<double>(kSize) / (1024.0 * 1024.0) / std::chrono::duration<double>(spent).count();
}

// Asks `state` (the port's SK_DEVICE_STATE; false when that fails) until the device is online,
// 10 s at most.
template <typename State>
bool AwaitOnline(State state) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  uint32_t bits = 0;
  while (Clock::now() < deadline && state(&bits)) {
    if ((bits & SK_DEVICE_STATE_ONLINE) != 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// Best MB/s of `runs` calls of `send` (which sends the 1 MiB and says whether every byte went),
// each timed until the printer has every byte; the first failure ends the runs.
template <typename Send>
double BestOf(FakePrinter& printer, int runs, const char* way, Send send) {
  double best = 0;
  for (int run = 0; run < runs; ++run) {
    const std::size_t before = printer.ReceivedSize();
    const Clock::time_point start = Clock::now();
    if (!send() || !AwaitReceived(printer, before + kSize)) {
      std::fprintf(stderr, "device_bench: the write %s failed\n", way);
      break;
    }
    const double rate = MegabytesPerSecond(Clock::now() - start);
    if (rate > best) best = rate;
  }
  return best;
}

// Best MB/s of `runs` writes of `data` through the port layer.
double ThroughThePortLayer(FakePrinter& printer, const BlobRef& data, int runs) {
  LocalConnection client;
  WString name(u"printer/p1");
  BlobRef output;
  if (client.Open(&name) != SKR_SUCCESS || client.Ioctl(SK_PORT_LOCK, BlobRef::Adopt(DwordBlobCreate(1)), &output) != SKR_SUCCESS) {
    return 0;
  }
  double best = 0;
  if (AwaitOnline([&](uint32_t* bits) {
        return client.Ioctl(SK_DEVICE_STATE, BlobRef(), &output) == SKR_SUCCESS && DwordBlobRead(output.get(), bits);
      })) {
    best = BestOf(printer, runs, "through the port layer", [&] {
      uint32_t written = 0;
      return client.Write(data, &written) == SKR_SUCCESS && written == kSize;
    });
  }
  client.Close();
  return best;
}

// Best MB/s of `runs` sends of the same bytes on a plain connection to the printer.
double StraightToThePrinter(FakePrinter& printer, const BlobRef& data, int runs) {
  DevText name;
  DevText reason;
  DevTextClear(&name);
  DevTextAscii(&name, "127.0.0.1");
  // The printer serves one connection at a time: wait until the port layer's is gone.
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (printer.Connected() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const NetSocket socket = NetConnect("127.0.0.1", printer.port(), 5000, nullptr, &name, &reason);
  if (socket == NET_NO_SOCKET) return 0;
  const double best = BestOf(printer, runs, "over the socket", [&] {
    std::size_t sent = 0;
    while (sent < kSize) {
      const long n = NetSend(socket, data.data() + sent, kSize - sent);
      if (n < 0) break;
      if (n == 0) NetWait(socket, 1, 1000, nullptr);
      sent += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return sent == kSize;
  });
  NetClose(socket);
  return best;
}

// Best MB/s of `runs` writes of `data` through the running broker, by the client library over TCP
// at `tcp`, or over the local socket when `tcp` is empty.
double ThroughTheBroker(FakePrinter& printer, const std::string& data, const std::string& tcp, int runs) {
  skein::Client client;
  const uint32_t connected = tcp.empty() ? client.ConnectLocal() : client.ConnectTcp(tcp);
  if (connected != SKR_SUCCESS || client.Open("printer/p1") != SKR_SUCCESS ||
      client.Ioctl(SK_PORT_LOCK, skein::Dword(1)) != SKR_SUCCESS) {
    return 0;
  }
  double best = 0;
  if (AwaitOnline([&](uint32_t* bits) {
        std::string state;
        if (client.Ioctl(SK_DEVICE_STATE, {}, &state) != SKR_SUCCESS || state.size() != sizeof *bits) return false;
        std::memcpy(bits, state.data(), sizeof *bits);
        return true;
      })) {
    best = BestOf(printer, runs, "through the broker", [&] {
      uint32_t written = 0;
      return client.Write(data, &written) == SKR_SUCCESS && written == kSize;
    });
  }
  client.Close();
  return best;
}

// The broker of this build on the benchmark's own store, with TCP on a free port: best MB/s over
// TCP, then over the local socket.
std::pair<double, double> ThroughTheRunningBroker(FakePrinter& printer, const std::string& data, int runs) {
  const uint16_t port = bench::FreeLoopbackPort();
  {
    CPropertyHandler store{WString(u"Orlenda.properties")};
    if (port == 0 || !store.SetNumber(u"/TCP_COMMUNICATION_PORT", port)) return {0, 0};
  }
  const std::string tcp = "127.0.0.1:" + std::to_string(port);
  bench::RunningBroker broker;
  if (!broker.Start(ORLENDA_BROKER_EXECUTABLE, tcp)) {
    std::fprintf(stderr, "device_bench: the broker %s did not start\n", ORLENDA_BROKER_EXECUTABLE);
    return {0, 0};
  }
  const double over_tcp = ThroughTheBroker(printer, data, tcp, runs);
  const double over_local = ThroughTheBroker(printer, data, std::string(), runs);
  return {over_tcp, over_local};
}

int Run(int runs) {
  bench::UseScratchFolders();
  FakePrinter printer;
  if (!printer.listening() || !Load(printer.port())) {
    std::fprintf(stderr, "device_bench: cannot set up the printer or the configuration\n");
    return 1;
  }
  std::string bytes(kSize, '\0');
  for (std::size_t i = 0; i < kSize; ++i) bytes[i] = static_cast<char>(i * 31 + i / 257);
  const BlobRef data = BlobRef::Adopt(BlobCopy(bytes.data(), bytes.size()));

  const double layered = ThroughThePortLayer(printer, data, runs);
  const double straight = StraightToThePrinter(printer, data, runs);
  CConfiguration::Unload();  // the broker takes the store over
  const std::pair<double, double> broker = ThroughTheRunningBroker(printer, bytes, runs);
  std::printf("1 MiB write to a fake printer on 127.0.0.1, best of %d, until the printer has every byte:\n", runs);
  const auto row = [straight](const char* way, double rate) {
    std::printf("  %-58s %8.1f MB/s  %5.2f x straight\n", way, rate, straight > 0 ? rate / straight : 0.0);
  };
  row("straight over a socket", straight);
  row("through the port layer and the netprinter module", layered);
  row("through the running broker, client over TCP", broker.first);
  row("through the running broker, client over the local socket", broker.second);
  return layered > 0 && straight > 0 && broker.first > 0 && broker.second > 0 ? 0 : 1;
}

}  // namespace
}  // namespace orlenda

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 5;
  return orlenda::Run(runs > 0 ? runs : 5);
}
