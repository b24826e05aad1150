#include "components/component.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "logging/log.h"
#include "platform/module.h"
#include "platform/paths.h"
#include "platform/thread.h"
#include "support/component_fixture.h"
#include "support/log_capture.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using testing::Narrow;
using testing::RecordedCalls;

// Controls and events of the modules under test (documented in their sources).
constexpr uint32_t kLoopbackData = 0x00070001;
constexpr uint32_t kLoopbackSetLockState = 0x7FFF0002;

WString W(const char16_t* s) { return WString(s); }
uint64_t Refs(const Blob* blob) { return blob->references.load(); }
// One more reference of `blob`, for a call to take over.
Blob* Lend(const BlobRef& blob) { return BlobRef(blob).Release(); }

// The caller's layer above a module: only the event entry is filled, and it keeps every event as
// "<port> <event> <bytes>".
using Events = std::vector<std::string>;
std::mutex g_events_lock;
Events g_events;
void SKEIN_CALL SinkEvent(uint32_t port, uint32_t event, SkBlob* data) {
  const BlobRef held = BlobRef::Adopt(FromSkBlob(data));
  std::lock_guard<std::mutex> hold(g_events_lock);
  g_events.push_back(std::to_string(port) + " " + std::to_string(event) + " " +
                     std::string(reinterpret_cast<const char*>(held.data()), held.size()));
}
const SkComponentTable kSinkLayer{nullptr, nullptr, nullptr, nullptr, SinkEvent};

Events TakeEvents() {
  std::lock_guard<std::mutex> hold(g_events_lock);
  return std::exchange(g_events, {});
}

// Modules get the service's own host table, over a configuration that names one other module.
class ComponentTest : public testing::ConfigurationFixture {
 protected:
  void SetUp() override {
    ConfigurationFixture::SetUp();
    testing::WriteConfiguration({{u"test_a", W(ORLENDA_TEST_A_MODULE)}});
    ASSERT_TRUE(CConfiguration::Load());
    testing::ClearRecordedCalls();
    TakeEvents();
  }

  const SkHostTable* host_ = CConfiguration::host_table();
};

// ---- Loading ----

TEST_F(ComponentTest, ModuleThatCannotConnectIsReleasedAndNotLoaded) {
  ASSERT_TRUE(testing::SetLoadedNumber(u"/testmodule/test_component/refuseInit", 1));
  const struct {
    const char16_t* file;
    uint32_t version_lines;  // no log service runs, so each counts as lost
    const char16_t* calls;
  } cases[] = {
      {ORLENDA_TEST_NOEXPORT_MODULE, 1, u""},  // no entry point
      {ORLENDA_TEST_MISSING_MODULE, 0, u""},
      // Asked to initialise; having refused, it is never told to unload.
      {ORLENDA_TEST_COMPONENT_MODULE, 1, u"test_component:init:0;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Narrow(c.file));
    const uint32_t lost = LostMessageCount();
    {
      CComponent component(W(c.file), host_);
      EXPECT_FALSE(component.IsLoaded());
      EXPECT_FALSE(platform::IsModuleResident(c.file));
      EXPECT_EQ(LostMessageCount(), lost + c.version_lines);
      component.Unload();
    }
    EXPECT_EQ(RecordedCalls(), c.calls);
  }
}

// A bare module name is never looked for in the current folder (nor on PATH), where anyone could put
// a file for a service running as the system to load: only beside the executable.
TEST_F(ComponentTest, ABareNameIsLookedForBesideTheExecutableOnly) {
  namespace fs = std::filesystem;
  const fs::path module = fs::u8path(Narrow(ORLENDA_TEST_COMPONENT_MODULE));
  const std::string file = "planted" + Narrow(platform::ModuleExtension());
  char16_t executable[platform::kMaxPathChars];
  ASSERT_GT(platform::ExecutablePath(executable, platform::kMaxPathChars), 0u);
  const fs::path beside = fs::u8path(Narrow(executable)).parent_path() / file;
  const fs::path elsewhere = fs::temp_directory_path() / ("orplant" + std::to_string(platform::CurrentProcessId()));
  fs::create_directories(elsewhere);
  fs::copy_file(module, elsewhere / file, fs::copy_options::overwrite_existing);
  const fs::path before = fs::current_path();
  fs::current_path(elsewhere);
  EXPECT_FALSE(CComponent(u"planted", host_).IsLoaded());
  fs::current_path(before);
  fs::copy_file(module, beside, fs::copy_options::overwrite_existing);
  EXPECT_TRUE(CComponent(u"planted", host_).IsLoaded());  // and unloaded again with the temporary
  fs::remove(beside);
  fs::remove_all(elsewhere);
}

TEST_F(ComponentTest, LoadedModuleRunsUntilUnloadWhichEmptiesTheTable) {
  const SkComponentTable kNone{};
  CComponent component(W(ORLENDA_TEST_COMPONENT_MODULE), host_);
  ASSERT_TRUE(component.IsLoaded());
  EXPECT_TRUE(platform::IsModuleResident(ORLENDA_TEST_COMPONENT_MODULE));
  for (int round = 0; round < 2; ++round) {  // a second Unload calls no second UnloadSkeinComponent
    component.Unload();
    EXPECT_FALSE(component.IsLoaded());
    EXPECT_FALSE(platform::IsModuleResident(ORLENDA_TEST_COMPONENT_MODULE));
    EXPECT_EQ(std::memcmp(&component.table(), &kNone, sizeof kNone), 0);
    EXPECT_EQ(RecordedCalls(), u"test_component:init:0;test_component:unload:0;");
  }
  // Destroying a component still loaded unloads it.
  testing::ClearRecordedCalls();
  { CComponent destroyed(W(ORLENDA_TEST_COMPONENT_MODULE), host_); }
  EXPECT_EQ(RecordedCalls(), u"test_component:init:0;test_component:unload:0;");
}

// ---- Wrappers ----

// Each blob entry drops its reference at once and then still reads the blob: only the wrapper's
// own hold keeps it alive (ASan would see the reuse).
struct FakeModule {
  static inline WString opened_path;
  static inline uint64_t refs_seen = 0;
  static void Drop(SkBlob* blob) {
    SkBlobRelease(blob);
    refs_seen = blob != nullptr ? static_cast<uint64_t>(blob->references) : 0;
  }
  static uint32_t SKEIN_CALL Open(uint32_t port, SkString* path, const SkLayerTable*) {
    opened_path = FromSkString(path);
    SkStringFree(path);
    return port;
  }
  static uint32_t SKEIN_CALL Close(uint32_t port) { return port + 1; }
  static uint32_t SKEIN_CALL Write(uint32_t, SkBlob* data, uint32_t* written) {
    Drop(data);
    *written = static_cast<uint32_t>(data->size);
    return 0;
  }
  static uint32_t SKEIN_CALL Ioctl(uint32_t, uint32_t code, SkBlob* input, SkBlob** output) {
    Drop(input);
    *output = SkDwordCreate(code);
    return 0;
  }
  static void SKEIN_CALL Event(uint32_t, uint32_t, SkBlob* data) { Drop(data); }
};

TEST_F(ComponentTest, TableWrapperCallsTheCopiedEntriesHoldingTheBlobMeanwhile) {
  using M = FakeModule;
  SkComponentTable source{M::Open, M::Close, M::Write, M::Ioctl, M::Event};
  CComponent wrapper(&source);
  source = SkComponentTable{};  // the wrapper holds a copy

  EXPECT_EQ(wrapper.Open(42, u"Scanner/Front", nullptr), 42u);
  EXPECT_EQ(M::opened_path, W(u"Scanner/Front"));
  EXPECT_EQ(wrapper.Close(42), 43u);

  uint32_t written = 0;
  EXPECT_EQ(wrapper.Write(1, BlobCopy("12345", 5), &written), 0u);
  EXPECT_EQ(written, 5u);
  EXPECT_EQ(M::refs_seen, 1u);

  Blob* output = nullptr;
  EXPECT_EQ(wrapper.Ioctl(1, 0xABCD, DwordBlobCreate(1), &output), 0u);
  EXPECT_EQ(M::refs_seen, 1u);
  uint32_t value = 0;
  EXPECT_TRUE(DwordBlobRead(BlobRef::Adopt(output).get(), &value) && value == 0xABCDu);
  // An output nobody asked for is dropped, not leaked.
  EXPECT_EQ(wrapper.Ioctl(1, 0xABCD, nullptr, nullptr), 0u);

  wrapper.Event(1, 2, BlobCreate(3));
  EXPECT_EQ(M::refs_seen, 1u);

  wrapper.Unload();
  EXPECT_EQ(wrapper.Open(42, u"Scanner/Front", nullptr), SKR_INVALID_PARAMETER);
  EXPECT_EQ(wrapper.Close(42), SKR_INVALID_PARAMETER);
}

// A table with only Open and Close: the wrapper answers for the missing entries and drops their blobs.
TEST(ComponentWrapperTest, MissingEntriesAreRejectedAndTheirBlobsDropped) {
  const SkComponentTable open_close_only{FakeModule::Open, FakeModule::Close, nullptr, nullptr, nullptr};
  CComponent component(&open_close_only);
  BlobRef mine = BlobRef::Adopt(BlobCopy("abc", 3));
  uint32_t written = 77;
  EXPECT_EQ(component.Write(2, Lend(mine), &written), SKR_INVALID_PARAMETER);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(component.Write(2, nullptr, &written), SKR_INVALID_PARAMETER);
  Blob* output = DwordBlobCreate(5);  // must be overwritten, not freed: the test keeps it
  BlobRef keep_output = BlobRef::Adopt(output);
  EXPECT_EQ(component.Ioctl(2, 0x40010001, Lend(mine), &output), SKR_INVALID_PARAMETER);
  EXPECT_EQ(output, nullptr);
  component.Event(2, 0x1234, Lend(mine));  // nobody listens: nothing happens
  component.Event(2, 0x1234, nullptr);
  EXPECT_EQ(Refs(mine.get()), 1u);
}

// ---- The loopback module ----

class LoopbackTest : public ComponentTest {
 protected:
  void SetUp() override {
    ComponentTest::SetUp();
    Reload();
    for (uint32_t port : {1u, 2u}) ASSERT_EQ(loopback_->Open(port, u"Loop/A", &kSinkLayer), SKR_SUCCESS);
  }
  void Reload() {
    loopback_ = std::make_unique<CComponent>(W(ORLENDA_LOOPBACK_MODULE), host_);
    ASSERT_TRUE(loopback_->IsLoaded());
  }
  uint32_t LockState(uint32_t port) {
    Blob* output = nullptr;
    uint32_t state = 0xDEAD;  // what an answer without a DWORD reads as
    EXPECT_EQ(loopback_->Ioctl(port, SK_LOCK_STATE, nullptr, &output), SKR_SUCCESS);
    DwordBlobRead(BlobRef::Adopt(output).get(), &state);
    return state;
  }
  std::unique_ptr<CComponent> loopback_;
};

TEST_F(LoopbackTest, WrittenBytesComeBackAsAnEvent) {
  BlobRef mine = BlobRef::Adopt(BlobCopy("hello", 5));
  uint32_t written = 0;
  EXPECT_EQ(loopback_->Write(1, Lend(mine), &written), SKR_SUCCESS);
  EXPECT_EQ(written, 5u);
  EXPECT_EQ(TakeEvents(), Events{"1 " + std::to_string(kLoopbackData) + " hello"});
  // An empty write echoes an empty event.
  EXPECT_EQ(loopback_->Write(1, BlobCreate(0), &written), SKR_SUCCESS);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(TakeEvents(), Events{"1 " + std::to_string(kLoopbackData) + " "});

  EXPECT_EQ(loopback_->Write(12, Lend(mine), &written), SKR_INVALID_HANDLE);
  EXPECT_EQ(Refs(mine.get()), 1u);
  EXPECT_TRUE(TakeEvents().empty());

  EXPECT_EQ(loopback_->Close(1), SKR_SUCCESS);
  EXPECT_EQ(loopback_->Close(1), SKR_INVALID_HANDLE);

  // Port 2, still open, is freed with the module (ASan checks) and unknown after a reload.
  loopback_->Unload();
  Reload();
  EXPECT_EQ(loopback_->Close(2), SKR_INVALID_HANDLE);
}

TEST_F(LoopbackTest, LockStateFollowsLockAndSetRequests) {
  EXPECT_EQ(LockState(1), 0u);
  EXPECT_EQ(loopback_->Ioctl(1, SK_PORT_LOCK, DwordBlobCreate(1), nullptr), SKR_SUCCESS);
  EXPECT_EQ(LockState(1), 1u);
  EXPECT_EQ(LockState(2), 0u);  // per port

  EXPECT_EQ(loopback_->Ioctl(1, kLoopbackSetLockState, DwordBlobCreate(3), nullptr), SKR_SUCCESS);
  EXPECT_EQ(TakeEvents(), Events{"1 " + std::to_string(SK_EVENT_LOCK_CHANGED) + " " + std::string("\3\0\0\0", 4)});
  EXPECT_EQ(LockState(1), 3u);

  // Taking the lock again after the device came free.
  EXPECT_EQ(loopback_->Ioctl(1, SK_PORT_LOCK, DwordBlobCreate(SK_PORT_LOCK_WITH_KEY), nullptr),
            SKR_SUCCESS);
  EXPECT_EQ(LockState(1), 1u);

  EXPECT_EQ(loopback_->Ioctl(1, kLoopbackSetLockState, BlobCreate(2), nullptr), SKR_INVALID_SIZE);
  EXPECT_EQ(loopback_->Ioctl(1, 0x50010004, DwordBlobCreate(1), nullptr), SKR_INVALID_PARAMETER);
  EXPECT_EQ(loopback_->Ioctl(9, SK_LOCK_STATE, nullptr, nullptr), SKR_INVALID_HANDLE);
  EXPECT_TRUE(TakeEvents().empty());
}

TEST_F(LoopbackTest, PortsOnSeveralThreadsEchoTheirOwnBytes) {
  constexpr uint32_t kThreads = 4, kWrites = 200;
  for (uint32_t t = 0; t < kThreads; ++t) ASSERT_EQ(loopback_->Open(100 + t, u"L/x", &kSinkLayer), 0u);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const uint8_t byte = static_cast<uint8_t>(t);
      uint32_t written = 0;
      for (uint32_t i = 0; i < kWrites; ++i) loopback_->Write(100 + t, BlobCopy(&byte, 1), &written);
    });
  }
  for (std::thread& thread : threads) thread.join();
  Events expected;
  for (uint32_t t = 0; t < kThreads; ++t) {
    expected.insert(expected.end(), kWrites, std::to_string(100 + t) + " " + std::to_string(kLoopbackData) + " " +
                                                 static_cast<char>(t));
  }
  Events events = TakeEvents();
  std::sort(events.begin(), events.end());
  EXPECT_EQ(events, expected);
}

// ---- Strings across the boundary ----

TEST(ComponentBoundaryTest, StringsKeepEveryUnitAndAreTerminated) {
  const char16_t units[] = {u'a', 0, 0xD83D, 0xDE00, 0xFFFF, u'z'};
  for (const WStringView text : {WStringView(units, 6), WStringView()}) {
    SkString* s = ToSkString(text);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->length, text.size());
    EXPECT_EQ(s->text[text.size()], 0u);
    EXPECT_EQ(FromSkString(s), WString(text));
    SkStringFree(s);
  }
  EXPECT_TRUE(FromSkString(nullptr).empty());
}

// ---- The version report ----

// "<name><suffix>" left-justified in 22 characters: a module's bare file name as the report prints it.
std::u16string Padded(const char16_t* name) {
  std::u16string text = std::u16string(name) + ORLENDA_MODULE_SUFFIX;
  if (text.size() < 22) text.append(22 - text.size(), u' ');
  return text;
}

TEST_F(ComponentTest, VersionReportNamesTheBareFilePaddedTo22) {
  testing::LogCapture capture;
  ReportModuleVersion(ORLENDA_TEST_NOEXPORT_MODULE);
  ReportModuleVersion(ORLENDA_TEST_COMPONENT_MODULE);
  ReportModuleVersion(ORLENDA_TEST_MISSING_MODULE);
  ReportModuleVersion(nullptr);
  // Reading a version leaves nothing loaded behind.
  EXPECT_FALSE(platform::IsModuleResident(ORLENDA_TEST_COMPONENT_MODULE));
  const std::vector<testing::LogLine> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 4u) << testing::Dump(lines);

  EXPECT_EQ(testing::Dump({lines.begin(), lines.begin() + 3}),
            testing::Dump({{3, Padded(u"test_noexport") + u": no version info"},
                           {4, Padded(u"test_component") + u": " + ORLENDA_MODULE_VERSION_TEXT},
                           {3, Padded(u"test_missing") + u": no version info"}}));
  // The running test binary carries no version of its own.
  const std::u16string& own = lines[3].text;
  EXPECT_EQ(lines[3].level, 3u);
  EXPECT_EQ(own.rfind(u"component_test", 0), 0u) << Narrow(own);  // the file's name, not its path
  EXPECT_NE(own.find(u": no version info"), std::u16string::npos);
}

TEST(ComponentPlatformTest, ExecutablePathTooLongForTheBufferIsNoPath) {
  char16_t small[4] = {u'x', u'x', u'x', u'x'};
  EXPECT_EQ(platform::ExecutablePath(small, 4), 0u);
  EXPECT_EQ(small[0], 0);
}

}  // namespace
}  // namespace orlenda
