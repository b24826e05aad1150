#include "support/log_capture.h"

#include <gtest/gtest.h>

#include "common/wide_string.h"
#include "logging/log.h"
#include "logging/log_record.h"
#include "platform/errors.h"
#include "platform/thread.h"

namespace orlenda::testing {

LogLine DecodeLine(const Bytes& record) {
  if (record.size() < logging::kRecordHeaderSize) return {99, u"<no header>"};
  const logging::RecordHeader h = logging::DecodeRecordHeader(record.data());
  LogLine line{h.level, {}};
  for (uint32_t i = 0; i < h.text_length && logging::kRecordHeaderSize + 2 * i + 1 < record.size(); ++i) {
    const std::size_t at = logging::kRecordHeaderSize + 2 * i;
    line.text.push_back(static_cast<char16_t>(record[at] | (record[at + 1] << 8)));
  }
  return line;
}

void LogReceiver::HoldPresence() { ASSERT_EQ(presence_.Acquire(logging::kLogServiceEventName), 0u); }

void LogReceiver::Listen() {
  ASSERT_EQ(listener_.Listen(logging::kLogServicePipeName, platform::PipeMode::kMessage), 0u);
  acceptor_ = std::thread([this] {
    platform::PipeStream stream;
    while (listener_.Accept(&stream) == platform::kErrorSuccess) {
      Bytes bytes;
      uint8_t chunk[512];
      uint32_t got = 0;
      while (stream.Read(chunk, sizeof chunk, &got) == platform::kErrorSuccess && got > 0) {
        bytes.insert(bytes.end(), chunk, chunk + got);
      }
      stream.Close();
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(std::move(bytes));
    }
  });
}

void LogReceiver::Start() {
  HoldPresence();
  Listen();
}

void LogReceiver::Stop() {
  listener_.Shutdown();
  if (acceptor_.joinable()) acceptor_.join();
  presence_.Release();
}

std::vector<Bytes> LogReceiver::WaitFor(std::size_t count) {
  for (int i = 0; i < 500; ++i) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (records_.size() >= count) return records_;
    }
    platform::SleepMs(10);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

std::vector<Bytes> LogReceiver::Records() {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

std::vector<LogLine> LogCapture::Lines() {
  const std::u16string marker = u"capture marker " + std::u16string(1, char16_t(u'A' + markers_++ % 26));
  Log(4, marker.c_str());
  for (int i = 0; i < 1000; ++i) {
    if (i > 0) platform::SleepMs(10);
    const std::vector<Bytes> records = receiver_.Records();
    std::vector<LogLine> lines;
    for (const Bytes& record : records) {
      LogLine line = DecodeLine(record);
      if (line.text == marker) return lines;
      const bool earlier_marker = line.text.rfind(u"capture marker ", 0) == 0;
      const std::u16string lost = u" messages lost";
      const bool loss = line.text.size() > lost.size() &&
                        line.text.compare(line.text.size() - lost.size(), lost.size(), lost) == 0;
      if (!earlier_marker && !loss) lines.push_back(std::move(line));
    }
  }
  ADD_FAILURE() << "the capture marker never arrived";
  return {};
}

std::string Narrow(std::u16string_view text) {
  const HeapString utf8 = WideToUtf8(text);
  return std::string(utf8.data(), utf8.size());
}

std::string Dump(const std::vector<LogLine>& lines) {
  std::string out;
  for (const LogLine& l : lines) out += std::to_string(l.level) + " " + Narrow(l.text) + "\n";
  return out;
}

int IndexOf(const std::vector<LogLine>& lines, const std::u16string& text, uint32_t level) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].text == text && lines[i].level == level) return static_cast<int>(i);
  }
  return -1;
}

int IndexOfPrefix(const std::vector<LogLine>& lines, const std::u16string& prefix) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].text.rfind(prefix, 0) == 0) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace orlenda::testing
