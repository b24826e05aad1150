// Test support: stand-ins for the log service, living in the test process.
//
// LogReceiver holds the presence object and the pipe when asked to, and keeps the raw bytes of
// every connection. LogCapture is a receiver that decodes the records into lines and can tell which
// lines the process has sent so far.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/pipe.h"
#include "platform/presence.h"

namespace orlenda::testing {

using Bytes = std::vector<uint8_t>;

struct LogLine {
  uint32_t level;
  std::u16string text;
};

// The level and text of one record's bytes ("<no header>" at level 99 for a short one).
LogLine DecodeLine(const Bytes& record);

class LogReceiver {
 public:
  ~LogReceiver() { Stop(); }

  // Presence and pipe separately, so tests can show a service that is present without its pipe.
  void HoldPresence();
  void ReleasePresence() { presence_.Release(); }
  void Listen();
  // HoldPresence and Listen.
  void Start();
  void Stop();

  // Waits (bounded) until `count` connections were read completely; returns all there are.
  std::vector<Bytes> WaitFor(std::size_t count);
  // What has arrived so far.
  std::vector<Bytes> Records();

 private:
  platform::PresenceObject presence_;
  platform::PipeListener listener_;
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<Bytes> records_;
};

class LogCapture {
 public:
  LogCapture() { receiver_.Start(); }

  // Every line sent since the capture began, in order, without the loss report of lines sent
  // before it. Records arrive one connection after the other, so once a marker sent now has
  // arrived, so has everything before it.
  std::vector<LogLine> Lines();

 private:
  LogReceiver receiver_;
  int markers_ = 0;
};

// UTF-16 text as UTF-8, for failure messages.
std::string Narrow(std::u16string_view text);

// The lines as readable text, one "<level> <text>" a line, for failure messages.
std::string Dump(const std::vector<LogLine>& lines);

// Position of the first line with exactly this text and level, or -1.
int IndexOf(const std::vector<LogLine>& lines, const std::u16string& text, uint32_t level = 0);
// Position of the first line that begins with `prefix`, or -1.
int IndexOfPrefix(const std::vector<LogLine>& lines, const std::u16string& prefix);

}  // namespace orlenda::testing
