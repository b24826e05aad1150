// One run of orlendactl: its connection, its output, and the steps that act on them.
#pragma once

#include <cstdint>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "ctl.h"
#include "skein/client.hpp"

namespace orlendactl {

class Session {
 public:
  Session(const Print& out, const Print& err) : out_(out), err_(err) {}

  skein::Client& client() { return client_; }
  // The open port's name as given ("" for the service's settings), or none.
  bool port_open() const { return port_open_; }
  const std::string& port_name() const { return port_name_; }
  void set_port(bool open, const std::string& name = std::string()) {
    port_open_ = open;
    port_name_ = name;
  }

  // One line; safe beside the event thread.
  void Line(const std::string& line);
  void Lines(const std::vector<std::string>& lines);
  void Error(const std::string& line);
  // "<step>: <result>"; true when the result is a success.
  bool Report(const std::string& step, uint32_t result);

  // Prints every event that arrives, and notes the lock events for WaitForLock (before connecting).
  void PrintEvents();
  // Forgets an earlier lock notice; then waits up to `ms` for an SK_EVENT_LOCK telling this
  // connection that it holds the lock.
  void ForgetLockNotice();
  bool WaitForLock(uint32_t ms);

 private:
  std::mutex mutex_;
  std::condition_variable lock_granted_;
  bool holds_lock_ = false;
  const Print& out_;
  const Print& err_;
  skein::Client client_;
  bool port_open_ = false;
  std::string port_name_;
};

// One step of the command line: its name and the arguments it took.
struct Step {
  const struct StepKind* kind;
  std::vector<std::string> args;
  uint32_t for_ms;  // "--for DURATION", or the step's own default
};

struct StepKind {
  const char* name;
  int min_args;
  int max_args;    // -1: any number of ID=VALUE arguments
  bool takes_for;  // may be followed by "--for DURATION"
  const char* usage;
  const char* help;
  // Runs the step; true on success. Its lines go to the session.
  bool (*run)(Session& session, const Step& step);
};

// The table of every step, closed by an entry with a null name.
const StepKind* StepKinds();
const StepKind* FindStep(const std::string& name);

}  // namespace orlendactl
