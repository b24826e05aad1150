// Test support: stand-ins for the log service, living in the test process.
//
// LogReceiver holds the presence object and the pipe when asked to, and keeps the bytes of every
// record that arrives, one entry per record, in the order each writer sent them. LogCapture is a
// receiver that decodes the records into lines and can tell which lines the process has traced
// since it began.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/pipe_read_loop.h"
#include "platform/presence.h"

namespace orlenda::testing {

using Bytes = std::vector<uint8_t>;

struct LogLine {
  uint32_t level;
  std::u16string text;
};

// The level and text of one whole record's bytes.
LogLine DecodeLine(const Bytes& record);

class LogReceiver : private platform::PipeReadLoop::Handler {
 public:
  ~LogReceiver() override { Stop(); }

  // Presence and pipe separately, so tests can show a service that is present without its pipe.
  void HoldPresence();
  void Listen();
  void Start() {
    HoldPresence();
    Listen();
  }
  // Stops listening and lets go of the presence. First, unless `deliver_queued` is false, waits
  // (bounded) until what this process traced so far has arrived, as a service stopping in order
  // would have read it.
  void Stop(bool deliver_queued = true);

  // Waits (bounded) until `count` records have arrived; returns all there are, at once for 0.
  std::vector<Bytes> WaitFor(std::size_t count);

 private:
  // Cuts each writer's stream into records by the lengths in their headers; a record cut short
  // never arrives, and the test sees it missing.
  void* OnConnect() override { return new Bytes(); }
  void OnBytes(void* writer, const uint8_t* bytes, std::size_t size) override;
  void OnDisconnect(void* writer) override { delete static_cast<Bytes*>(writer); }
  void OnTick() override {}

  platform::PresenceObject presence_;
  std::unique_ptr<platform::PipeReadLoop> loop_;
  std::thread thread_;
  std::mutex mutex_;
  std::vector<Bytes> records_;
};

class LogCapture {
 public:
  LogCapture();

  // Every line traced since the capture began, in order, without loss reports. Records of this
  // process arrive in the order they were traced, so once a marker traced now has arrived, so has
  // everything before it; lines before the capture's own start marker are left out.
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
