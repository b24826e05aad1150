// The serial module on Windows through the port layer, on a COM port whose other end is a second
// COM port the test drives itself: serial_wine_test.sh joins the two with pty_bridge under Wine
// and names them in ORLENDA_TEST_COM_MODULE and ORLENDA_TEST_COM_PEER. Run without them, the tests
// are skipped.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "support/device_test_fixture.h"

namespace orlenda::device_testing {
namespace {

constexpr char16_t kPort[] = u"serial/com";

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

// The test's own end of the cable, raw 9600 8N1, read by polling.
class PeerPort {
 public:
  explicit PeerPort(const std::string& name) {
    const std::u16string path = u"\\\\.\\" + Wide(name);
    handle_ = CreateFileW(reinterpret_cast<const wchar_t*>(path.c_str()), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                          OPEN_EXISTING, 0, nullptr);
    DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    COMMTIMEOUTS immediate{MAXDWORD, 0, 0, 0, 0};  // a read returns what is there at once
    ok_ = handle_ != INVALID_HANDLE_VALUE && GetCommState(handle_, &dcb) &&  // binary mode, as always
          BuildCommDCBA("baud=9600 parity=N data=8 stop=1", &dcb) && SetCommState(handle_, &dcb) &&
          SetCommTimeouts(handle_, &immediate);
  }
  ~PeerPort() {
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
  }
  bool ok() const { return ok_; }

  bool Write(const std::string& bytes) {
    DWORD done = 0;
    return WriteFile(handle_, bytes.data(), static_cast<DWORD>(bytes.size()), &done, nullptr) && done == bytes.size();
  }
  // Reads until `count` bytes came, within the tests' bound.
  std::string Read(std::size_t count) {
    std::string bytes;
    char buffer[4096];
    WaitUntil([&] {
      DWORD done = 0;
      if (ReadFile(handle_, buffer, sizeof buffer, &done, nullptr)) bytes.append(buffer, done);
      return bytes.size() >= count;
    });
    return bytes;
  }

 private:
  HANDLE handle_ = INVALID_HANDLE_VALUE;
  bool ok_ = false;
};

class SerialComTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    if (module_port_ == nullptr || peer_port_ == nullptr) GTEST_SKIP() << "run through serial_wine_test.sh";
  }
  const char* const module_port_ = std::getenv("ORLENDA_TEST_COM_MODULE");
  const char* const peer_port_ = std::getenv("ORLENDA_TEST_COM_PEER");
};

TEST_F(SerialComTest, BytesGoBothWaysThroughTheComPort) {
  PeerPort peer(peer_port_);
  ASSERT_TRUE(peer.ok()) << peer_port_;
  Configure(kPort, {{u"SERIAL_DEVICE", Wide(module_port_)},
                    {u"SERIAL_BAUD_RATE", u"9600"},
                    {u"SERIAL_RECONNECT_INTERVAL", u"100"}});
  DeviceClient client;
  ASSERT_EQ(client.Open(kPort), SKR_SUCCESS);
  ASSERT_TRUE(client.WaitOnline(true)) << client.LastText(SK_EVENT_DEVICE_OFFLINE);
  EXPECT_EQ(client.LastText(SK_EVENT_DEVICE_ONLINE), module_port_);

  const std::string out("\x1b@receipt\r\n\x00\xff", 13);
  ASSERT_EQ(client.Write(out), SKR_SUCCESS);  // the count a write reports: with the large one below
  EXPECT_EQ(peer.Read(out.size()), out);

  ASSERT_TRUE(peer.Write(std::string("\x12status", 7)));
  ASSERT_TRUE(WaitUntil([&] { return client.Data().size() >= 7; }));
  EXPECT_EQ(client.Data(), std::string("\x12status", 7));

  std::string large(64u << 10, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 13 + i / 509);
  std::string received;
  std::thread device([&] { received = peer.Read(large.size()); });
  uint32_t written = 0;
  const uint32_t result = client.Write(large, &written);
  device.join();
  EXPECT_EQ(result, SKR_SUCCESS) << std::hex << result << " " << client.LastText(SK_EVENT_DEVICE_OFFLINE);
  EXPECT_EQ(written, large.size());
  EXPECT_TRUE(received == large) << received.size();
  EXPECT_EQ(client.Close(), SKR_SUCCESS);
}

}  // namespace
}  // namespace orlenda::device_testing
