// Threads for client requests. Each request starts at once on a thread of its own, so the requests
// of one connection run at the same time and a Write blocked in a device never holds up another
// request (an unlock of the same port, say). The threads are reused: a request takes an idle thread
// when there is one and a new thread when there is none (there is no cap that could make a request
// wait), and a thread that stays idle for kIdleMs ends. Starting a thread costs more than the rest
// of a small request, natively about 10 us and under Wine about 400 us.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda {

class RequestPool {
 public:
  using Work = void (*)(void* arg);
  static constexpr uint32_t kIdleMs = 5000;

  // Runs work(arg) on an idle thread or a new one. False when no thread could be started; `work`
  // has not run then.
  static bool Run(Work work, void* arg);

  // Threads alive now, and of them idle (tests and benchmarks).
  static std::size_t ThreadCount();
  static std::size_t IdleCount();
};

}  // namespace orlenda
