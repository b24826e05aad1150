// The command line of the service executables: a verb after "-" or "/" picks the run mode.
#pragma once

namespace orlenda {

enum class RunMode {
  kDispatcher,  // no argument, a word without "-" or "/", or an unknown verb: run as the service
  kInstall,
  kRemove,
  kStop,
  kDebug,       // the console run
  kStart,       // start the installed service and wait for it
};

// The mode of `argv[1]`: its text after the first character, compared without ASCII case with
// "install", "remove", "stop", "debug" and "start".
RunMode ParseRunMode(int argc, const char* const* argv);

}  // namespace orlenda
