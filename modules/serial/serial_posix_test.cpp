// The serial module on POSIX through the port layer, over pseudo-terminals: the module opens the
// terminal's tty side (through a link in a folder of the test's own, which the port's
// SERIAL_DEVICE names), the test plays the device on the other side.
//
// A pseudo-terminal keeps the speed, stop bits, flow control and mark/space bits it is given but
// always reports 8 data bits without parity, and has no modem lines: those are not checked here.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "support/device_test_fixture.h"

namespace orlenda::device_testing {
namespace {

constexpr char16_t kPort[] = u"serial/dev1";
constexpr int kBoundMs = static_cast<int>(std::chrono::milliseconds(kBound).count());

// The device side of a pseudo-terminal.
class Pty {
 public:
  Pty() {
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (master_ >= 0 && grantpt(master_) == 0 && unlockpt(master_) == 0) tty_ = ptsname(master_);
  }
  ~Pty() { close(master_); }  // a pseudo-terminal that could not be made closes nothing
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;

  const std::string& tty() const { return tty_; }

  void Write(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
      const ssize_t n = write(master_, bytes.data() + at, bytes.size() - at);
      if (n > 0) at += static_cast<std::size_t>(n);
      if (n < 0 && !Wait(POLLOUT, 1000)) return;
    }
  }
  // Reads until `count` bytes came or nothing came for `quiet_ms` (within the tests' bound). A
  // short quiet time shows that nothing more comes; by default only the bound ends a read, so a
  // loaded machine that starts the writer late does not cut it short.
  std::string Read(std::size_t count, int quiet_ms = kBoundMs) {
    std::string bytes;
    char buffer[65536];
    const auto deadline = std::chrono::steady_clock::now() + kBound;
    while (bytes.size() < count && std::chrono::steady_clock::now() < deadline && Wait(POLLIN, quiet_ms)) {
      const ssize_t n = read(master_, buffer, sizeof buffer);
      if (n <= 0) break;
      bytes.append(buffer, static_cast<std::size_t>(n));
    }
    return bytes;
  }
  // The tty side's settings (the master reads them for its tty).
  termios Attributes() const {
    termios t{};
    tcgetattr(master_, &t);
    return t;
  }

 private:
  bool Wait(short events, int ms) {
    pollfd p{master_, events, 0};
    return poll(&p, 1, ms) > 0 && (p.revents & events) != 0;
  }
  int master_ = -1;
  std::string tty_;
};

class SerialTest : public DeviceTest {
 protected:
  // Points the stable link at `target` in one step, as a device node that comes and goes would. A
  // pseudo-terminal that could not be made has no name, and the link to it fails here.
  void LinkTo(const std::string& target) {
    const std::string next = link_ + ".new";
    unlink(next.c_str());
    ASSERT_EQ(symlink(target.c_str(), next.c_str()), 0);
    ASSERT_EQ(rename(next.c_str(), link_.c_str()), 0);
  }

  // The port, configured with `settings` on the link to `target`, opened by `client`.
  void Open(const std::string& target, DeviceClient& client, Settings settings = {}, const char16_t* port = kPort) {
    LinkTo(target);
    settings.push_back({u"SERIAL_DEVICE", std::u16string(link_.begin(), link_.end())});
    settings.push_back({u"SERIAL_RECONNECT_INTERVAL", u"100"});
    Configure(port, settings);
    ASSERT_EQ(client.Open(port), SKR_SUCCESS);
  }
  // The same on `pty`, and online.
  void OpenOn(const Pty& pty, DeviceClient& client, const Settings& settings = {}, const char16_t* port = kPort) {
    ASSERT_NO_FATAL_FAILURE(Open(pty.tty(), client, settings, port));
    ASSERT_TRUE(client.WaitOnline(true));
  }

  // The suite's own run folder, fresh for this test program, holds the link and the nodes that never appear.
  const std::string folder_ = std::getenv("ORLENDA_RUN_DIR");
  const std::string link_ = folder_ + "/printer";
};

TEST_F(SerialTest, LineSettingsReachTheTtyInRawMode) {
  struct Case {
    const char16_t* port;
    Settings settings;
    speed_t speed;
    tcflag_t cflags;  // of CSTOPB, CRTSCTS, CMSPAR
    tcflag_t iflags;  // of IXON, IXOFF
  };
  const Case cases[] = {
      {u"serial/a", {}, B9600, 0, 0},  // the documented defaults: 9600, 1 stop bit, no flow control
      {u"serial/b",
       {{u"SERIAL_BAUD_RATE", u"19200"}, {u"SERIAL_STOP_BITS", u"2"}, {u"SERIAL_FLOW_CONTROL", u"RtsCts"}},
       B19200, CSTOPB | CRTSCTS, 0},
      {u"serial/c",
       {{u"SERIAL_BAUD_RATE", u"115200"}, {u"SERIAL_PARITY", u"Mark"}, {u"SERIAL_FLOW_CONTROL", u"XonXoff"}},
       B115200, CMSPAR, IXON | IXOFF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.speed);
    Pty pty;
    DeviceClient client;
    OpenOn(pty, client, c.settings, c.port);
    const termios t = pty.Attributes();
    EXPECT_EQ(cfgetospeed(&t), c.speed);
    EXPECT_EQ(cfgetispeed(&t), c.speed);
    EXPECT_EQ(t.c_cflag & (CSTOPB | CRTSCTS | CMSPAR), c.cflags);
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF), c.iflags);
    EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG), 0u);  // raw: bytes pass untouched
    EXPECT_EQ(t.c_oflag & OPOST, 0u);
    EXPECT_EQ(client.Close(), SKR_SUCCESS);
  }
}

TEST_F(SerialTest, AWriteTheDeviceStopsTakingEndsAtTheTimeoutSayingHowMuchWentOut) {
  for (const bool send_xoff : {true, false}) {  // the device sends XOFF, or merely stops reading
    SCOPED_TRACE(send_xoff);
    Pty pty;
    DeviceClient client;
    OpenOn(pty, client,
           {{u"SERIAL_FLOW_CONTROL", send_xoff ? u"XonXoff" : u"None"}, {u"SERIAL_WRITE_TIMEOUT", u"300"}});
    std::string probes;  // what went out before the tty took the XOFF
    if (send_xoff) {
      pty.Write("\x13");
      ASSERT_TRUE(WaitUntil([&] {  // the tty has taken the XOFF once a write gets nothing through
        uint32_t probe = 0;
        const uint32_t result = client.Write("P", &probe);
        probes.append(probe, 'P');
        return result == SKR_DEVICE_TIMEOUT && probe == 0;
      }));
    }
    const std::string data(1u << 20, 'd');
    uint32_t written = 0xFFFFFFFFu;
    EXPECT_EQ(client.Write(data, &written), SKR_DEVICE_TIMEOUT);
    ASSERT_LT(written, data.size());
    EXPECT_TRUE(send_xoff || written > 0) << "the terminal's buffer takes a part before it fills";
    if (send_xoff) pty.Write("\x11");
    // What the write reported is exactly what the device gets, and the port goes on working.
    EXPECT_EQ(pty.Read(probes.size() + written + 1, 300), probes + std::string(written, 'd'));
    EXPECT_EQ(client.Write("next", nullptr), SKR_SUCCESS);
    EXPECT_EQ(pty.Read(4), "next");
    EXPECT_EQ(client.Close(), SKR_SUCCESS);
  }
}

// Absent at the open, plugged in, unplugged and plugged in again under another node; on each node
// bytes go both ways untouched and in order, and a large write arrives whole.
TEST_F(SerialTest, ADeviceComesOnlineWhenItAppearsGoesOfflineOnceWhenUnpluggedAndCarriesBytesBothWays) {
  DeviceClient client;
  ASSERT_NO_FATAL_FAILURE(Open(folder_ + "/not-yet", client));
  ASSERT_TRUE(client.WaitCount(SK_EVENT_DEVICE_OFFLINE, 1));  // the first attempt failed
  auto first = std::make_unique<Pty>();
  LinkTo(first->tty());
  ASSERT_TRUE(client.WaitOnline(true));
  EXPECT_EQ(client.LastText(SK_EVENT_DEVICE_ONLINE), link_);
  const std::string out("\x1b@hello\r\n\x00\xff", 11);
  ASSERT_EQ(client.Write(out), SKR_SUCCESS);  // the count a write reports: with the large one below
  EXPECT_EQ(first->Read(out.size()), out);

  // Unplugged: the node goes away (the link dangles, so no other terminal is met), then the device.
  LinkTo(folder_ + "/gone");
  first.reset();
  ASSERT_TRUE(client.WaitCount(SK_EVENT_DEVICE_OFFLINE, 2));
  const std::string reason = client.LastText(SK_EVENT_DEVICE_OFFLINE);
  EXPECT_EQ(reason.rfind(link_ + ": ", 0), 0u) << reason;
  EXPECT_NE(reason.find("(error "), std::string::npos) << reason;
  EXPECT_EQ(client.Write("lost"), SKR_DEVICE_OFFLINE);

  Pty second;
  LinkTo(second.tty());
  ASSERT_TRUE(client.WaitCount(SK_EVENT_DEVICE_ONLINE, 2));
  ASSERT_EQ(client.Write("after"), SKR_SUCCESS);
  EXPECT_EQ(second.Read(6, 300), "after");  // nothing of before, nothing twice
  std::string answers;
  for (int i = 0; i < 50; ++i) answers += std::string(1, static_cast<char>(i)) + "status";
  second.Write(answers.substr(0, 100));
  second.Write(answers.substr(100));
  ASSERT_TRUE(WaitUntil([&] { return client.Data().size() >= answers.size(); }));
  EXPECT_EQ(client.Data(), answers);

  std::string large(1u << 20, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 + i / 4099);
  std::string received;
  std::thread device([&] { received = second.Read(large.size()); });
  uint32_t written = 0;
  EXPECT_EQ(client.Write(large, &written), SKR_SUCCESS);
  device.join();
  EXPECT_EQ(written, large.size());
  EXPECT_TRUE(received == large) << received.size();
  EXPECT_EQ(client.Count(SK_EVENT_DEVICE_OFFLINE), 2);
  EXPECT_EQ(client.Count(SK_EVENT_DEVICE_ONLINE), 2);
  EXPECT_EQ(client.Close(), SKR_SUCCESS);
}

}  // namespace
}  // namespace orlenda::device_testing
