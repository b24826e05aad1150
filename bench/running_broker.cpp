#include "running_broker.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

#include "netprinter/net_socket.h"
#include "skein/client.hpp"

extern char** environ;

namespace orlenda::bench {
namespace {

using Clock = std::chrono::steady_clock;

void Pause() { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }

bool Serves(const std::string& tcp) {
  skein::Client local;
  skein::Client remote;
  return local.ConnectLocal() == SKR_SUCCESS && remote.ConnectTcp(tcp) == SKR_SUCCESS;
}

}  // namespace

uint16_t FreeLoopbackPort() {
  uint16_t port = 0;
  NetStartup();
  const NetSocket probe = NetListenLoopback(&port);
  NetClose(probe);
  NetCleanup();
  return probe == NET_NO_SOCKET ? 0 : port;
}

bool RunningBroker::Start(const std::string& executable, const std::string& tcp) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // Its console says nothing the benchmark needs; its trace goes to a log service if one runs.
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  const char* argv[] = {executable.c_str(), "-debug", nullptr};
  const int spawned =
      posix_spawn(&pid_, executable.c_str(), &actions, nullptr, const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    pid_ = -1;
    return false;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {  // it ended: a configuration it cannot load
      pid_ = -1;
      return false;
    }
    if (Serves(tcp)) return true;
    Pause();
  }
  Stop();
  return false;
}

void RunningBroker::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGINT);
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    Pause();
  }
  pid_ = -1;
}

}  // namespace orlenda::bench
