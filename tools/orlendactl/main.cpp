// orlendactl: the command-line client of the port broker (ctl.h; --help tells how to use it).
#include <cstdio>
#include <string>
#include <vector>

#include "ctl.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return orlendactl::Run(
      args,
      [](const std::string& line) {
        std::fputs(line.c_str(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
      },
      [](const std::string& line) {
        std::fputs(line.c_str(), stderr);
        std::fputc('\n', stderr);
      });
}
