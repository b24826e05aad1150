// The command line: options, then the steps, all checked before anything is sent; then one
// connection and the steps in order, stopping at the first that fails unless --keep-going.
#include "ctl.h"

#include "session.h"
#include "text.h"

namespace orlendactl {
namespace {

struct Options {
  std::string tcp;           // "host[:port]"; empty: the local pipe
  std::string pipe;          // the local pipe's name; empty: the service's
  uint32_t timeout_ms = 0;   // per call; 0: the library's default
  bool keep_going = false;
};

bool IsStepName(const std::string& word) { return FindStep(word) != nullptr; }

// Reads options and steps; false (and a message) on a mistake.
bool Parse(const std::vector<std::string>& args, Options* options, std::vector<Step>* steps, std::string* error) {
  std::size_t i = 0;
  for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-' && args[i][1] == '-'; ++i) {
    const std::string& option = args[i];
    const bool has_value = i + 1 < args.size();
    if (option == "--keep-going") {
      options->keep_going = true;
    } else if ((option == "--tcp" || option == "--pipe" || option == "--timeout") && has_value) {
      const std::string& value = args[++i];
      if (option == "--tcp") options->tcp = value;
      else if (option == "--pipe") options->pipe = value;
      else if (!ParseDuration(value, &options->timeout_ms) || options->timeout_ms == 0) {
        *error = "not a duration: " + value;
        return false;
      }
    } else {
      *error = "unknown option or missing value: " + option;
      return false;
    }
  }
  if (i == args.size()) {
    *error = "no steps given";
    return false;
  }
  while (i < args.size()) {
    const StepKind* kind = FindStep(args[i]);
    if (kind == nullptr) {
      *error = "unknown step: " + args[i];
      return false;
    }
    Step step{kind, {}, 0};
    ++i;
    // Required arguments are taken as they come; optional ones only while they name no step, and
    // the variadic ID=VALUE ones only while they hold "=".
    while (i < args.size()) {
      const int taken = static_cast<int>(step.args.size());
      const bool required = taken < kind->min_args;
      const bool optional = kind->max_args < 0 ? args[i].find('=') != std::string::npos
                                               : taken < kind->max_args && !IsStepName(args[i]) && args[i] != "--for";
      if (!required && !optional) break;
      step.args.push_back(args[i++]);
    }
    if (static_cast<int>(step.args.size()) < kind->min_args) {
      *error = std::string("missing arguments: ") + kind->usage;
      return false;
    }
    if (kind->takes_for && i + 1 < args.size() && args[i] == "--for") {
      if (!ParseDuration(args[i + 1], &step.for_ms)) {
        *error = "not a duration: " + args[i + 1];
        return false;
      }
      i += 2;
    }
    steps->push_back(step);
  }
  return true;
}

}  // namespace

int Run(const std::vector<std::string>& args, const Print& out, const Print& err) {
  if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    out(HelpText());
    return args.empty() ? kExitUsage : kExitOk;
  }
  Options options;
  std::vector<Step> steps;
  std::string error;
  if (!Parse(args, &options, &steps, &error)) {
    err("orlendactl: " + error + " (orlendactl --help tells more)");
    return kExitUsage;
  }

  Session session(out, err);
  session.PrintEvents();
  if (options.timeout_ms != 0) session.client().options().call_timeout_ms = options.timeout_ms;
  const uint32_t connected = options.tcp.empty()
                                 ? session.client().ConnectLocal(options.pipe.empty() ? nullptr : options.pipe.c_str())
                                 : session.client().ConnectTcp(options.tcp);
  if (connected != SKR_SUCCESS) {
    err("orlendactl: cannot connect to " + (options.tcp.empty() ? "the local pipe" : options.tcp) + ": " +
        ResultText(connected));
    return kExitNoConnection;
  }
  int status = kExitOk;
  for (const Step& step : steps) {
    if (step.kind->run(session, step)) continue;
    status = kExitStepFailed;
    if (!options.keep_going) break;
  }
  session.client().Disconnect();  // no event prints after this
  return status;
}

}  // namespace orlendactl
