// orlendactl: runs a sequence of steps against the service on one connection (one connection is
// one port handle). Run is the whole program but for where its lines go, so the tests can run it
// in-process against servers of their own.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orlendactl {

// Exit status: every step succeeded / a step failed / the command line is wrong / no connection.
constexpr int kExitOk = 0;
constexpr int kExitStepFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoConnection = 3;

// Receives whole lines, without their line end; called from the steps and from the event thread,
// never at the same time.
using Print = std::function<void(const std::string& line)>;

int Run(const std::vector<std::string>& args, const Print& out, const Print& err);

// The --help text.
std::string HelpText();

}  // namespace orlendactl
