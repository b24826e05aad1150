// fake_printer: the fake network printer of the device tests as a process of its own, for the tests
// that drive a running broker (netprinter_e2e.sh).
//
//   fake_printer [--received FILE] [--for SECONDS]
//       listens on a free port of 127.0.0.1 and prints "listening on 127.0.0.1:PORT"; appends every
//       byte it receives to FILE as it comes; answers each status request (10 04 01) with the
//       status byte 12. SIGUSR1 switches it off (the connection drops, connections are refused),
//       SIGUSR2 on again on the same port: a printer's power cycle as the network sees it. Each
//       change prints a line ("off", "on", "connection N"). It ends at SIGINT or SIGTERM, or after
//       SECONDS (300 by default), so that a test that dies cannot leave it behind for long.
//   fake_printer --free-port
//       prints a TCP port of 127.0.0.1 that was free a moment ago, for a server under test.
#include <csignal>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "netprinter/fake_printer.h"

namespace {

using orlenda::device_testing::FakePrinter;

volatile std::sig_atomic_t g_stop = 0;
volatile std::sig_atomic_t g_switch = 0;  // SIGUSR1 (off) or SIGUSR2 (on), the latest one

void OnSignal(int signal) {
  if (signal == SIGUSR1 || signal == SIGUSR2) {
    g_switch = signal;
  } else {
    g_stop = 1;
  }
}

// A printer that listens for a moment: its port is free again once it is gone.
int FreePort() {
  const FakePrinter printer;
  if (!printer.listening()) return 1;
  std::printf("%u\n", static_cast<unsigned>(printer.port()));
  return 0;
}

void Say(const std::string& text) {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

int Serve(const char* received_path, long seconds) {
  std::FILE* received = std::fopen(received_path, "ab");
  FakePrinter printer;
  if (received == nullptr || !printer.listening()) {
    std::fprintf(stderr, "fake_printer: cannot %s\n", received == nullptr ? "open the received file" : "listen");
    return 1;
  }
  Say("listening on 127.0.0.1:" + std::to_string(printer.port()));

  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  std::size_t kept = 0;
  int connections = 0;
  while (g_stop == 0 && std::chrono::steady_clock::now() < until) {
    if (printer.ReceivedSize() > kept) {
      const std::string all = printer.Received();
      std::fwrite(all.data() + kept, 1, all.size() - kept, received);
      std::fflush(received);
      kept = all.size();
    }
    if (printer.Connections() != connections) {
      connections = printer.Connections();
      Say("connection " + std::to_string(connections));
    }
    const int change = g_switch;
    if (change != 0) {
      g_switch = 0;
      if (change == SIGUSR1) printer.SwitchOff();
      Say(change == SIGUSR1 ? "off" : printer.SwitchOn() ? "on" : "cannot switch on");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::fclose(received);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* received = "/dev/null";
  long seconds = 300;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--free-port") == 0) return FreePort();
    if (std::strcmp(argv[i], "--received") == 0 && i + 1 < argc) {
      received = argv[++i];
    } else if (std::strcmp(argv[i], "--for") == 0 && i + 1 < argc) {
      seconds = std::atol(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: fake_printer [--received FILE] [--for SECONDS] | --free-port\n");
      return 2;
    }
  }
  for (int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) std::signal(signal, OnSignal);
  return Serve(received, seconds > 0 ? seconds : 300);
}
