#include "components/port_stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/blob.h"
#include "components/configuration.h"
#include "logging/log.h"
#include "logging/log_record.h"
#include "platform/errors.h"
#include "platform/file.h"
#include "platform/pipe.h"
#include "platform/presence.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "support/isolated_dirs.h"
#include "support/log_capture.h"
#include "support/store_files.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using testing::IndexOf;
using testing::IndexOfPrefix;
using testing::LogCapture;
using testing::Dump;
using testing::LogLine;
using testing::Narrow;
using testing::RemoveStoreFiles;
using testing::StorePath;


// ---- The configuration the stacks are built from ----
//
// Components test_a, test_b, test_c (three files of the test module). Stacks:
//   pos:     test_a always; test_b when "<port>/model" is "X1"; test_c has a requiredName only;
//            ghost is not a configured component
//   three:   test_a, test_b, test_c, no conditions
//   strict:  test_a and test_b, both only for model "none-such"
//   ghosts:  ghost only
//   dev/sub: test_b (a stack whose name holds a "/")


void WriteConfiguration() {
  CPropertyHandler store{WString(u"Orlenda.configuration")};
  ASSERT_TRUE(store.SetString(u"/components/test_a/filename", ORLENDA_TEST_A_MODULE));
  ASSERT_TRUE(store.SetString(u"/components/test_b/filename", ORLENDA_TEST_B_MODULE));
  ASSERT_TRUE(store.SetString(u"/components/test_c/filename", ORLENDA_TEST_C_MODULE));
  // An entry needs a property to exist; "note" means nothing to the stacks.
  ASSERT_TRUE(store.SetString(u"/stack/pos/test_a/note", u"always"));
  ASSERT_TRUE(store.SetString(u"/stack/pos/test_b/requiredName", u"model"));
  ASSERT_TRUE(store.SetString(u"/stack/pos/test_b/requiredValue", u"X1"));
  ASSERT_TRUE(store.SetString(u"/stack/pos/test_c/requiredName", u"model"));
  ASSERT_TRUE(store.SetString(u"/stack/pos/ghost/note", u"not configured"));
  for (const char16_t* entry : {u"/stack/three/test_a/note", u"/stack/three/test_b/note", u"/stack/three/test_c/note"}) {
    ASSERT_TRUE(store.SetString(entry, u""));
  }
  for (const char16_t* entry : {u"/stack/strict/test_a", u"/stack/strict/test_b"}) {
    ASSERT_TRUE(store.SetString(WString(entry) + u"/requiredName", u"model"));
    ASSERT_TRUE(store.SetString(WString(entry) + u"/requiredValue", u"none-such"));
  }
  ASSERT_TRUE(store.SetString(u"/stack/ghosts/ghost/note", u""));
  ASSERT_TRUE(store.SetString(u"/stack/dev/sub/test_b/note", u""));
}

bool SetProperty(const char16_t* path, const char16_t* value) {
  return CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetString(path, value); });
}

bool SetNumber(const char16_t* path, uint32_t value) {
  return CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetNumber(path, value); });
}

// What the test modules recorded since the last ClearCalls.
std::u16string Calls() {
  WString calls;
  CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.GetString(u"/testmodule/calls", &calls); });
  return std::u16string(calls.begin(), calls.end());
}

void ClearCalls() {
  CConfiguration::WithProperties([](CPropertyHandler& s) { return s.Delete(u"/testmodule/calls"); });
}

CComponent* Component(const char16_t* name) { return CConfiguration::FindComponent(name); }

class PortStackTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { testing::UseIsolatedDirs(); }
  void SetUp() override {
    RemoveStoreFiles();
    WriteConfiguration();
    ASSERT_TRUE(CConfiguration::Load());
    ClearCalls();
  }
  void TearDown() override {
    CConfiguration::Unload();
    RemoveStoreFiles();
  }
};

// ---- Stack names ----

TEST(StackNameOf, IsThePathBeforeItsLastSlash) {
  const struct {
    const char16_t* path;
    const char16_t* stack;
  } cases[] = {
      {u"pos/dev1", u"pos"},       {u"//pos/dev1//", u"pos"}, {u"/pos/dev1", u"pos"},
      {u"pos//dev1", u"pos"},      {u"dev/sub/p", u"dev/sub"}, {u"config", u""},
      {u"/config/", u""},          {u"", u""},                 {u"///", u""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(StackNameOf(c.path), WStringView(c.stack)) << Narrow(c.path);
  }
}

// ---- Selection and listing ----

TEST_F(PortStackTest, SelectionFollowsTheConditionsOfEachEntry) {
  CComponent* a = Component(u"test_a");
  CComponent* b = Component(u"test_b");
  CComponent* c = Component(u"test_c");
  ASSERT_TRUE(a && b && c);
  // Another port's property must not count for pos/dev1.
  ASSERT_TRUE(SetProperty(u"pos/dev2/model", u"X1"));

  const struct {
    const char16_t* model;  // null: property missing
    ComponentList expected;
  } cases[] = {
      {nullptr, {a, c}},  // test_c has no requiredValue: taken; ghost skipped
      {u"X1", {a, b, c}},
      {u"x1", {a, c}},    // exact, case-sensitive
      {u"X1 ", {a, c}},   // same length too
      {u"X", {a, c}},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.model ? Narrow(k.model) : std::string("missing"));
    if (k.model != nullptr) {
      ASSERT_TRUE(SetProperty(u"pos/dev1/model", k.model));
    } else {
      CConfiguration::WithProperties([](CPropertyHandler& s) { return s.Delete(u"pos/dev1/model"); });
    }
    ComponentList list;
    EXPECT_EQ(SelectComponents(u"pos/dev1", u"pos", &list), SKR_SUCCESS);
    EXPECT_EQ(list, k.expected);
  }
}

TEST_F(PortStackTest, ListingIgnoresConditionsAndSkipsUnknownNames) {
  LogCapture capture;
  CComponent placeholder;
  ComponentList list{&placeholder};  // appended to, never cleared
  EXPECT_EQ(ListStackComponents(u"pos", &list), SKR_SUCCESS);
  EXPECT_EQ(list, (ComponentList{&placeholder, Component(u"test_a"), Component(u"test_b"), Component(u"test_c")}));

  list.clear();
  EXPECT_EQ(ListStackComponents(u"ghosts", &list), kNoStackComponents);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(ListStackComponents(u"nosuch", &list), kNoStackComponents);
  EXPECT_EQ(ListStackComponents(u"dev/sub", &list), SKR_SUCCESS);
  EXPECT_EQ(list, ComponentList{Component(u"test_b")});

  // Without a configuration nothing can be enumerated.
  CConfiguration::Unload();
  list.clear();
  EXPECT_EQ(ListStackComponents(u"pos", &list), SKR_INVALID_SIZE);
  EXPECT_EQ(SelectComponents(u"pos/dev1", u"pos", &list), SKR_INVALID_SIZE);
  EXPECT_TRUE(list.empty());

  const std::vector<LogLine> lines = capture.Lines();
  const int ghosts = IndexOf(lines, u"no available components in path ghosts");
  const int nosuch = IndexOf(lines, u"no available components in path nosuch");
  const int invalid = IndexOf(lines, u"invalid type('pos') in path");
  EXPECT_GE(ghosts, 0) << Dump(lines);
  EXPECT_GT(nosuch, ghosts) << Dump(lines);
  EXPECT_GT(invalid, nosuch) << Dump(lines);
  // The listing that succeeded and the selection log nothing.
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const LogLine& l) { return l.level == 0; }), 3)
      << Dump(lines);
}

// ---- Opening ----

// The caller's own layer: receives the events of the top component.
std::mutex g_events_mutex;
std::vector<std::u16string> g_events;

void SKEIN_CALL CallerEvent(uint32_t port, uint32_t event, SkBlob* data) {
  std::u16string text = std::u16string(u"port ") + char16_t(u'0' + port % 10) + u" event " +
                        char16_t(u'0' + event % 10) + u" from ";
  if (data != nullptr) {
    for (uint64_t i = 0; i < data->size; ++i) text.push_back(SkBlobData(data)[i]);
  }
  SkBlobRelease(data);
  std::lock_guard<std::mutex> hold(g_events_mutex);
  g_events.push_back(text);
}

constexpr uint32_t kRaiseEvent = 0x7FFF0001u;  // the test module's "raise this event upwards"

void CloseAll(uint32_t port) {
  for (const char16_t* name : {u"test_a", u"test_b", u"test_c"}) Component(name)->Close(port);
}

TEST_F(PortStackTest, OpenLinksTheLayersTopToBottom) {
  SkComponentTable table{};
  table.Event = CallerEvent;
  ASSERT_EQ(OpenStack(4, u"three/p1", &table), SKR_SUCCESS);
  EXPECT_EQ(Calls(), u"test_a:open:4;test_b:open:4;test_c:open:4;");
  // The caller now talks to the top component; its own event entry stays.
  EXPECT_EQ(table.Open, Component(u"test_a")->table().Open);
  EXPECT_EQ(table.Close, Component(u"test_a")->table().Close);
  EXPECT_EQ(table.Write, Component(u"test_a")->table().Write);
  EXPECT_EQ(table.Ioctl, Component(u"test_a")->table().Ioctl);
  EXPECT_EQ(table.Event, CallerEvent);

  // Downwards: a write goes through all three; the bottom has nothing below it and takes it all.
  ClearCalls();
  SkBlob* data = SkBlobCreate(5);
  uint32_t written = 0;
  EXPECT_EQ(table.Write(4, data, &written), SKR_SUCCESS);
  EXPECT_EQ(written, 5u);
  EXPECT_EQ(Calls(), u"test_a:write:4;test_b:write:4;test_c:write:4;");

  // Upwards: an event raised at the bottom passes test_b and test_a and reaches the caller.
  g_events.clear();
  Blob* event = DwordBlobCreate(3);
  BlobAddRef(event);
  EXPECT_EQ(Component(u"test_c")->Ioctl(4, kRaiseEvent, event, nullptr), SKR_SUCCESS);
  EXPECT_EQ(event->references.load(), 1u);
  BlobRelease(event);
  EXPECT_EQ(g_events, std::vector<std::u16string>{u"port 4 event 3 from test_c"});
  CloseAll(4);
}

TEST_F(PortStackTest, SlashesAtEitherEndSelectTheSameStack) {
  ASSERT_TRUE(SetProperty(u"pos/dev1/model", u"X1"));
  const char16_t* paths[] = {u"pos/dev1", u"/pos/dev1", u"pos/dev1/", u"//pos/dev1//"};
  uint32_t port = 10;
  for (const char16_t* path : paths) {
    SCOPED_TRACE(Narrow(path));
    ClearCalls();
    SkComponentTable table{};
    ASSERT_EQ(OpenStack(port, path, &table), SKR_SUCCESS);
    // The condition was read at the stripped path: test_b is part of every one of them.
    const std::u16string n(1, char16_t(u'0' + port % 10));
    EXPECT_EQ(Calls(), u"test_a:open:1" + n + u";test_b:open:1" + n + u";test_c:open:1" + n + u";");
    CloseAll(port);
    ++port;
  }
}

TEST_F(PortStackTest, FailingOpenClosesTheComponentsAboveInReverseOrder) {
  // test_c reads its result through the host table from inside its own Open.
  ASSERT_TRUE(SetNumber(u"/testmodule/test_c/openResult", SKR_SYSTEM_ERROR));
  SkComponentTable table{};
  table.Event = CallerEvent;
  EXPECT_EQ(OpenStack(7, u"three/p1", &table), SKR_SYSTEM_ERROR);
  EXPECT_EQ(Calls(), u"test_a:open:7;test_b:open:7;test_c:open:7;test_b:close:7;test_a:close:7;");
  // Nothing of the stack reached the caller.
  EXPECT_EQ(table.Open, nullptr);
  EXPECT_EQ(table.Ioctl, nullptr);
  EXPECT_EQ(table.Event, CallerEvent);

  // The first one failing closes nothing.
  ClearCalls();
  ASSERT_TRUE(SetNumber(u"/testmodule/test_c/openResult", 0));
  ASSERT_TRUE(SetNumber(u"/testmodule/test_a/openResult", SKR_SUSPENDED));
  EXPECT_EQ(OpenStack(8, u"three/p1", &table), SKR_SUSPENDED);
  EXPECT_EQ(Calls(), u"test_a:open:8;");
}

TEST_F(PortStackTest, NothingSelectedOpensNothing) {
  LogCapture capture;
  SkComponentTable table{};
  EXPECT_EQ(OpenStack(1, u"strict/p1", &table), SKR_TRUNCATED);
  EXPECT_EQ(OpenStack(2, u"nosuch/p1", &table), SKR_TRUNCATED);
  EXPECT_EQ(OpenStack(3, u"ghosts/p1", &table), SKR_TRUNCATED);
  const std::vector<LogLine> lines = capture.Lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const LogLine& l) { return l.level == 0 && l.text == u"no components found for configuration"; }),
            3)
      << Dump(lines);
  EXPECT_EQ(Calls(), u"");
  EXPECT_EQ(table.Open, nullptr);
}

TEST_F(PortStackTest, PathWithoutSlashIsTheConfigurationPort) {
  // A stack named after the path must not be consulted.
  for (const char16_t* path : {u"three", u"/three/"}) {
    SkComponentTable table{};
    ASSERT_EQ(OpenStack(1, path, &table), SKR_SUCCESS);
    EXPECT_EQ(Calls(), u"");
    // The configuration port's own entry points, not the stack's.
    ASSERT_NE(table.Ioctl, nullptr);
    ASSERT_NE(table.Close, nullptr);
    EXPECT_EQ(table.Close(1), SKR_SUCCESS);
  }
}

TEST_F(PortStackTest, ConcurrentOpensWhileTheHostTableIsInUse) {
  // Every Open of the test module calls the host table (to record the call and to read its
  // result); opens on several threads and host-table calls from this one run at the same time.
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kRounds = 5;
  std::vector<std::thread> threads;
  std::vector<uint32_t> failures(kThreads, 0);
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      for (uint32_t i = 0; i < kRounds; ++i) {
        const uint32_t port = 20 + t;
        SkComponentTable table{};
        if (OpenStack(port, u"three/p", &table) != SKR_SUCCESS) ++failures[t];
        CloseAll(port);
      }
    });
  }
  const SkHostTable* host = CConfiguration::host_table();
  for (uint32_t i = 0; i < kRounds * 4; ++i) {
    host->SetNumber(ToSkString(u"/busy/n"), i);
    uint32_t back = 0;
    EXPECT_NE(host->GetNumber(ToSkString(u"/busy/n"), &back), 0);
    EXPECT_EQ(back, i);
  }
  for (std::thread& t : threads) t.join();
  for (uint32_t t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0u) << "thread " << t;
}

// ---- The layering itself, on components made from plain tables ----

struct FakeLog {
  std::vector<std::string> calls;
  SkComponentTable seen[4] = {};
  uint32_t open_result[4] = {};
};
FakeLog g_fake;
const SkHostTable* g_host_for_fakes = nullptr;
bool g_lock_was_free = false;

template <int N>
uint32_t SKEIN_CALL FakeOpen(uint32_t port, SkString* path, const SkLayerTable* layers) {
  g_fake.calls.push_back("open" + std::to_string(N) + ":" + std::to_string(port));
  g_fake.seen[N] = *layers;
  SkStringFree(path);
  if (N == 1 && g_host_for_fakes != nullptr) {
    // A component may hand work that reads properties to a thread of its own and wait for it.
    // Static: a reader stuck behind the lock outlives this call.
    static platform::Event done(platform::ResetMode::kManual);
    done.Reset();
    std::thread reader([] {
      uint32_t value = 0;
      g_host_for_fakes->GetNumber(ToSkString(u"/anything"), &value);
      done.Set();
    });
    g_lock_was_free = done.Wait(30000);
    if (g_lock_was_free) {
      reader.join();
    } else {
      reader.detach();  // joining would wait for ever
    }
  }
  return g_fake.open_result[N];
}
template <int N>
uint32_t SKEIN_CALL FakeClose(uint32_t port) {
  g_fake.calls.push_back("close" + std::to_string(N) + ":" + std::to_string(port));
  return SKR_SUCCESS;
}
template <int N>
uint32_t SKEIN_CALL FakeWrite(uint32_t, SkBlob* data, uint32_t*) {
  SkBlobRelease(data);
  return SKR_SUCCESS;
}
template <int N>
uint32_t SKEIN_CALL FakeIoctl(uint32_t, uint32_t, SkBlob* input, SkBlob**) {
  SkBlobRelease(input);
  return SKR_SUCCESS;
}
template <int N>
void SKEIN_CALL FakeEvent(uint32_t, uint32_t, SkBlob* data) {
  SkBlobRelease(data);
}
template <int N>
SkComponentTable FakeTable() {
  return SkComponentTable{FakeOpen<N>, FakeClose<N>, FakeWrite<N>, FakeIoctl<N>, FakeEvent<N>};
}

TEST_F(PortStackTest, EachLayerSeesTheOneBelowAndTheEventOfTheOneAbove) {
  g_fake = FakeLog{};
  g_host_for_fakes = CConfiguration::host_table();
  const SkComponentTable caller_table = FakeTable<0>();
  CComponent caller(&caller_table);
  const SkComponentTable t1 = FakeTable<1>(), t2 = FakeTable<2>(), t3 = FakeTable<3>();
  CComponent c1(&t1), c2(&t2), c3(&t3), bottom;
  ASSERT_EQ(OpenComponents(5, u"s/p", {&caller, &c1, &c2, &c3, &bottom}), SKR_SUCCESS);
  g_host_for_fakes = nullptr;

  EXPECT_EQ(g_fake.calls, (std::vector<std::string>{"open1:5", "open2:5", "open3:5"}));
  EXPECT_TRUE(g_lock_was_free) << "the configuration lock was held while a component opened";
  // Layer 1: below it layer 2, above it the caller.
  EXPECT_EQ(g_fake.seen[1].Open, t2.Open);
  EXPECT_EQ(g_fake.seen[1].Close, t2.Close);
  EXPECT_EQ(g_fake.seen[1].Write, t2.Write);
  EXPECT_EQ(g_fake.seen[1].Ioctl, t2.Ioctl);
  EXPECT_EQ(g_fake.seen[1].Event, caller_table.Event);
  EXPECT_EQ(g_fake.seen[2].Ioctl, t3.Ioctl);
  EXPECT_EQ(g_fake.seen[2].Event, t1.Event);
  // The bottom one has nothing below it.
  EXPECT_EQ(g_fake.seen[3].Open, nullptr);
  EXPECT_EQ(g_fake.seen[3].Close, nullptr);
  EXPECT_EQ(g_fake.seen[3].Write, nullptr);
  EXPECT_EQ(g_fake.seen[3].Ioctl, nullptr);
  EXPECT_EQ(g_fake.seen[3].Event, t2.Event);
}

TEST_F(PortStackTest, AMissingOpenEntryFailsLikeAFailingOpen) {
  g_fake = FakeLog{};
  const SkComponentTable caller_table{};
  SkComponentTable t1 = FakeTable<1>(), t2 = FakeTable<2>(), t3 = FakeTable<3>();
  t3.Open = nullptr;
  CComponent caller(&caller_table), c1(&t1), c2(&t2), c3(&t3), bottom;
  EXPECT_EQ(OpenComponents(6, u"s/p", {&caller, &c1, &c2, &c3, &bottom}), SKR_INVALID_PARAMETER);
  EXPECT_EQ(g_fake.calls, (std::vector<std::string>{"open1:6", "open2:6", "close2:6", "close1:6"}));

  // A failing middle layer: only the one above it is closed, the one below never opened.
  g_fake = FakeLog{};
  g_fake.open_result[2] = SKR_LOCKED_BY_OTHER;
  EXPECT_EQ(OpenComponents(6, u"s/p", {&caller, &c1, &c2, &c3, &bottom}), SKR_LOCKED_BY_OTHER);
  EXPECT_EQ(g_fake.calls, (std::vector<std::string>{"open1:6", "open2:6", "close1:6"}));
}

}  // namespace
}  // namespace orlenda
