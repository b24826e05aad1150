// The log service's receiving side: the reader that makes records of each writer's bytes, and the
// pipe server that runs one reader for every writer.
#include "log_server.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "logging/log.h"
#include "platform/errors.h"
#include "platform/presence.h"
#include "record_reader.h"
#include "support/isolated_dirs.h"

namespace orlenda::logservice {
namespace {

// Keeps what readers report, safe for many reader threads. Tests read `records` and `notices` once
// the readers are done (the reader returned, or the server stopped).
struct SeenRecord {
  logging::RecordHeader header;
  std::u16string text;
  std::vector<uint8_t> data;
};

struct TestSink : RecordSink {
  void OnRecord(const logging::RecordHeader& header, WStringView text, const uint8_t* data,
                uint32_t data_size) override {
    std::lock_guard<std::mutex> lock(mutex);
    records.push_back({header, std::u16string(text), std::vector<uint8_t>(data, data + data_size)});
  }
  void OnMalformed(const char* notice) override {
    std::lock_guard<std::mutex> lock(mutex);
    notices.emplace_back(notice);
  }

  std::mutex mutex;
  std::vector<SeenRecord> records;
  std::vector<std::string> notices;
};

// The bytes of one record as a writer sends them.
std::vector<uint8_t> EncodeRecord(const logging::RecordHeader& header, const std::u16string& text,
                                  const std::vector<uint8_t>& data) {
  std::vector<uint8_t> bytes(logging::kRecordHeaderSize);
  logging::EncodeRecordHeader(header, bytes.data());
  const auto* units = reinterpret_cast<const uint8_t*>(text.data());  // the hosts are little-endian too
  bytes.insert(bytes.end(), units, units + 2 * text.size());
  bytes.insert(bytes.end(), data.begin(), data.end());
  return bytes;
}

logging::RecordHeader Header(uint32_t text_length, uint32_t data_length, uint32_t kind = 0) {
  return {0x01DC5A0000000000ull, 4242, 17, kind, 4, text_length, data_length};
}

TEST(RecordReader, ReadsRecordsWhateverTheBytesArriveIn) {
  // The third, a request kind with nothing but its header, is a record too.
  std::vector<uint8_t> stream;
  for (const auto& record : {EncodeRecord(Header(5, 3), u"hello", {1, 2, 3}), EncodeRecord(Header(0, 2), u"", {9, 8}),
                             EncodeRecord(Header(0, 0, 1), u"", {})}) {
    stream.insert(stream.end(), record.begin(), record.end());
  }

  for (std::size_t step : {std::size_t{1}, std::size_t{7}, std::size_t{32}, stream.size()}) {
    SCOPED_TRACE(step);
    TestSink sink;
    RecordReader reader(&sink);
    for (std::size_t at = 0; at < stream.size(); at += step) {
      reader.Feed(stream.data() + at, std::min(step, stream.size() - at));
    }
    reader.Finish();
    // Process, kind, text and data of each; the header's layout is the log client's to show.
    std::vector<std::tuple<uint32_t, uint32_t, std::u16string, std::vector<uint8_t>>> seen;
    for (const SeenRecord& r : sink.records) seen.emplace_back(r.header.process_id, r.header.kind, r.text, r.data);
    EXPECT_EQ(seen, (decltype(seen){{4242, 0, u"hello", {1, 2, 3}}, {4242, 0, u"", {9, 8}}, {4242, 1, u"", {}}}));
    EXPECT_TRUE(sink.notices.empty());
    EXPECT_EQ(reader.pending(), 0u);
  }
}

TEST(RecordReader, ReportsAndDropsWhatCannotBeRead) {
  struct Case {
    std::vector<uint8_t> bytes;
    const char* notice;
    std::size_t pending;  // held after the feed
  };
  const Case cases[] = {
      {std::vector<uint8_t>(10, 0), "short record header: 10 of 32 bytes", 10},
      // Half of the last text unit comes, the data never does.
      {EncodeRecord(Header(5, 3), u"hell", {u'o'}), "record cut short: 41 of 45 bytes arrived", 41},
      // A header that announces 60 MB of data costs no more than the bytes actually sent.
      {EncodeRecord(Header(0, 60u << 20), u"", std::vector<uint8_t>(100, 7)),
       "record cut short: 132 of 62914592 bytes arrived", 132},
      {EncodeRecord(Header(0xFFFFFFFFu, 0), u"", std::vector<uint8_t>(100, 0x41)),
       "record with absurd text length 4294967295; rest of the stream dropped", 0},
      {EncodeRecord(Header(0, 0x7FFFFFFFu), u"", {}),
       "record with absurd data length 2147483647; rest of the stream dropped", 0},
      {EncodeRecord(Header(1, 0, 9), u"x", {}), "record of unknown kind 9; rest of the stream dropped", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.notice);
    TestSink sink;
    RecordReader reader(&sink);
    reader.Feed(c.bytes.data(), c.bytes.size());
    EXPECT_EQ(reader.pending(), c.pending);
    // Whatever follows a header that cannot be trusted is dropped too, even a good record.
    const std::vector<uint8_t> good = EncodeRecord(Header(2, 0), u"ok", {});
    if (c.pending == 0) reader.Feed(good.data(), good.size());
    reader.Finish();
    EXPECT_TRUE(sink.records.empty());
    ASSERT_EQ(sink.notices.size(), 1u);
    EXPECT_EQ(sink.notices[0], c.notice);
    EXPECT_EQ(reader.pending(), 0u);
  }
}

// Sends raw bytes as one writer and hangs up.
void SendRaw(const std::vector<uint8_t>& bytes) {
  platform::PipeStream pipe;
  uint32_t error = platform::kErrorPipeBusy;
  for (int attempt = 0; attempt < 200 && error != 0; ++attempt) {
    error = pipe.Open(logging::kLogServicePipeName, false);
    if (error != 0) platform::WaitForPipe(logging::kLogServicePipeName, 100);
  }
  ASSERT_EQ(error, 0u);
  for (std::size_t at = 0; at < bytes.size();) {
    uint32_t written = 0;
    ASSERT_EQ(pipe.Write(bytes.data() + at, static_cast<uint32_t>(bytes.size() - at), &written), 0u);
    at += written;
  }
}

TEST(LogServer, GarbageAndHalfRecordsAreReportedWhileGoodWritersGoOnAndTheServiceStartsAgain) {
  testing::UseIsolatedDirs();
  platform::PresenceObject presence;
  ASSERT_EQ(presence.Acquire(logging::kLogServiceEventName), 0u);
  TestSink sink;
  LogServer server(&sink);
  ASSERT_EQ(server.Start(), 0u);
  // Short headers, a long stream whose kind field can never be valid, and records whose writer hangs
  // up in the middle of the text or the data.
  const std::vector<uint8_t> whole =
      EncodeRecord({0, 0, 0, logging::kRecordKindMessage, 0, 10, 20}, u"0123456789", std::vector<uint8_t>(20, 1));
  const std::vector<std::vector<uint8_t>> bad = {std::vector<uint8_t>(1, 0x11), std::vector<uint8_t>(31, 0x11),
                                                 std::vector<uint8_t>(3000, 0xEE), {whole.begin(), whole.begin() + 33},
                                                 {whole.begin(), whole.begin() + 60}};

  constexpr int kGood = 40;
  std::vector<std::thread> writers;
  for (std::size_t i = 0; i < bad.size(); ++i) writers.emplace_back([&bad, i] { SendRaw(bad[i]); });
  for (int i = 0; i < kGood; ++i) writers.emplace_back([i] { EXPECT_TRUE(Log(4, u"good %d", i)); });
  for (std::thread& w : writers) w.join();
  ASSERT_TRUE(FlushLog(5000));
  server.Stop();

  ASSERT_EQ(sink.records.size(), static_cast<std::size_t>(kGood));
  // Each good writer's record once (what a record holds is the reader's tests' to show).
  std::set<std::u16string> texts;
  for (const SeenRecord& r : sink.records) texts.insert(r.text);
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(kGood));
  // One notice for each bad writer, none for the good ones.
  EXPECT_EQ(sink.notices.size(), bad.size());

  // The stopped service can start again on the same pipe.
  LogServer again(&sink);
  ASSERT_EQ(again.Start(), 0u);
  ASSERT_TRUE(Log(4, u"after"));
  ASSERT_TRUE(FlushLog(5000));
  again.Stop();
  ASSERT_EQ(sink.records.size(), kGood + 1u);
  EXPECT_EQ(sink.records.back().text, u"after");
}

}  // namespace
}  // namespace orlenda::logservice
