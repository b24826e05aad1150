#include "record_reader.h"

#include <gtest/gtest.h>

#include "test_sink.h"

namespace orlenda::logservice {
namespace {

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
    const std::vector<SeenRecord>& seen = sink.records;
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].text, u"hello");
    EXPECT_EQ(seen[0].data, (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(seen[0].header.process_id, 4242u);
    EXPECT_EQ(seen[0].header.time, 0x01DC5A0000000000ull);
    EXPECT_EQ(seen[1].text, u"");
    EXPECT_EQ(seen[1].data, (std::vector<uint8_t>{9, 8}));
    EXPECT_EQ(seen[2].header.kind, 1u);
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

}  // namespace
}  // namespace orlenda::logservice
