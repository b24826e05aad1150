// Test support for the device modules: a fresh configuration whose stacks name them, per-port
// settings, and a client connection that keeps the device events it received and waits for them
// with a bound.
//
// Stacks: "serial" (the serial module) and "printer" (the network printer module). A port is
// "<stack>/<member>"; its settings live at "<stack>/<member>/<NAME>".
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ports/port_table.h"
#include "support/port_test_fixture.h"
#include "skein/devices.h"
#include "test_modules.h"

namespace orlenda::device_testing {

// A port's settings: names and their values.
using Settings = std::vector<std::pair<const char16_t*, std::u16string>>;

// Every wait of these tests: long enough for a loaded machine, short enough to end a broken run.
constexpr auto kBound = std::chrono::seconds(15);

// Whether `done` holds within kBound.
inline bool WaitUntil(const std::function<bool()>& done) { return port_testing::Eventually(done, kBound); }

// A client of one device port: registered for the device events before it opens, it keeps what
// arrives in order.
class DeviceClient {
 public:
  DeviceClient() {
    for (uint32_t e : {SK_EVENT_DEVICE_DATA, SK_EVENT_DEVICE_ONLINE, SK_EVENT_DEVICE_OFFLINE, SK_EVENT_DEVICE_LINES}) {
      connection_.RegisterCallback(e);
    }
  }
  ~DeviceClient() { connection_.Close(); }

  // Opens and locks the port.
  uint32_t Open(const char16_t* name) {
    const uint32_t opened = port_testing::OpenName(connection_, name);
    return opened != SKR_SUCCESS ? opened : port_testing::Lock(connection_);
  }
  uint32_t Close() { return connection_.Close(); }

  uint32_t Write(const std::string& bytes, uint32_t* written = nullptr) {
    return port_testing::WriteText(connection_, bytes, written);
  }

  // SK_DEVICE_STATE's DWORD, or 0xFFFFFFFF when the control fails.
  uint32_t State() {
    BlobRef output;
    uint32_t state = 0xFFFFFFFFu;  // a blob that is not a DWORD leaves it as it is
    if (connection_.Ioctl(SK_DEVICE_STATE, BlobRef(), &output) == SKR_SUCCESS) DwordBlobRead(output.get(), &state);
    return state;
  }
  bool WaitOnline(bool online) {
    return WaitUntil([&] { return ((State() & SK_DEVICE_STATE_ONLINE) != 0) == online; });
  }

  // The events received so far, oldest first.
  const std::vector<LocalConnection::ReceivedEvent>& Events() {
    for (auto& e : connection_.TakeEvents()) events_.push_back(std::move(e));
    return events_;
  }
  int Count(uint32_t event) {
    int n = 0;
    for (const auto& e : Events()) n += e.event == event;
    return n;
  }
  // Waits until `count` events `event` arrived.
  bool WaitCount(uint32_t event, int count) {
    return WaitUntil([&] { return Count(event) >= count; });
  }
  // The bytes of every data event, in order.
  std::string Data() {
    std::string bytes;
    for (const auto& e : Events()) {
      if (e.event == SK_EVENT_DEVICE_DATA) bytes += port_testing::Text(e.data);
    }
    return bytes;
  }
  // The text of the last event `event`, waiting (bounded) for one to come; "" when none came. The
  // module publishes a state before it raises the event that tells of it, so a client that saw the
  // state may not have the event yet.
  std::string LastText(uint32_t event) {
    WaitCount(event, 1);
    const auto& events = Events();
    const auto last = std::find_if(events.rbegin(), events.rend(), [&](const auto& e) { return e.event == event; });
    return last == events.rend() ? "" : testing::Narrow(port_testing::Units(last->data).c_str());  // to its NUL
  }
 private:
  LocalConnection connection_;
  std::vector<LocalConnection::ReceivedEvent> events_;
};

class DeviceTest : public port_testing::StoreTest {
 protected:
  DeviceTest()
      : StoreTest({{u"/components/serial/filename", ORLENDA_SERIAL_MODULE},
                   {u"/components/netprinter/filename", ORLENDA_NETPRINTER_MODULE},
                   {u"/stack/serial/serial/note", u""},
                   {u"/stack/printer/netprinter/note", u""}}) {}
  void TearDown() override {
    EXPECT_EQ(PortTable::Size(), 0u);  // every test closes what it opened
    StoreTest::TearDown();
  }

  // Stores the settings of `port` ("<stack>/<member>") as strings.
  static void Configure(const std::u16string& port, const Settings& settings) {
    for (const auto& s : settings) {
      ASSERT_TRUE(port_testing::SetProperty(WString(port.c_str()) + u"/" + s.first, WString(s.second.c_str())));
    }
  }
};

}  // namespace orlenda::device_testing
