// The network printer module through the port layer, against a fake printer on 127.0.0.1: bytes
// both ways, the printer switched off and on, a printer that stops reading, a suspend.
#include <gtest/gtest.h>

#include <string>

#include "support/device_test_fixture.h"
#include "netprinter/fake_printer.h"

namespace orlenda::device_testing {
namespace {

constexpr char16_t kPort[] = u"printer/p1";

class NetPrinterTest : public DeviceTest {
 protected:
  // The numbers stored as numbers: the settings test stores them as strings.
  void ConfigurePrinter(uint32_t write_timeout_ms = 5000) {
    Configure(kPort, {{u"NETPRINTER_HOST", u"127.0.0.1"}, {u"NETPRINTER_RECONNECT_INTERVAL", u"100"}});
    ASSERT_TRUE(port_testing::SetNumberProperty(u"printer/p1/NETPRINTER_PORT", printer_.port()));
    ASSERT_TRUE(port_testing::SetNumberProperty(u"printer/p1/NETPRINTER_WRITE_TIMEOUT", write_timeout_ms));
  }

  FakePrinter printer_;
};

// Absent at the open, switched on, off and on again on the same port, then through a suspend of the
// system (which closes the connection) and the resume (which opens it again).
TEST_F(NetPrinterTest, APrinterComesOnlineWhenItAppearsAfterItsPowerCycleAndAfterASuspendWithNothingSentTwice) {
  printer_.SwitchOff();
  ConfigurePrinter();
  DeviceClient client;
  ASSERT_EQ(client.Open(kPort), SKR_SUCCESS);  // does not wait for the printer
  EXPECT_EQ(client.State(), 0u);
  ASSERT_TRUE(client.WaitCount(SK_EVENT_DEVICE_OFFLINE, 1));
  ASSERT_TRUE(printer_.SwitchOn());
  ASSERT_TRUE(client.WaitOnline(true));
  ASSERT_EQ(client.Write("ABC" + kStatusRequest), SKR_SUCCESS);  // the count a write reports is checked below
  ASSERT_TRUE(WaitUntil([&] { return client.Data() == std::string(1, kFakePrinterStatus); })) << client.Data();

  printer_.SwitchOff();
  ASSERT_TRUE(client.WaitCount(SK_EVENT_DEVICE_OFFLINE, 2));
  const std::string reason = client.LastText(SK_EVENT_DEVICE_OFFLINE);
  EXPECT_NE(reason.find("127.0.0.1:" + std::to_string(printer_.port()) + ": "), std::string::npos) << reason;
  uint32_t written = 99;  // a write while offline fails at once and sends nothing
  EXPECT_EQ(client.Write("lost", &written), SKR_DEVICE_OFFLINE);
  EXPECT_EQ(written, 0u);

  ASSERT_TRUE(printer_.SwitchOn());
  ASSERT_TRUE(client.WaitCount(SK_EVENT_DEVICE_ONLINE, 2));
  EXPECT_EQ(client.LastText(SK_EVENT_DEVICE_ONLINE), "127.0.0.1:" + std::to_string(printer_.port()));
  ASSERT_EQ(client.Write("DEF" + kStatusRequest), SKR_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return client.Data().size() == 2; }));

  ASSERT_TRUE(WaitUntil([&] { return printer_.Connected(); }));
  PortTable::PowerTransition(4);  // the system suspends
  ASSERT_TRUE(client.WaitCount(SK_EVENT_DEVICE_OFFLINE, 3));
  EXPECT_EQ(client.State(), SK_DEVICE_STATE_SUSPENDED);
  EXPECT_TRUE(WaitUntil([&] { return !printer_.Connected(); }));
  PortTable::PowerTransition(7);  // and resumes
  ASSERT_TRUE(client.WaitCount(SK_EVENT_DEVICE_ONLINE, 3));
  EXPECT_EQ(client.Write("GHI"), SKR_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return printer_.ReceivedSize() >= 15; }));
  EXPECT_EQ(printer_.Received(), "ABC" + kStatusRequest + "DEF" + kStatusRequest + "GHI");
  EXPECT_EQ(client.Count(SK_EVENT_DEVICE_OFFLINE), 3);  // once each time, whatever the retries in between
  EXPECT_EQ(client.Count(SK_EVENT_DEVICE_ONLINE), 3);
  EXPECT_EQ(printer_.Connections(), 3);
  EXPECT_EQ(client.Close(), SKR_SUCCESS);
}

TEST_F(NetPrinterTest, WritesGoOutWholeOrStopAtTheTimeoutSayingHowMuchWentOut) {
  for (const bool printer_reads : {true, false}) {
    SCOPED_TRACE(printer_reads);
    const std::size_t before = printer_.ReceivedSize();
    DeviceClient client;
    ConfigurePrinter(printer_reads ? 10000 : 300);
    ASSERT_EQ(client.Open(kPort), SKR_SUCCESS);
    ASSERT_TRUE(client.WaitOnline(true));
    if (!printer_reads) printer_.StopReading();
    // A printer that stops reading is sent far beyond what the socket buffers hold.
    std::string data(printer_reads ? 1u << 20 : 64u << 20, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 131 + i / 251) & 0xFF);
    uint32_t written = 0;
    EXPECT_EQ(client.Write(data, &written), printer_reads ? SKR_SUCCESS : SKR_DEVICE_TIMEOUT);
    EXPECT_TRUE(printer_reads ? written == data.size() : written < data.size()) << written;
    printer_.ResumeReading();
    ASSERT_TRUE(WaitUntil([&] { return printer_.ReceivedSize() >= before + written; }));
    // Exactly what the write reported went out, the first bytes of it and nothing else; the port
    // is still online and takes the next write.
    EXPECT_EQ(client.Write("tail", nullptr), SKR_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return printer_.ReceivedSize() >= before + written + 4; }));
    EXPECT_TRUE(printer_.Received().substr(before) == data.substr(0, written) + "tail");
    EXPECT_EQ(client.Close(), SKR_SUCCESS);
  }
}

}  // namespace
}  // namespace orlenda::device_testing
