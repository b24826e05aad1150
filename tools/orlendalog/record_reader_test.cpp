#include "record_reader.h"

#include <gtest/gtest.h>

#include "test_sink.h"

namespace orlenda::logservice {
namespace {

logging::RecordHeader Header(uint32_t text_length, uint32_t data_length, uint32_t kind = 0) {
  logging::RecordHeader h;
  h.time = 0x01DC5A0000000000ull;
  h.process_id = 4242;
  h.thread_id = 17;
  h.kind = kind;
  h.level = 4;
  h.text_length = text_length;
  h.data_length = data_length;
  return h;
}

TEST(RecordReader, ReadsRecordsWhateverTheBytesArriveIn) {
  const std::vector<uint8_t> first = EncodeRecord(Header(5, 3), u"hello", {1, 2, 3});
  const std::vector<uint8_t> second = EncodeRecord(Header(0, 2), u"", {9, 8});
  // A request kind with nothing but its header is a record too.
  const std::vector<uint8_t> third = EncodeRecord(Header(0, 0, 1), u"", {});
  std::vector<uint8_t> stream = first;
  stream.insert(stream.end(), second.begin(), second.end());
  stream.insert(stream.end(), third.begin(), third.end());

  for (std::size_t step : {std::size_t{1}, std::size_t{7}, std::size_t{32}, stream.size()}) {
    SCOPED_TRACE(step);
    TestSink sink;
    RecordReader reader(&sink);
    for (std::size_t at = 0; at < stream.size(); at += step) {
      reader.Feed(stream.data() + at, std::min(step, stream.size() - at));
    }
    reader.Finish();
    const std::vector<SeenRecord> seen = sink.records();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].text, u"hello");
    EXPECT_EQ(seen[0].data, (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(seen[0].header.process_id, 4242u);
    EXPECT_EQ(seen[0].header.time, 0x01DC5A0000000000ull);
    EXPECT_EQ(seen[1].text, u"");
    EXPECT_EQ(seen[1].data, (std::vector<uint8_t>{9, 8}));
    EXPECT_EQ(seen[2].header.kind, 1u);
    EXPECT_TRUE(sink.notices().empty());
    EXPECT_EQ(reader.pending(), 0u);
  }
}

TEST(RecordReader, ReportsAndDropsWhatCannotBeRead) {
  struct Case {
    const char* name;
    std::vector<uint8_t> bytes;
    const char* notice;
    std::size_t pending;  // held after the feed
  };
  std::vector<uint8_t> cut = EncodeRecord(Header(5, 3), u"hello", {1, 2, 3});
  cut.resize(cut.size() - 4);  // the last text unit and the data never come
  std::vector<uint8_t> absurd = EncodeRecord(Header(0xFFFFFFFFu, 0), u"", {});
  absurd.insert(absurd.end(), 100, 0x41);
  const std::vector<uint8_t> huge_data = EncodeRecord(Header(0, 0x7FFFFFFFu), u"", {});
  const std::vector<uint8_t> strange_kind = EncodeRecord(Header(1, 0, 9), u"x", {});

  const Case cases[] = {
      {"short header", std::vector<uint8_t>(10, 0), "short record header: 10 of 32 bytes", 10},
      {"cut short", cut, "record cut short: 41 of 45 bytes arrived", 41},
      // A header that announces 60 MB of data costs no more than the bytes actually sent.
      {"announces 60 MB", EncodeRecord(Header(0, 60u << 20), u"", std::vector<uint8_t>(100, 7)),
       "record cut short: 132 of 62914592 bytes arrived", 132},
      {"absurd text length", absurd, "record with absurd text length 4294967295; rest of the stream dropped", 0},
      {"absurd data length", huge_data, "record with absurd data length 2147483647; rest of the stream dropped",
       0},
      {"unknown kind", strange_kind, "record of unknown kind 9; rest of the stream dropped", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TestSink sink;
    RecordReader reader(&sink);
    reader.Feed(c.bytes.data(), c.bytes.size());
    EXPECT_EQ(reader.pending(), c.pending);
    // Whatever follows a header that cannot be trusted is dropped too, even a good record.
    const std::vector<uint8_t> good = EncodeRecord(Header(2, 0), u"ok", {});
    if (std::string(c.name).rfind("absurd", 0) == 0 || std::string(c.name) == "unknown kind") {
      reader.Feed(good.data(), good.size());
    }
    reader.Finish();
    EXPECT_TRUE(sink.records().empty());
    ASSERT_EQ(sink.notices().size(), 1u);
    EXPECT_EQ(sink.notices()[0], c.notice);
    EXPECT_EQ(reader.pending(), 0u);
  }
}

}  // namespace
}  // namespace orlenda::logservice
