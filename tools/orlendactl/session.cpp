#include "session.h"

#include <chrono>

#include "text.h"

namespace orlendactl {

void Session::Line(const std::string& line) {
  std::lock_guard<std::mutex> hold(mutex_);
  out_(line);
}

void Session::Lines(const std::vector<std::string>& lines) {
  std::lock_guard<std::mutex> hold(mutex_);
  for (const std::string& line : lines) out_(line);
}

void Session::Error(const std::string& line) {
  std::lock_guard<std::mutex> hold(mutex_);
  err_(line);
}

bool Session::Report(const std::string& step, uint32_t result) {
  Line(step + ": " + ResultText(result));
  return (result & 0x80000000u) == 0;
}

void Session::PrintEvents() {
  client_.OnEvent([this](uint32_t event, std::string_view data) {
    const std::string bytes(data);
    std::vector<std::string> lines{"event " + CodeText(event) + ", " + std::to_string(bytes.size()) + " bytes"};
    for (const std::string& line : HexDump(bytes)) lines.push_back(line);
    Lines(lines);
    if (event == SK_EVENT_LOCK && bytes.size() == 4 && bytes[0] == 1 && bytes[1] == 0 && bytes[2] == 0 &&
        bytes[3] == 0) {
      std::lock_guard<std::mutex> hold(mutex_);
      holds_lock_ = true;
      lock_granted_.notify_all();
    }
  });
}

void Session::ForgetLockNotice() {
  std::lock_guard<std::mutex> hold(mutex_);
  holds_lock_ = false;
}

bool Session::WaitForLock(uint32_t ms) {
  std::unique_lock<std::mutex> hold(mutex_);
  return lock_granted_.wait_for(hold, std::chrono::milliseconds(ms), [this] { return holds_lock_; });
}

}  // namespace orlendactl
