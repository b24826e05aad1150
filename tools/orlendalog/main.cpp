// orlendalog: the log service. Holds the presence object, accepts trace records on the log pipe
// and writes each as one readable line to a rotating log file in the data folder and to the
// console.
//
//   orlendalog [-max-size BYTES] [-keep COUNT] [-quiet]
//
// Stops on Ctrl+C (POSIX: SIGINT or SIGTERM).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/wide_string.h"
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

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
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

int Run(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fprintf(stderr, "usage: orlendalog [-max-size BYTES] [-keep COUNT] [-quiet]\n");
    return 2;
  }

  platform::Event stop(platform::ResetMode::kManual);
  platform::SetStopEvent(&stop);

  platform::PresenceObject presence;
  const uint32_t presence_error = presence.Acquire(logging::kLogServiceEventName);
  if (presence_error == platform::kErrorAlreadyExists) {
    std::fprintf(stderr, "orlendalog: another log service is already running\n");
    return 1;
  }
  if (presence_error != platform::kErrorSuccess) {
    std::fprintf(stderr, "orlendalog: cannot create the presence object (error %u)\n", presence_error);
    return 1;
  }

  RotatingFile file;
  const std::filesystem::path folder = DataFolder();
  const bool file_ok = file.Open(folder, "OrlendaLog", options.max_bytes, options.keep);
  LogWriter writer(file_ok ? &file : nullptr, options.quiet ? nullptr : stdout);
  if (!file_ok) {
    std::fprintf(stderr, "orlendalog: cannot open the log file %s; logging to the console only\n",
                 file.current().u8string().c_str());
  }

  LogServer server(&writer);
  const uint32_t listen_error = server.Start();
  if (listen_error != platform::kErrorSuccess) {
    std::fprintf(stderr, "orlendalog: cannot create the log pipe (error %u)\n", listen_error);
    return 1;
  }
  writer.Notice(file_ok ? ("started; writing " + file.current().u8string()).c_str() : "started");
  writer.Flush();

  stop.Wait(platform::kInfinite);

  // The presence goes first: a writer whose connection breaks from here on finds the service
  // gone and counts what it drops. Then what the writers had sent is read and written out.
  presence.Release();
  server.Stop();
  writer.Notice("stopped");
  writer.Flush();
  std::fflush(stdout);
  std::_Exit(0);
}

}  // namespace
}  // namespace orlenda::logservice

int main(int argc, char** argv) { return orlenda::logservice::Run(argc, argv); }
