// device_bench: the throughput of a 1 MiB write through the port layer (in-process, a
// LocalConnection) to the network printer module, beside the same bytes sent straight to the same
// fake printer over a socket of its own. A write counts as done when the printer has every byte.
//
//   device_bench [RUNS]      best of RUNS (5) for each way
//
// Runs in $ORLENDA_RUN_DIR and $ORLENDA_DATA_DIR, fresh temporary ones when those are not set. The
// port layer traces every write with a dump of its data, as the service does; without a log service
// the records are counted as lost, which costs the formatting but no delivery.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "common/blob.h"
#include "components/configuration.h"
#include "netprinter/fake_printer.h"
#include "ports/sk_connection.h"
#include "settings/property_handler.h"
#include "skein/devices.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using Clock = std::chrono::steady_clock;
using device_testing::FakePrinter;
constexpr std::size_t kSize = 1u << 20;

void EnsureFolder(const char* variable) {
  const char* set = std::getenv(variable);
  if (set != nullptr && set[0] != '\0') return;
  char dir[] = "/tmp/orldev-XXXXXX";
  if (mkdtemp(dir) == nullptr) std::abort();
  setenv(variable, dir, 1);
}

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

// Best MB/s of `runs` writes of `data` through the port layer.
double ThroughThePortLayer(FakePrinter& printer, const BlobRef& data, int runs) {
  LocalConnection client;
  WString name(u"printer/p1");
  BlobRef output;
  uint32_t state = 0;
  if (client.Open(&name) != SKR_SUCCESS || client.Ioctl(SK_PORT_LOCK, BlobRef::Adopt(DwordBlobCreate(1)), &output) != SKR_SUCCESS) {
    return 0;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while ((state & SK_DEVICE_STATE_ONLINE) == 0 && Clock::now() < deadline) {
    if (client.Ioctl(SK_DEVICE_STATE, BlobRef(), &output) != SKR_SUCCESS || !DwordBlobRead(output.get(), &state)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  double best = 0;
  for (int run = 0; run < runs && (state & SK_DEVICE_STATE_ONLINE) != 0; ++run) {
    const std::size_t before = printer.ReceivedSize();
    uint32_t written = 0;
    const Clock::time_point start = Clock::now();
    if (client.Write(data, &written) != SKR_SUCCESS || written != kSize || !AwaitReceived(printer, before + kSize)) {
      std::fprintf(stderr, "device_bench: the write through the port layer failed\n");
      break;
    }
    const double rate = MegabytesPerSecond(Clock::now() - start);
    if (rate > best) best = rate;
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
  double best = 0;
  for (int run = 0; run < runs; ++run) {
    const std::size_t before = printer.ReceivedSize();
    const Clock::time_point start = Clock::now();
    for (std::size_t sent = 0; sent < kSize;) {
      const long n = NetSend(socket, data.data() + sent, kSize - sent);
      if (n < 0) break;
      if (n == 0) NetWait(socket, 1, 1000, nullptr);
      sent += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    if (!AwaitReceived(printer, before + kSize)) break;
    const double rate = MegabytesPerSecond(Clock::now() - start);
    if (rate > best) best = rate;
  }
  NetClose(socket);
  return best;
}

int Run(int runs) {
  EnsureFolder("ORLENDA_RUN_DIR");
  EnsureFolder("ORLENDA_DATA_DIR");
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
  CConfiguration::Unload();
  std::printf("1 MiB write to a fake printer on 127.0.0.1, best of %d, until the printer has every byte:\n", runs);
  std::printf("  through the port layer and the netprinter module  %8.1f MB/s\n", layered);
  std::printf("  straight over a socket                            %8.1f MB/s\n", straight);
  if (straight > 0) std::printf("  ratio                                             %8.2f\n", layered / straight);
  return layered > 0 && straight > 0 ? 0 : 1;
}

}  // namespace
}  // namespace orlenda

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 5;
  return orlenda::Run(runs > 0 ? runs : 5);
}
