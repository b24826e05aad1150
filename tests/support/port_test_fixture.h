// Test support for the port layer's tests: a fresh store and configuration, and small helpers.
//
// PortTest's stacks:
//   loop:  the loopback module (echoes writes as event 0x00070001, answers SK_PORT_LOCK and
//          SK_LOCK_STATE; 0x7FFF0002 with a DWORD sets its lock state and raises
//          SK_EVENT_LOCK_CHANGED)
//   plain: test_component at the bottom (records its calls in "/testmodule/calls", refuses
//          SK_PORT_LOCK with SKR_INVALID_PARAMETER, raises any event on 0x7FFF0001)
//   mixed: test_component above the loopback (writes can be held or slowed, the stack can call
//          back into the service; see tests/modules/test_component.c)
// Members (groups in the properties store): loop/dev1, loop/dev2, loop/dev3, plain/dev1, plain/dev2,
// mixed/dev1, mixed/dev2.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/blob.h"
#include "components/configuration.h"
#include "ports/open_port.h"
#include "ports/port_table.h"
#include "ports/sk_connection.h"
#include "support/component_fixture.h"
#include "support/log_capture.h"
#include "test_modules.h"

namespace orlenda::port_testing {

constexpr uint32_t kLoopbackData = 0x00070001u;
constexpr uint32_t kLoopbackSetLockState = 0x7FFF0002u;
constexpr uint32_t kTestRaiseEvent = 0x7FFF0001u;
constexpr uint32_t kTestHoldWrites = 0x1FFF0003u;
constexpr uint32_t kTestEnumerate = 0x1FFF0004u;
constexpr uint32_t kTestEnumerateOnThread = 0x1FFF0005u;
constexpr uint32_t kTestHeldWrites = 0x1FFF0006u;

inline bool SetProperty(const WString& path, const WString& value) {
  return CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetString(View(path), value); });
}

inline bool SetNumberProperty(const WString& path, uint32_t value) {
  return CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetNumber(View(path), value); });
}

using testing::Dump;
using testing::IndexOf;
using testing::IndexOfPrefix;
using testing::LogCapture;
using testing::LogLine;

// The stored string, or "<missing>".
inline WString GetProperty(const WString& path) {
  WString value = u"<missing>";
  CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.GetString(View(path), &value); });
  return value;
}

inline std::size_t CountOf(const std::u16string& text, const std::u16string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::u16string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// Blobs: a DWORD, bytes, UTF-16 units (NULs as written) followed by raw bytes, and back.
inline BlobRef Dword(uint32_t value) { return BlobRef::Adopt(DwordBlobCreate(value)); }
inline BlobRef Bytes(const std::string& text) { return BlobRef::Adopt(BlobCopy(text.data(), text.size())); }
inline BlobRef Utf16(std::u16string_view text, const std::string& tail = {}) {
  std::string bytes(text.size() * 2, '\0');
  if (!text.empty()) std::memcpy(&bytes[0], text.data(), bytes.size());
  return Bytes(bytes + tail);
}
inline std::string Text(const BlobRef& blob) {
  return std::string(reinterpret_cast<const char*>(blob.data()), static_cast<std::size_t>(blob.size()));
}
inline std::u16string Units(const BlobRef& blob) {
  std::u16string text(blob.size() / 2, u'\0');
  if (!text.empty()) std::memcpy(&text[0], blob.data(), text.size() * 2);
  return text;
}

// A connection's id as its trace lines show it.
inline std::u16string TraceId(const CSKConnection& connection) {
  char text[9];
  std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(connection.trace_id()));
  return std::u16string(text, text + 8);
}

inline uint32_t OpenName(CSKConnection& connection, const char16_t* name) {
  WString text(name);
  return connection.Open(&text);
}

inline uint32_t Lock(CSKConnection& connection, uint32_t value = 1) {
  BlobRef output;
  return connection.Ioctl(SK_PORT_LOCK, Dword(value), &output);
}

inline uint32_t WriteText(CSKConnection& connection, const std::string& text, uint32_t* written = nullptr) {
  uint32_t count = 0;
  const uint32_t result = connection.Write(Bytes(text), &count);
  if (written != nullptr) *written = count;
  return result;
}

// The DWORD values of the events `event` received since the last call (other events are dropped).
inline std::vector<uint32_t> DwordEvents(LocalConnection& connection, uint32_t event) {
  std::vector<uint32_t> values;
  for (const auto& received : connection.TakeEvents()) {
    uint32_t value = 0;
    if (received.event == event && DwordBlobRead(received.data.get(), &value)) values.push_back(value);
  }
  return values;
}

// Whether `condition` holds within `bound`, looking every millisecond.
inline bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return condition();
}

// Sends `code` with a DWORD straight to the module `component` for its port `number`, past the
// port's access rules.
inline uint32_t ModuleIoctl(const char16_t* component, uint32_t number, uint32_t code, uint32_t value) {
  Blob* output = nullptr;
  CComponent* module = CConfiguration::FindComponent(component);
  const uint32_t result = module->Ioctl(number, code, DwordBlobCreate(value), &output);
  BlobRelease(output);
  return result;
}

// A fresh store holding `entries` (path and text) when the configuration loads; gone afterwards.
class StoreTest : public testing::ConfigurationFixture {
 protected:
  using Entries = std::vector<std::pair<const char16_t*, const char16_t*>>;
  explicit StoreTest(Entries entries) : entries_(std::move(entries)) {}
  void SetUp() override {
    ConfigurationFixture::SetUp();
    testing::WriteConfiguration({}, entries_);
    ASSERT_TRUE(CConfiguration::Load());
  }

 private:
  Entries entries_;
};

class PortTest : public StoreTest {
 protected:
  PortTest()
      : StoreTest({{u"/components/loopback/filename", ORLENDA_LOOPBACK_MODULE},
                   {u"/components/test_component/filename", ORLENDA_TEST_COMPONENT_MODULE},
                   {u"/stack/loop/loopback/note", u""},
                   {u"/stack/plain/test_component/note", u""},
                   {u"/stack/mixed/test_component/note", u""},
                   {u"/stack/mixed/loopback/note", u""}}) {}
  void SetUp() override {
    StoreTest::SetUp();
    if (HasFatalFailure()) return;
    for (const char16_t* member :
         {u"loop/dev1", u"loop/dev2", u"loop/dev3", u"plain/dev1", u"plain/dev2", u"mixed/dev1", u"mixed/dev2"}) {
      ASSERT_TRUE(SetProperty(WString(member) + u"/model", u"any"));
    }
    testing::ClearRecordedCalls();
  }
  void TearDown() override {
    // Every test closes what it opened: nothing may be left behind.
    EXPECT_EQ(PortTable::Size(), 0u);
    StoreTest::TearDown();
    EXPECT_EQ(COpenPort::LiveCount(), 0);
  }
};

}  // namespace orlenda::port_testing
