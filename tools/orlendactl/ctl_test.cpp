// orlendactl's steps run in-process against the real servers: what each kind of step prints, and
// the exit status of failed steps, command-line mistakes and a missing service.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl.h"
#include "support/served_fixture.h"

namespace orlenda {
namespace {

struct Case {
  const char* what;
  std::vector<std::string> args;  // after the connection option
  int status;
  std::vector<std::string> lines;  // each must be printed, in this order
};

using OrlendactlTest = testing::ServedTest;

// Runs orlendactl with `args`; its output lines (and error lines) in `out`.
int RunCtl(const std::vector<std::string>& args, std::vector<std::string>* out) {
  return orlendactl::Run(
      args, [&](const std::string& line) { out->push_back(line); },
      [&](const std::string& line) { out->push_back("error: " + line); });
}

TEST_F(OrlendactlTest, StepsPrintTheirResultsAndWhatCameBack) {
  Serve(testing::Transport::kTcp);
  Serve(testing::Transport::kLocal);
  const std::vector<Case> cases = {
      {"a write before the lock fails",
       {"--keep-going", "open", "loop/dev1", "write-text", "hi", "lock", "write-text", "hello", "close"},
       orlendactl::kExitStepFailed,
       {"write-text hi: SKR_NOT_LOCKED (0x80010000)", "  5 of 5 bytes written"}},
      {"events print as they come",
       {"open", "loop/dev1", "lock", "register", "0x70001", "write-hex", "68 69", "wait", "300ms", "close"},
       orlendactl::kExitOk,
       {"register 0x70001: SKR_SUCCESS (0x00000000)", "event 0x00070001, 2 bytes", "  0000  68 69" + std::string(42, ' ') + "  |hi|"}},
      {"a service setting is set and read back",
       {"setting", "TCP_PING_INTERVAL", "700", "setting", "TCP_PING_INTERVAL"},
       orlendactl::kExitOk,
       {"setting TCP_PING_INTERVAL 700: SKR_SUCCESS (0x00000000)", "  700 (0x000002bc)"}},
      {"port lists and settings documents are text",
       {"open", "", "ports", "settings", "close"},
       orlendactl::kExitOk,
       {"ports: SKR_SUCCESS (0x00000000)", "  loop", "  <?xml version=\"1.0\"?>"}},
      {"the first failure ends the run", {"close", "open", "loop/dev1"}, orlendactl::kExitStepFailed,
       {"close: SKR_INVALID_HANDLE (0x80000001)"}},
      {"an unknown step", {"open", "loop/dev1", "bogus"}, orlendactl::kExitUsage, {}},
      {"a missing argument", {"open"}, orlendactl::kExitUsage, {}},
      {"a bad duration", {"--timeout", "soon", "close"}, orlendactl::kExitUsage, {}},
  };
  for (const Case& c : cases) {
    for (const std::vector<std::string>& via : {std::vector<std::string>{"--tcp", TcpAddress()},
                                                 std::vector<std::string>{"--pipe", testing::kTestPipe}}) {
      std::vector<std::string> args = via;
      args.insert(args.end(), c.args.begin(), c.args.end());
      std::vector<std::string> out;
      const int status = RunCtl(args, &out);
      const std::string run = std::string(c.what) + " via " + via[0] + ", printed " + ::testing::PrintToString(out);
      EXPECT_EQ(status, c.status) << run;
      std::size_t at = 0;
      for (const std::string& line : c.lines) {
        while (at < out.size() && out[at] != line) ++at;
        EXPECT_LT(at, out.size()) << run << ": no line \"" << line << "\"";
      }
    }
  }
}

TEST_F(OrlendactlTest, NoServiceMeansNoConnectionAndHelpNamesEveryStep) {
  std::vector<std::string> out;
  const std::string nobody = "127.0.0.1:" + std::to_string(testing::FreeTcpPort());
  EXPECT_EQ(RunCtl({"--tcp", nobody, "close"}, &out), orlendactl::kExitNoConnection);
  const std::string help = orlendactl::HelpText();
  for (const char* step : {"open NAME", "lock-wait", "write-file", "ioctl CODE", "watch", "ports", "add TYPE",
                           "delete", "set PORT", "settings-all", "apply", "get-data", "set-number", "setting NAME"}) {
    EXPECT_NE(help.find(step), std::string::npos) << step;
  }
}

}  // namespace
}  // namespace orlenda
