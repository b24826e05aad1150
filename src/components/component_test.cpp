#include "components/component.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "logging/log.h"
#include "logging/log_record.h"
#include "platform/errors.h"
#include "platform/module.h"
#include "platform/pipe.h"
#include "platform/presence.h"
#include "platform/thread.h"
#include "settings/property_handler.h"
#include "support/isolated_dirs.h"
#include "support/log_capture.h"
#include "test_modules.h"

namespace orlenda {
namespace {

// Controls and events of the modules under test (documented in their sources).
constexpr uint32_t kTestRaiseEvent = 0x7FFF0001;
constexpr uint32_t kLoopbackData = 0x00070001;
constexpr uint32_t kLoopbackSetLockState = 0x7FFF0002;

WString W(const char16_t* s) { return WString(s); }

uint64_t Refs(const Blob* blob) { return blob->references.load(); }

// ---- A host table over an in-memory property store ----
// Serialised on one lock, as the service's table is on its configuration lock.
struct FakeHost {
  static CPropertyHandler* store;
  static std::mutex lock;

  static int32_t SKEIN_CALL GetNumber(SkString* path, uint32_t* value) {
    const WString p = FromSkString(path);
    SkStringFree(path);
    std::lock_guard<std::mutex> hold(lock);
    return store->GetNumber(View(p), value) ? 1 : 0;
  }
  static int32_t SKEIN_CALL GetString(SkString* path, SkString** value) {
    const WString p = FromSkString(path);
    SkStringFree(path);
    WString text;
    {
      std::lock_guard<std::mutex> hold(lock);
      if (!store->GetString(View(p), &text)) return 0;
    }
    *value = ToSkString(View(text));
    return *value != nullptr ? 1 : 0;
  }
  static int32_t SKEIN_CALL SetNumber(SkString* path, uint32_t value) {
    const WString p = FromSkString(path);
    SkStringFree(path);
    std::lock_guard<std::mutex> hold(lock);
    return store->SetNumber(View(p), value) ? 1 : 0;
  }
  static int32_t SKEIN_CALL SetString(SkString* path, SkString* value) {
    const WString p = FromSkString(path);
    const WString v = FromSkString(value);
    SkStringFree(path);
    SkStringFree(value);
    std::lock_guard<std::mutex> hold(lock);
    return store->SetString(View(p), v) ? 1 : 0;
  }

  static SkHostTable Table() {
    SkHostTable table{};
    table.GetNumber = GetNumber;
    table.GetString = GetString;
    table.SetNumber = SetNumber;
    table.SetString = SetString;
    return table;
  }
};
CPropertyHandler* FakeHost::store = nullptr;
std::mutex FakeHost::lock;

// ---- What reaches the top of a stack ----
struct Received {
  uint32_t port;
  uint32_t event;
  BlobRef data;
};

struct EventSink {
  static std::mutex lock;
  static std::vector<Received> events;

  static void SKEIN_CALL Event(uint32_t port, uint32_t event, SkBlob* data) {
    std::lock_guard<std::mutex> hold(lock);
    events.push_back({port, event, BlobRef::Adopt(FromSkBlob(data))});
  }
  static std::vector<Received> Take() {
    std::lock_guard<std::mutex> hold(lock);
    std::vector<Received> taken;
    taken.swap(events);
    return taken;
  }
  // The caller's layer: only the event entry is filled.
  static SkComponentTable Layer() {
    SkComponentTable table{};
    table.Event = Event;
    return table;
  }
};
std::mutex EventSink::lock;
std::vector<Received> EventSink::events;

std::string BytesOf(const BlobRef& blob) {
  return blob ? std::string(reinterpret_cast<const char*>(blob.data()), blob.size()) : "<none>";
}

class ComponentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::UseIsolatedDirs();
    FakeHost::store = &store_;
    EventSink::Take();
    host_ = FakeHost::Table();
  }
  void SetNumber(const char16_t* path, uint32_t value) { ASSERT_TRUE(store_.SetNumber(path, value)); }
  std::u16string Calls() {
    WString text;
    if (!store_.GetString(u"/testmodule/calls", &text)) return u"";
    return std::u16string(text.data(), text.size());
  }
  void ClearCalls() { store_.Delete(u"/testmodule/calls"); }

  CPropertyHandler store_;
  SkHostTable host_{};
};

// ---- Loading ----

TEST_F(ComponentTest, LibraryWithoutEntryPointIsReleasedButStillReported) {
  const uint32_t lost = LostMessageCount();
  CComponent component(W(ORLENDA_TEST_NOEXPORT_MODULE), &host_);
  EXPECT_FALSE(component.IsLoaded());
  EXPECT_FALSE(platform::IsModuleResident(ORLENDA_TEST_NOEXPORT_MODULE));
  const SkComponentTable& t = component.table();
  EXPECT_TRUE(t.Open == nullptr && t.Close == nullptr && t.Write == nullptr && t.Ioctl == nullptr &&
              t.Event == nullptr);
  // One version line (no log service runs, so it is counted as lost).
  EXPECT_EQ(LostMessageCount(), lost + 1);
  EXPECT_EQ(component.Open(1, u"x/y", nullptr), SKR_INVALID_PARAMETER);
}

TEST_F(ComponentTest, MissingFileLoadsNothingAndWritesNoVersionLine) {
  const uint32_t lost = LostMessageCount();
  CComponent component(W(ORLENDA_TEST_MISSING_MODULE), &host_);
  EXPECT_FALSE(component.IsLoaded());
  EXPECT_EQ(LostMessageCount(), lost);
}

TEST_F(ComponentTest, RefusingModuleIsReleasedWithoutUnloadAndStillReported) {
  SetNumber(u"/testmodule/test_component/refuseInit", 1);
  const uint32_t lost = LostMessageCount();
  {
    CComponent component(W(ORLENDA_TEST_COMPONENT_MODULE), &host_);
    EXPECT_FALSE(component.IsLoaded());
    EXPECT_FALSE(platform::IsModuleResident(ORLENDA_TEST_COMPONENT_MODULE));
    EXPECT_EQ(component.table().Open, nullptr);
    EXPECT_EQ(LostMessageCount(), lost + 1);
    component.Unload();
  }
  // It was asked (init), and since it refused it is never told to unload.
  EXPECT_EQ(Calls(), u"test_component:init:0;");
}

TEST_F(ComponentTest, LoadedModuleRunsUntilUnloadWhichEmptiesTheTable) {
  CComponent component(W(ORLENDA_TEST_COMPONENT_MODULE), &host_);
  ASSERT_TRUE(component.IsLoaded());
  EXPECT_TRUE(platform::IsModuleResident(ORLENDA_TEST_COMPONENT_MODULE));
  const SkComponentTable layer = EventSink::Layer();
  EXPECT_EQ(component.Open(9, u"Printer/Main", &layer), SKR_SUCCESS);
  EXPECT_EQ(component.Close(9), SKR_SUCCESS);
  EXPECT_EQ(component.Close(9), SKR_INVALID_HANDLE);  // the port was forgotten

  component.Unload();
  EXPECT_FALSE(component.IsLoaded());
  EXPECT_FALSE(platform::IsModuleResident(ORLENDA_TEST_COMPONENT_MODULE));
  const SkComponentTable& t = component.table();
  EXPECT_TRUE(t.Open == nullptr && t.Close == nullptr && t.Write == nullptr && t.Ioctl == nullptr &&
              t.Event == nullptr);
  EXPECT_EQ(component.Close(9), SKR_INVALID_PARAMETER);
  const std::u16string calls =
      u"test_component:init:0;test_component:open:9;test_component:close:9;"
      u"test_component:close:9;test_component:unload:0;";
  EXPECT_EQ(Calls(), calls);
  component.Unload();  // twice is harmless: no second UnloadSkeinComponent
  EXPECT_EQ(Calls(), calls);
}

TEST_F(ComponentTest, DestroyingALoadedComponentUnloadsIt) {
  { CComponent component(W(ORLENDA_TEST_COMPONENT_MODULE), &host_); }
  EXPECT_EQ(Calls(), u"test_component:init:0;test_component:unload:0;");
  EXPECT_FALSE(platform::IsModuleResident(ORLENDA_TEST_COMPONENT_MODULE));
}

TEST_F(ComponentTest, OpenResultComesFromTheModuleAndAFailedOpenKeepsNoPort) {
  CComponent component(W(ORLENDA_TEST_COMPONENT_MODULE), &host_);
  ASSERT_TRUE(component.IsLoaded());
  // Read by the module inside Open, through the host table.
  SetNumber(u"/testmodule/test_component/openResult", 0x80000123);
  EXPECT_EQ(component.Open(4, u"a/b", nullptr), 0x80000123u);
  EXPECT_EQ(component.Close(4), SKR_INVALID_HANDLE);
}

// ---- Entries left empty ----

TEST_F(ComponentTest, ModuleWithOnlyOpenAndCloseRejectsTheRestAndDropsTheirBlobs) {
  SetNumber(u"/testmodule/test_component/entries", 3);
  CComponent component(W(ORLENDA_TEST_COMPONENT_MODULE), &host_);
  ASSERT_TRUE(component.IsLoaded());
  const SkComponentTable& t = component.table();
  EXPECT_NE(t.Open, nullptr);
  EXPECT_NE(t.Close, nullptr);
  EXPECT_EQ(t.Write, nullptr);
  EXPECT_EQ(t.Ioctl, nullptr);
  EXPECT_EQ(t.Event, nullptr);

  EXPECT_EQ(component.Open(2, u"p/m", nullptr), SKR_SUCCESS);
  BlobRef mine = BlobRef::Adopt(BlobCopy("abc", 3));
  uint32_t written = 77;
  EXPECT_EQ(component.Write(2, BlobRef(mine).Release(), &written), SKR_INVALID_PARAMETER);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(Refs(mine.get()), 1u);

  Blob* output = DwordBlobCreate(5);  // must be overwritten, not leaked: it is ours
  BlobRef keep_output = BlobRef::Adopt(output);
  EXPECT_EQ(component.Ioctl(2, 0x40010001, BlobRef(mine).Release(), &output), SKR_INVALID_PARAMETER);
  EXPECT_EQ(output, nullptr);
  EXPECT_EQ(Refs(mine.get()), 1u);

  component.Event(2, 0x1234, BlobRef(mine).Release());  // no sink: nothing happens
  EXPECT_EQ(Refs(mine.get()), 1u);
  EXPECT_EQ(component.Close(2), SKR_SUCCESS);
  EXPECT_EQ(Calls(), u"test_component:init:0;test_component:open:2;test_component:close:2;");
}

// ---- Wrappers ----

struct FakeModule {
  static WString opened_path;
  static uint64_t refs_seen;
  static uint32_t SKEIN_CALL Open(uint32_t port, SkString* path, const SkLayerTable*) {
    opened_path = FromSkString(path);
    SkStringFree(path);
    return port;
  }
  static uint32_t SKEIN_CALL Close(uint32_t port) { return port + 1; }
  // Drops its reference at once, then still looks at the blob: only the caller's hold keeps it.
  static uint32_t SKEIN_CALL Write(uint32_t, SkBlob* data, uint32_t* written) {
    SkBlobRelease(data);
    refs_seen = static_cast<uint64_t>(data->references);
    *written = static_cast<uint32_t>(data->size);
    return 0;
  }
  static uint32_t SKEIN_CALL Ioctl(uint32_t, uint32_t code, SkBlob* input, SkBlob** output) {
    SkBlobRelease(input);
    refs_seen = input != nullptr ? static_cast<uint64_t>(input->references) : 0;
    *output = SkDwordCreate(code);
    return 0;
  }
  static void SKEIN_CALL Event(uint32_t, uint32_t, SkBlob* data) {
    SkBlobRelease(data);
    refs_seen = static_cast<uint64_t>(data->references);
  }
  static SkComponentTable Table() { return SkComponentTable{Open, Close, Write, Ioctl, Event}; }
};
WString FakeModule::opened_path;
uint64_t FakeModule::refs_seen = 0;

TEST_F(ComponentTest, EmptyWrapperAnswersInvalidParameterAndDropsBlobs) {
  CComponent empty;
  EXPECT_FALSE(empty.IsLoaded());
  EXPECT_EQ(empty.Open(1, u"a/b", nullptr), SKR_INVALID_PARAMETER);
  EXPECT_EQ(empty.Close(1), SKR_INVALID_PARAMETER);
  BlobRef mine = BlobRef::Adopt(BlobCreate(8));
  uint32_t written = 0;
  EXPECT_EQ(empty.Write(1, BlobRef(mine).Release(), &written), SKR_INVALID_PARAMETER);
  EXPECT_EQ(empty.Ioctl(1, 2, BlobRef(mine).Release(), nullptr), SKR_INVALID_PARAMETER);
  empty.Event(1, 2, BlobRef(mine).Release());
  EXPECT_EQ(Refs(mine.get()), 1u);
  // Null blobs are allowed everywhere.
  EXPECT_EQ(empty.Write(1, nullptr, &written), SKR_INVALID_PARAMETER);
  empty.Event(1, 2, nullptr);
}

TEST_F(ComponentTest, TableWrapperCallsTheCopiedEntriesHoldingTheBlobMeanwhile) {
  SkComponentTable source = FakeModule::Table();
  CComponent wrapper(&source);
  source = SkComponentTable{};  // the wrapper holds a copy
  EXPECT_FALSE(wrapper.IsLoaded());

  EXPECT_EQ(wrapper.Open(42, u"Scanner/Front", nullptr), 42u);
  EXPECT_EQ(FakeModule::opened_path, W(u"Scanner/Front"));
  EXPECT_EQ(wrapper.Close(42), 43u);

  // Each blob is handed over with its only reference: the wrapper's own hold must keep it alive
  // while the module, having dropped its reference, still reads it (ASan would see the reuse).
  uint32_t written = 0;
  EXPECT_EQ(wrapper.Write(1, BlobCopy("12345", 5), &written), 0u);
  EXPECT_EQ(written, 5u);
  EXPECT_EQ(FakeModule::refs_seen, 1u);

  Blob* output = nullptr;
  EXPECT_EQ(wrapper.Ioctl(1, 0xABCD, DwordBlobCreate(1), &output), 0u);
  EXPECT_EQ(FakeModule::refs_seen, 1u);
  uint32_t value = 0;
  ASSERT_TRUE(DwordBlobRead(output, &value));
  EXPECT_EQ(value, 0xABCDu);
  BlobRelease(output);
  // An output nobody asked for is dropped, not leaked.
  EXPECT_EQ(wrapper.Ioctl(1, 0xABCD, nullptr, nullptr), 0u);

  wrapper.Event(1, 2, BlobCreate(3));
  EXPECT_EQ(FakeModule::refs_seen, 1u);

  wrapper.Unload();
  EXPECT_EQ(wrapper.Close(42), SKR_INVALID_PARAMETER);
}

TEST_F(ComponentTest, CopyDownwardTakesEntriesZeroToThreeAndCopyUpwardOnlyTheSink) {
  const SkComponentTable source = FakeModule::Table();
  CComponent wrapper(&source);
  SkComponentTable down{};
  down.Event = EventSink::Event;
  wrapper.CopyDownward(&down);
  EXPECT_EQ(down.Open, source.Open);
  EXPECT_EQ(down.Close, source.Close);
  EXPECT_EQ(down.Write, source.Write);
  EXPECT_EQ(down.Ioctl, source.Ioctl);
  EXPECT_EQ(down.Event, &EventSink::Event);

  SkComponentTable up{};
  wrapper.CopyUpward(&up);
  EXPECT_EQ(up.Event, source.Event);
  EXPECT_TRUE(up.Open == nullptr && up.Close == nullptr && up.Write == nullptr && up.Ioctl == nullptr);

  // From an empty wrapper the copies are empty too (the bottom of a stack).
  CComponent bottom;
  bottom.CopyDownward(&down);
  bottom.CopyUpward(&down);
  EXPECT_TRUE(down.Open == nullptr && down.Close == nullptr && down.Write == nullptr &&
              down.Ioctl == nullptr && down.Event == nullptr);
}

// ---- A stack of three distinct modules ----

TEST_F(ComponentTest, ThreeCopiesOfOneModuleChainAsThreeLayers) {
  CComponent a(W(ORLENDA_TEST_A_MODULE), &host_);
  CComponent b(W(ORLENDA_TEST_B_MODULE), &host_);
  CComponent c(W(ORLENDA_TEST_C_MODULE), &host_);
  ASSERT_TRUE(a.IsLoaded() && b.IsLoaded() && c.IsLoaded());
  EXPECT_EQ(Calls(), u"test_a:init:0;test_b:init:0;test_c:init:0;");
  ClearCalls();

  // Linked as a port stack links them: each sees the one below and reports to the one above.
  SkComponentTable layer_a = EventSink::Layer();
  SkComponentTable layer_b{};
  SkComponentTable layer_c{};
  b.CopyDownward(&layer_a);
  a.CopyUpward(&layer_b);
  c.CopyDownward(&layer_b);
  b.CopyUpward(&layer_c);
  ASSERT_EQ(a.Open(5, u"Drawer/1", &layer_a), SKR_SUCCESS);
  ASSERT_EQ(b.Open(5, u"Drawer/1", &layer_b), SKR_SUCCESS);
  ASSERT_EQ(c.Open(5, u"Drawer/1", &layer_c), SKR_SUCCESS);

  BlobRef mine = BlobRef::Adopt(BlobCopy("xyz", 3));
  uint32_t written = 0;
  EXPECT_EQ(a.Write(5, BlobRef(mine).Release(), &written), SKR_SUCCESS);
  EXPECT_EQ(written, 3u);
  EXPECT_EQ(Refs(mine.get()), 1u);
  // A control nobody serves travels to the bottom and fails there.
  EXPECT_EQ(a.Ioctl(5, 0x12345678, BlobRef(mine).Release(), nullptr), SKR_INVALID_PARAMETER);
  EXPECT_EQ(Refs(mine.get()), 1u);
  // An event raised by the bottom module climbs through the middle one to the top's sink.
  EXPECT_EQ(c.Ioctl(5, kTestRaiseEvent, DwordBlobCreate(0x4242), nullptr), SKR_SUCCESS);
  std::vector<Received> events = EventSink::Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].port, 5u);
  EXPECT_EQ(events[0].event, 0x4242u);
  EXPECT_EQ(BytesOf(events[0].data), "test_c");
  EXPECT_EQ(Refs(events[0].data.get()), 1u);

  EXPECT_EQ(Calls(),
            u"test_a:open:5;test_b:open:5;test_c:open:5;"
            u"test_a:write:5;test_b:write:5;test_c:write:5;"
            u"test_a:ioctl:5;test_b:ioctl:5;test_c:ioctl:5;"
            u"test_c:ioctl:5;test_b:event:5;test_a:event:5;");
}

TEST_F(ComponentTest, RaiseWithoutADwordIsRejectedAndReleased) {
  CComponent component(W(ORLENDA_TEST_COMPONENT_MODULE), &host_);
  const SkComponentTable layer = EventSink::Layer();
  ASSERT_EQ(component.Open(3, u"p/q", &layer), SKR_SUCCESS);
  BlobRef mine = BlobRef::Adopt(BlobCopy("ab", 2));
  EXPECT_EQ(component.Ioctl(3, kTestRaiseEvent, BlobRef(mine).Release(), nullptr), SKR_INVALID_SIZE);
  EXPECT_EQ(Refs(mine.get()), 1u);
  EXPECT_TRUE(EventSink::Take().empty());
  EXPECT_EQ(component.Write(8, BlobRef(mine).Release(), nullptr), SKR_INVALID_HANDLE);
  EXPECT_EQ(Refs(mine.get()), 1u);
}

// ---- The loopback module ----

class LoopbackTest : public ComponentTest {
 protected:
  void SetUp() override {
    ComponentTest::SetUp();
    loopback_ = std::make_unique<CComponent>(W(ORLENDA_LOOPBACK_MODULE), &host_);
    ASSERT_TRUE(loopback_->IsLoaded());
  }
  uint32_t LockState(uint32_t port) {
    Blob* output = nullptr;
    EXPECT_EQ(loopback_->Ioctl(port, SK_LOCK_STATE, nullptr, &output), SKR_SUCCESS);
    BlobRef hold = BlobRef::Adopt(output);
    uint32_t state = 0xDEAD;
    EXPECT_TRUE(DwordBlobRead(output, &state));
    return state;
  }
  std::unique_ptr<CComponent> loopback_;
};

TEST_F(LoopbackTest, WrittenBytesComeBackAsAnEvent) {
  const SkComponentTable layer = EventSink::Layer();
  ASSERT_EQ(loopback_->Open(11, u"Loop/A", &layer), SKR_SUCCESS);
  BlobRef mine = BlobRef::Adopt(BlobCopy("hello", 5));
  uint32_t written = 0;
  EXPECT_EQ(loopback_->Write(11, BlobRef(mine).Release(), &written), SKR_SUCCESS);
  EXPECT_EQ(written, 5u);
  std::vector<Received> events = EventSink::Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].port, 11u);
  EXPECT_EQ(events[0].event, kLoopbackData);
  EXPECT_EQ(BytesOf(events[0].data), "hello");
  events.clear();
  EXPECT_EQ(Refs(mine.get()), 1u);

  // An empty write echoes an empty event.
  EXPECT_EQ(loopback_->Write(11, BlobCreate(0), &written), SKR_SUCCESS);
  EXPECT_EQ(written, 0u);
  events = EventSink::Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].data.size(), 0u);

  // A port it does not know.
  EXPECT_EQ(loopback_->Write(12, BlobRef(mine).Release(), &written), SKR_INVALID_HANDLE);
  EXPECT_EQ(Refs(mine.get()), 1u);
  EXPECT_TRUE(EventSink::Take().empty());

  EXPECT_EQ(loopback_->Close(11), SKR_SUCCESS);
  EXPECT_EQ(loopback_->Close(11), SKR_INVALID_HANDLE);
  EXPECT_EQ(loopback_->Write(11, BlobCopy("x", 1), &written), SKR_INVALID_HANDLE);
}

TEST_F(LoopbackTest, LockStateFollowsLockAndSetRequests) {
  const SkComponentTable layer = EventSink::Layer();
  ASSERT_EQ(loopback_->Open(1, u"Loop/A", &layer), SKR_SUCCESS);
  ASSERT_EQ(loopback_->Open(2, u"Loop/B", &layer), SKR_SUCCESS);
  EXPECT_EQ(LockState(1), 0u);
  EXPECT_EQ(loopback_->Ioctl(1, SK_PORT_LOCK, DwordBlobCreate(1), nullptr), SKR_SUCCESS);
  EXPECT_EQ(LockState(1), 1u);
  EXPECT_EQ(LockState(2), 0u);  // per port

  EXPECT_EQ(loopback_->Ioctl(1, kLoopbackSetLockState, DwordBlobCreate(3), nullptr), SKR_SUCCESS);
  std::vector<Received> events = EventSink::Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].port, 1u);
  EXPECT_EQ(events[0].event, SK_EVENT_LOCK_CHANGED);
  uint32_t value = 0;
  EXPECT_TRUE(DwordBlobRead(events[0].data.get(), &value));
  EXPECT_EQ(value, 3u);
  EXPECT_EQ(LockState(1), 3u);

  // Taking the lock again after the device came free.
  EXPECT_EQ(loopback_->Ioctl(1, SK_PORT_LOCK, DwordBlobCreate(SK_PORT_LOCK_WITH_KEY), nullptr),
            SKR_SUCCESS);
  EXPECT_EQ(LockState(1), 1u);

  EXPECT_EQ(loopback_->Ioctl(1, kLoopbackSetLockState, BlobCreate(2), nullptr), SKR_INVALID_SIZE);
  EXPECT_EQ(loopback_->Ioctl(1, 0x50010004, DwordBlobCreate(1), nullptr), SKR_INVALID_PARAMETER);
  EXPECT_EQ(loopback_->Ioctl(9, SK_LOCK_STATE, nullptr, nullptr), SKR_INVALID_HANDLE);
  EXPECT_TRUE(EventSink::Take().empty());
}

TEST_F(LoopbackTest, PortsOnSeveralThreadsEchoTheirOwnBytes) {
  const SkComponentTable layer = EventSink::Layer();
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kWrites = 200;
  for (uint32_t t = 0; t < kThreads; ++t) ASSERT_EQ(loopback_->Open(100 + t, u"L/x", &layer), 0u);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (uint32_t i = 0; i < kWrites; ++i) {
        const uint8_t byte = static_cast<uint8_t>(t);
        uint32_t written = 0;
        loopback_->Write(100 + t, BlobCopy(&byte, 1), &written);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<uint32_t> per_port(kThreads, 0);
  for (const Received& r : EventSink::Take()) {
    ASSERT_GE(r.port, 100u);
    ASSERT_LT(r.port, 100u + kThreads);
    ASSERT_EQ(r.data.size(), 1u);
    EXPECT_EQ(r.data.data()[0], r.port - 100);
    ++per_port[r.port - 100];
  }
  for (uint32_t t = 0; t < kThreads; ++t) EXPECT_EQ(per_port[t], kWrites);
}

TEST_F(LoopbackTest, UnloadForgetsOpenPorts) {
  const SkComponentTable layer = EventSink::Layer();
  ASSERT_EQ(loopback_->Open(1, u"Loop/A", &layer), SKR_SUCCESS);
  loopback_->Unload();  // ports still open are freed with the module (ASan checks)
  EXPECT_FALSE(loopback_->IsLoaded());
  loopback_ = std::make_unique<CComponent>(W(ORLENDA_LOOPBACK_MODULE), &host_);
  ASSERT_TRUE(loopback_->IsLoaded());
  EXPECT_EQ(loopback_->Close(1), SKR_INVALID_HANDLE);
}

// ---- Strings and blobs across the boundary ----

TEST(ComponentBoundaryTest, StringsKeepEveryUnitAndAreTerminated) {
  const char16_t units[] = {u'a', 0, 0xD83D, 0xDE00, 0xFFFF, u'z'};
  const WStringView text(units, 6);
  SkString* s = ToSkString(text);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->length, 6u);
  EXPECT_EQ(s->text[6], 0u);
  EXPECT_EQ(FromSkString(s), WString(units, 6));
  SkStringFree(s);

  SkString* empty = ToSkString(WStringView());
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->length, 0u);
  EXPECT_EQ(empty->text[0], 0u);
  EXPECT_TRUE(FromSkString(empty).empty());
  SkStringFree(empty);
  EXPECT_TRUE(FromSkString(nullptr).empty());
}

TEST(ComponentBoundaryTest, HostAndModuleBlobHelpersShareOneBlock) {
  // Made by the host, counted and freed by the module's helpers, and the other way round.
  Blob* host_made = DwordBlobCreate(0x01020304);
  SkBlobAddRef(ToSkBlob(host_made));
  EXPECT_EQ(Refs(host_made), 2u);
  uint32_t value = 0;
  EXPECT_TRUE(SkDwordRead(ToSkBlob(host_made), &value));
  EXPECT_EQ(value, 0x01020304u);
  SkBlobRelease(ToSkBlob(host_made));
  SkBlobRelease(ToSkBlob(host_made));  // freed by the module side

  SkBlob* module_made = SkDwordCreate(7);
  BlobAddRef(FromSkBlob(module_made));
  EXPECT_EQ(static_cast<int64_t>(module_made->references), 2);
  EXPECT_TRUE(DwordBlobRead(FromSkBlob(module_made), &value));
  EXPECT_EQ(value, 7u);
  BlobRelease(FromSkBlob(module_made));
  BlobRelease(FromSkBlob(module_made));  // freed by the host side
}

// ---- The version report ----

using testing::Bytes;
using testing::DecodeLine;
using testing::LogLine;
using testing::LogReceiver;

// "<name><suffix>" left-justified in 22 characters, as the report prints a module's bare file name.
std::u16string Padded(const char16_t* name) {
  std::u16string text = std::u16string(name) + ORLENDA_MODULE_SUFFIX;
  if (text.size() < 22) text.append(22 - text.size(), u' ');
  return text;
}

TEST_F(ComponentTest, VersionReportNamesTheBareFilePaddedTo22) {
  while (LostMessageCount() != 0) {  // start with no loss on record, so no extra line follows
    LogReceiver flush;
    flush.Start();
    Log(4, u"flush");
  }
  LogReceiver receiver;
  receiver.Start();
  ReportModuleVersion(ORLENDA_TEST_NOEXPORT_MODULE);
  ReportModuleVersion(ORLENDA_TEST_COMPONENT_MODULE);
  ReportModuleVersion(ORLENDA_TEST_MISSING_MODULE);
  ReportModuleVersion(nullptr);
  const std::vector<Bytes> records = receiver.WaitFor(4);
  ASSERT_EQ(records.size(), 4u);

  const LogLine no_info = DecodeLine(records[0]);
  EXPECT_EQ(no_info.level, 3u);
  EXPECT_EQ(no_info.text, Padded(u"test_noexport") + u": no version info");
  const LogLine found = DecodeLine(records[1]);
  EXPECT_EQ(found.level, 4u);
  EXPECT_EQ(found.text, Padded(u"test_component") + u": " + ORLENDA_MODULE_VERSION_TEXT);
  const LogLine missing = DecodeLine(records[2]);
  EXPECT_EQ(missing.level, 3u);
  EXPECT_EQ(missing.text, Padded(u"test_missing") + u": no version info");
  // The running test binary carries no version of its own.
  const LogLine own = DecodeLine(records[3]);
  EXPECT_EQ(own.level, 3u);
  EXPECT_EQ(own.text.rfind(u"component_test", 0), 0u) << std::string(own.text.begin(), own.text.end());
  EXPECT_NE(own.text.find(u": no version info"), std::u16string::npos);
  EXPECT_EQ(own.text.find(ORLENDA_MODULE_PATH_SEPARATOR), std::u16string::npos);
}

TEST(ComponentPlatformTest, ExecutablePathNamesThisTestBinary) {
  char16_t path[260];
  const std::size_t length = platform::ExecutablePath(path, 260);
  ASSERT_GT(length, 0u);
  const std::u16string text(path, length);
  const std::size_t last = text.rfind(ORLENDA_MODULE_PATH_SEPARATOR);
  ASSERT_NE(last, std::u16string::npos);
  EXPECT_EQ(text.compare(last + 1, 14, u"component_test"), 0);
  // Too small a buffer is no path at all, never a cut one.
  char16_t small[4] = {u'x', u'x', u'x', u'x'};
  EXPECT_EQ(platform::ExecutablePath(small, 4), 0u);
  EXPECT_EQ(small[0], 0);
}

TEST(ComponentPlatformTest, ModuleLoadsFindsSymbolsAndReleases) {
  platform::Module module;
  EXPECT_FALSE(module.loaded());
  EXPECT_EQ(module.Symbol(SKEIN_INITIALIZE_NAME), nullptr);
  EXPECT_NE(module.Load(ORLENDA_TEST_MISSING_MODULE), platform::kErrorSuccess);
  EXPECT_FALSE(module.loaded());

  ASSERT_EQ(module.Load(ORLENDA_LOOPBACK_MODULE), platform::kErrorSuccess);
  EXPECT_NE(module.Symbol(SKEIN_INITIALIZE_NAME), nullptr);
  EXPECT_NE(module.Symbol(SKEIN_UNLOAD_NAME), nullptr);
  EXPECT_EQ(module.Symbol("NoSuchExport"), nullptr);
  EXPECT_TRUE(platform::IsModuleResident(ORLENDA_LOOPBACK_MODULE));
  platform::Module moved(std::move(module));
  EXPECT_FALSE(module.loaded());
  EXPECT_TRUE(moved.loaded());
  moved.Release();
  EXPECT_FALSE(platform::IsModuleResident(ORLENDA_LOOPBACK_MODULE));

  const platform::FileVersion version = platform::ReadFileVersion(ORLENDA_LOOPBACK_MODULE);
  EXPECT_EQ(version.status, platform::VersionStatus::kFound);
  const platform::FileVersion none = platform::ReadFileVersion(ORLENDA_TEST_NOEXPORT_MODULE);
  EXPECT_EQ(none.status, platform::VersionStatus::kNoVersionInfo);
  // Reading a version leaves nothing loaded behind.
  EXPECT_FALSE(platform::IsModuleResident(ORLENDA_LOOPBACK_MODULE));
}

}  // namespace
}  // namespace orlenda
