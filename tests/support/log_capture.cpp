#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "common/wide_string.h"
#include "logging/log.h"
#include "logging/log_record.h"
#include "platform/thread.h"

namespace orlenda::testing {

LogLine DecodeLine(const Bytes& record) {
  const logging::RecordHeader h = logging::DecodeRecordHeader(record.data());
  LogLine line{h.level, {}};
  for (uint32_t i = 0; i < h.text_length && logging::kRecordHeaderSize + 2 * i + 1 < record.size(); ++i) {
    const std::size_t at = logging::kRecordHeaderSize + 2 * i;
    line.text.push_back(static_cast<char16_t>(record[at] | (record[at + 1] << 8)));
  }
  return line;
}

void LogReceiver::OnBytes(void* writer, const uint8_t* bytes, std::size_t size) {
  Bytes& pending = *static_cast<Bytes*>(writer);
  pending.insert(pending.end(), bytes, bytes + size);
  std::size_t at = 0;
  while (pending.size() - at >= logging::kRecordHeaderSize) {
    const logging::RecordHeader h = logging::DecodeRecordHeader(pending.data() + at);
    const std::size_t total = logging::kRecordHeaderSize + 2ull * h.text_length + h.data_length;
    if (pending.size() - at < total) break;
    std::lock_guard<std::mutex> lock(mutex_);
    records_.emplace_back(pending.begin() + at, pending.begin() + at + total);
    at += total;
  }
  pending.erase(pending.begin(), pending.begin() + at);
}

void LogReceiver::HoldPresence() { ASSERT_EQ(presence_.Acquire(logging::kLogServiceEventName), 0u); }

void LogReceiver::Listen() {
  loop_ = std::make_unique<platform::PipeReadLoop>();
  ASSERT_EQ(loop_->Listen(logging::kLogServicePipeName, platform::PipeMode::kMessage), 0u);
  thread_ = std::thread([this] { loop_->Run(this, 50); });
}

void LogReceiver::Stop(bool deliver_queued) {
  if (thread_.joinable()) {
    if (deliver_queued) FlushLog(5000);
    loop_->Shutdown();
    thread_.join();
  }
  loop_.reset();
  presence_.Release();
}

std::vector<Bytes> LogReceiver::WaitFor(std::size_t count) {
  for (int i = 0;; ++i, platform::SleepMs(10)) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (records_.size() >= count || i == 500) return records_;
  }
}

namespace {

constexpr char16_t kCaptureStart[] = u"capture start";
constexpr std::u16string_view kLost = u" messages lost";

}  // namespace

LogCapture::LogCapture() {
  receiver_.Start();
  Log(4, kCaptureStart);
}

std::vector<LogLine> LogCapture::Lines() {
  const std::u16string marker = u"capture marker " + std::u16string(1, char16_t(u'A' + markers_++ % 26));
  Log(4, marker.c_str());
  for (int i = 0; i < 1000; ++i, platform::SleepMs(10)) {
    std::vector<LogLine> lines;
    bool started = false;
    for (const Bytes& record : receiver_.WaitFor(0)) {
      LogLine line = DecodeLine(record);
      if (line.text == marker) return lines;
      if (!started) {
        started = line.text == kCaptureStart;
        continue;
      }
      const std::u16string_view text = line.text;
      const bool loss = text.size() > kLost.size() && text.substr(text.size() - kLost.size()) == kLost;
      if (text.rfind(u"capture marker ", 0) != 0 && !loss) lines.push_back(std::move(line));
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
  const auto at =
      std::find_if(lines.begin(), lines.end(), [&](const LogLine& l) { return l.text == text && l.level == level; });
  return at == lines.end() ? -1 : static_cast<int>(at - lines.begin());
}

int IndexOfPrefix(const std::vector<LogLine>& lines, const std::u16string& prefix) {
  const auto at =
      std::find_if(lines.begin(), lines.end(), [&](const LogLine& l) { return l.text.rfind(prefix, 0) == 0; });
  return at == lines.end() ? -1 : static_cast<int>(at - lines.begin());
}

}  // namespace orlenda::testing
