#include "service/run_mode.h"

namespace orlenda {
namespace {

bool SameIgnoringAsciiCase(const char* a, const char* b) {
  for (; *a != '\0' && *b != '\0'; ++a, ++b) {
    char x = *a;
    char y = *b;
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return *a == *b;
}

}  // namespace

RunMode ParseRunMode(int argc, const char* const* argv) {
  if (argc <= 1 || argv[1] == nullptr || (argv[1][0] != '-' && argv[1][0] != '/')) return RunMode::kDispatcher;
  const char* verb = argv[1] + 1;
  struct Entry {
    const char* word;
    RunMode mode;
  };
  static const Entry kVerbs[] = {{"install", RunMode::kInstall},
                                 {"remove", RunMode::kRemove},
                                 {"stop", RunMode::kStop},
                                 {"debug", RunMode::kDebug},
                                 {"start", RunMode::kStart}};
  for (const Entry& entry : kVerbs) {
    if (SameIgnoringAsciiCase(verb, entry.word)) return entry.mode;
  }
  return RunMode::kDispatcher;
}

}  // namespace orlenda
