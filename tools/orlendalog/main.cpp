// orlendalog: the log service "OrlendaLog" ("Orlenda Log Service"). Holds the presence object,
// accepts trace records on the log pipe and writes each as one readable line to a rotating log file
// in the data folder and, in the console run, to the console.
//
//   orlendalog [VERB] [-max-size BYTES] [-keep COUNT] [-quiet]
//     no verb      run as the service (under the service manager; on POSIX as a daemon, with
//                  SIGTERM or SIGINT as the stop control)
//     -debug       run in the console; Ctrl+C stops it
//     -install     register the service; -remove takes it out again; -start and -stop work it
// The broker's service depends on this one, so it starts first and stops last.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/wide_string.h"
#include "service/run_mode.h"
#include "service/service_host.h"
#include "log_server.h"
#include "log_writer.h"
#include "logging/log_record.h"
#include "platform/console.h"
#include "platform/errors.h"
#include "platform/paths.h"
#include "platform/presence.h"
#include "rotating_file.h"

namespace orlenda::logservice {
namespace {

constexpr uint64_t kDefaultMaxBytes = 8ull << 20;
constexpr int kDefaultKeep = 5;

struct Options {
  uint64_t max_bytes = kDefaultMaxBytes;
  int keep = kDefaultKeep;
  bool quiet = false;
};

// The options after the verb (when there is one).
bool ParseOptions(int argc, char** argv, Options* options) {
  const bool verb = ParseRunMode(argc, argv) != RunMode::kDispatcher;
  for (int i = verb ? 2 : 1; i < argc; ++i) {
    const char* arg = argv[i];
    if ((arg[0] == '-' || arg[0] == '/') && arg[1] != '\0') ++arg;
    const bool has_value = i + 1 < argc;
    if (std::strcmp(arg, "max-size") == 0 && has_value) {
      char* end = nullptr;
      options->max_bytes = std::strtoull(argv[++i], &end, 10);
      if (*end != '\0' || options->max_bytes == 0) return false;
    } else if (std::strcmp(arg, "keep") == 0 && has_value) {
      char* end = nullptr;
      const long keep = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || keep < 0 || keep > 1000) return false;
      options->keep = static_cast<int>(keep);
    } else if (std::strcmp(arg, "quiet") == 0) {
      options->quiet = true;
    } else {
      return false;
    }
  }
  return true;
}

// <common application data>/Morvane/Orlenda, beside the service's own settings files.
std::filesystem::path DataFolder() {
  char16_t buffer[platform::kMaxPathChars];
  const std::size_t length = platform::CommonAppDataFolder(buffer, platform::kMaxPathChars);
  const HeapString utf8 = WideToUtf8(WStringView(buffer, length));
  return std::filesystem::u8path(std::string(utf8.data(), utf8.size())) / "Morvane" / "Orlenda";
}

Options g_options;

// The service's body: serves until the stop event.
uint32_t Serve(ServiceHost& host) {
  const Options& options = g_options;
  platform::PresenceObject presence;
  const uint32_t presence_error = presence.Acquire(logging::kLogServiceEventName);
  if (presence_error == platform::kErrorAlreadyExists) {
    std::fprintf(stderr, "orlendalog: another log service is already running\n");
    host.ReportStatus(platform::kServiceStopped, presence_error, 0);
    return 1;
  }
  if (presence_error != platform::kErrorSuccess) {
    std::fprintf(stderr, "orlendalog: cannot create the presence object (error %u)\n", presence_error);
    host.ReportStatus(platform::kServiceStopped, presence_error, 0);
    return 1;
  }

  RotatingFile file;
  const std::filesystem::path folder = DataFolder();
  const bool file_ok = file.Open(folder, "OrlendaLog", options.max_bytes, options.keep);
  // Only the console run has a console to write to.
  LogWriter writer(file_ok ? &file : nullptr, options.quiet || !host.console_mode() ? nullptr : stdout);
  if (!file_ok) {
    std::fprintf(stderr, "orlendalog: cannot open the log file %s; logging to the console only\n",
                 file.current().u8string().c_str());
  }

  LogServer server(&writer);
  const uint32_t listen_error = server.Start();
  if (listen_error != platform::kErrorSuccess) {
    std::fprintf(stderr, "orlendalog: cannot create the log pipe (error %u)\n", listen_error);
    host.ReportStatus(platform::kServiceStopped, listen_error, 0);
    return 1;
  }
  writer.Notice(file_ok ? ("started; writing " + file.current().u8string()).c_str() : "started");
  writer.Flush();
  host.ReportStatus(platform::kServiceRunning, 0, 0);

  host.stop_event().Wait(platform::kInfinite);

  // The presence goes first: a writer whose connection breaks from here on finds the service
  // gone and counts what it drops. Then what the writers had sent is read and written out.
  presence.Release();
  server.Stop();
  writer.Notice("stopped");
  writer.Flush();
  return 0;
}

const ServiceIdentity kLogService = {
    u"OrlendaLog", u"Orlenda Log Service", u"OrlendaLog", nullptr, u"OrlendaLog", u"orlendalog", nullptr, nullptr, false,
};

int Run(int argc, char** argv) {
  if (!ParseOptions(argc, argv, &g_options)) {
    std::fprintf(stderr,
                 "usage: orlendalog [-debug | -install | -remove | -start | -stop] [-max-size BYTES] "
                 "[-keep COUNT] [-quiet]\n");
    return 2;
  }
  ServiceHost host(kLogService, &Serve, platform::TheServiceSystem());
  const int code = host.Main(argc, argv);
  // What this process traced itself would wait at exit for a log service that is gone now.
  std::fflush(stdout);
  std::_Exit(code);
}

}  // namespace
}  // namespace orlenda::logservice

int main(int argc, char** argv) { return orlenda::logservice::Run(argc, argv); }
