// The broker executable as a process of its own, for the benchmarks that measure it from outside:
// `orlenda -debug` started in this process's data and run folders (ORLENDA_DATA_DIR,
// ORLENDA_RUN_DIR, which it inherits), waited for until it serves, and stopped with SIGINT as
// Ctrl+C would. POSIX only, as the benchmarks are.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace orlenda::bench {

// A TCP port of 127.0.0.1 that was free a moment ago.
uint16_t FreeLoopbackPort();

class RunningBroker {
 public:
  RunningBroker() = default;
  ~RunningBroker() { Stop(); }
  RunningBroker(const RunningBroker&) = delete;
  RunningBroker& operator=(const RunningBroker&) = delete;

  // Starts `executable` and waits (10 s at most) until it takes clients on its local socket and
  // at `tcp` ("127.0.0.1:PORT"). False, with the broker stopped, when it does not.
  bool Start(const std::string& executable, const std::string& tcp);
  // Stops it (SIGINT; SIGKILL after 10 s) and waits for it to end.
  void Stop();

 private:
  pid_t pid_ = -1;
};

}  // namespace orlenda::bench
