#include "components/port_stack.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "common/blob.h"
#include "components/configuration.h"
#include "platform/sync.h"
#include "support/component_fixture.h"
#include "support/log_capture.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using testing::Dump;
using testing::LogCapture;
using testing::Narrow;
using testing::RecordedCalls;
using testing::SetLoadedNumber;
using testing::SetLoadedString;
CComponent* Component(const char16_t* name) { return CConfiguration::FindComponent(name); }
void CloseAll(uint32_t port) {
  for (const char16_t* name : {u"test_a", u"test_b", u"test_c"}) Component(name)->Close(port);
}

// The downward entries (Open, Close, Write, Ioctl) of `seen` are those of `below`.
void ExpectDownward(const SkComponentTable& seen, const SkComponentTable& below) {
  EXPECT_TRUE(seen.Open == below.Open && seen.Close == below.Close && seen.Write == below.Write &&
              seen.Ioctl == below.Ioctl);
}

// Components test_a, test_b, test_c (three files of the test module). Stacks:
//   pos:     test_a always; test_b when "<port>/model" is "X1"; test_c has a requiredName only;
//            ghost is not a configured component
//   three:   test_a, test_b, test_c, no conditions
//   strict:  test_a and test_b, both only for model "none-such"
//   ghosts:  ghost only
//   dev/sub: test_b (a stack whose name holds a "/")
// An entry needs a property to exist; "note" means nothing to the stacks.
class PortStackTest : public testing::ConfigurationFixture {
 protected:
  void SetUp() override {
    ConfigurationFixture::SetUp();
    testing::WriteConfiguration(
        {{u"test_a", WString(ORLENDA_TEST_A_MODULE)}, {u"test_b", WString(ORLENDA_TEST_B_MODULE)},
         {u"test_c", WString(ORLENDA_TEST_C_MODULE)}},
        {{u"/stack/pos/test_a/note", u"always"}, {u"/stack/pos/test_b/requiredName", u"model"},
         {u"/stack/pos/test_b/requiredValue", u"X1"}, {u"/stack/pos/test_c/requiredName", u"model"},
         {u"/stack/pos/ghost/note", u""}, {u"/stack/three/test_a/note", u""},
         {u"/stack/three/test_b/note", u""}, {u"/stack/three/test_c/note", u""},
         {u"/stack/strict/test_a/requiredName", u"model"}, {u"/stack/strict/test_a/requiredValue", u"none-such"},
         {u"/stack/strict/test_b/requiredName", u"model"}, {u"/stack/strict/test_b/requiredValue", u"none-such"},
         {u"/stack/ghosts/ghost/note", u""}, {u"/stack/dev/sub/test_b/note", u""}});
    ASSERT_TRUE(CConfiguration::Load());
    testing::ClearRecordedCalls();
  }
};

// ---- Stack names, selection and listing ----

TEST(StackNameOf, IsThePathBeforeItsLastSlash) {
  const struct {
    const char16_t* path;
    const char16_t* stack;
  } cases[] = {
      {u"pos/dev1", u"pos"},  {u"//pos/dev1//", u"pos"},  {u"/pos/dev1", u"pos"},
      {u"pos//dev1", u"pos"}, {u"dev/sub/p", u"dev/sub"}, {u"config", u""},
      {u"/config/", u""},     {u"", u""},                 {u"///", u""},
  };
  for (const auto& c : cases) EXPECT_EQ(StackNameOf(c.path), WStringView(c.stack)) << Narrow(c.path);
}

TEST_F(PortStackTest, SelectionFollowsTheConditionsOfEachEntry) {
  CComponent* a = Component(u"test_a");
  CComponent* b = Component(u"test_b");
  CComponent* c = Component(u"test_c");
  ASSERT_TRUE(SetLoadedString(u"pos/dev2/model", u"X1"));  // another port's property must not count
  const struct {
    const char16_t* model;  // null: property missing
    ComponentList expected;
  } cases[] = {
      {u"X1", {a, b, c}},
      {u"x1", {a, c}},  // exact, case-sensitive
      {u"X1 ", {a, c}},
      {u"X", {a, c}},
      {nullptr, {a, c}},  // test_c names no value: taken; ghost skipped
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.model ? Narrow(k.model) : std::string("missing"));
    ASSERT_TRUE(k.model ? SetLoadedString(u"pos/dev1/model", k.model)
                        : CConfiguration::WithProperties([](CPropertyHandler& s) { return s.Delete(u"pos/dev1/model"); }));
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
  EXPECT_EQ(ListStackComponents(u"nosuch", &list), kNoStackComponents);
  EXPECT_EQ(ListStackComponents(u"dev/sub", &list), SKR_SUCCESS);
  EXPECT_EQ(list, ComponentList{Component(u"test_b")});  // nothing from the stacks before

  // Without a configuration nothing can be enumerated.
  CConfiguration::Unload();
  EXPECT_EQ(ListStackComponents(u"pos", &list), SKR_INVALID_SIZE);
  EXPECT_EQ(SelectComponents(u"pos/dev1", u"pos", &list), SKR_INVALID_SIZE);

  // The listing that succeeded and the selection log nothing.
  EXPECT_EQ(Dump(capture.Lines()),
            "0 no available components in path ghosts\n0 no available components in path nosuch\n"
            "0 invalid type('pos') in path\n");
}

// ---- Opening ----

// The caller's own layer: only its event entry is filled. How calls and events pass through the
// layers is checked on plain tables below.
void SKEIN_CALL CallerEvent(uint32_t, uint32_t, SkBlob* data) { SkBlobRelease(data); }

// The layers open top to bottom, and the caller then talks to the top one.
TEST_F(PortStackTest, OpenLinksTheLayersAndSlashesAtEitherEndSelectTheSameStack) {
  ASSERT_TRUE(SetLoadedString(u"pos/dev1/model", u"X1"));
  for (const char16_t* path : {u"pos/dev1", u"/pos/dev1", u"pos/dev1/", u"//pos/dev1//"}) {
    SCOPED_TRACE(Narrow(path));
    testing::ClearRecordedCalls();
    SkComponentTable table{nullptr, nullptr, nullptr, nullptr, CallerEvent};
    ASSERT_EQ(OpenStack(3, path, &table), SKR_SUCCESS);
    // The condition was read at the stripped path: test_b is part of every one of them.
    EXPECT_EQ(RecordedCalls(), u"test_a:open:3;test_b:open:3;test_c:open:3;");
    ExpectDownward(table, Component(u"test_a")->table());
    EXPECT_EQ(table.Event, CallerEvent);  // the caller's own event entry stays
    CloseAll(3);
  }
}

TEST_F(PortStackTest, FailingOpenClosesTheComponentsAboveInReverseOrder) {
  const struct {
    const char16_t* fails;  // test module reads its Open result through the host table
    uint32_t result;
    const char16_t* calls;
  } cases[] = {
      // Each closed layer passes its Close on to the layer below (which knows no such port).
      {u"/testmodule/test_c/openResult", SKR_SYSTEM_ERROR,
       u"test_a:open:7;test_b:open:7;test_c:open:7;test_b:close:7;test_c:close:7;test_a:close:7;test_b:close:7;"},
      {u"/testmodule/test_b/openResult", SKR_LOCKED_BY_OTHER,
       u"test_a:open:7;test_b:open:7;test_a:close:7;test_b:close:7;"},
      {u"/testmodule/test_a/openResult", SKR_SUSPENDED, u"test_a:open:7;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Narrow(c.fails));
    testing::ClearRecordedCalls();
    ASSERT_TRUE(SetLoadedNumber(c.fails, c.result));
    SkComponentTable table{nullptr, nullptr, nullptr, nullptr, CallerEvent};
    EXPECT_EQ(OpenStack(7, u"three/p1", &table), c.result);
    EXPECT_EQ(RecordedCalls(), c.calls);
    // Nothing of the stack reached the caller.
    ExpectDownward(table, SkComponentTable{});
    EXPECT_EQ(table.Event, CallerEvent);
    ASSERT_TRUE(SetLoadedNumber(c.fails, 0));
  }
}

TEST_F(PortStackTest, NothingSelectedOpensNothing) {
  LogCapture capture;
  SkComponentTable table{};
  for (const char16_t* path : {u"strict/p1", u"nosuch/p1", u"ghosts/p1"}) {
    EXPECT_EQ(OpenStack(1, path, &table), SKR_TRUNCATED) << Narrow(path);
  }
  const std::string line = "0 no components found for configuration\n";
  EXPECT_EQ(Dump(capture.Lines()), line + line + line);
  EXPECT_EQ(RecordedCalls(), u"");
}

TEST_F(PortStackTest, ConcurrentOpensWhileTheHostTableIsInUse) {
  // Every Open of the test module calls the host table; opens on several threads and host-table
  // calls from this one run at the same time.
  constexpr uint32_t kThreads = 4, kRounds = 5;
  std::vector<std::thread> threads;
  std::vector<uint32_t> failures(kThreads, 0);
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      for (uint32_t i = 0; i < kRounds; ++i) {
        SkComponentTable table{};
        if (OpenStack(20 + t, u"three/p", &table) != SKR_SUCCESS) ++failures[t];
        CloseAll(20 + t);
      }
    });
  }
  const SkHostTable* host = CConfiguration::host_table();
  for (uint32_t i = 0; i < kRounds * 4; ++i) {
    host->SetNumber(ToSkString(u"/busy/n"), i);
    uint32_t back = 0;
    EXPECT_TRUE(host->GetNumber(ToSkString(u"/busy/n"), &back) && back == i) << i;
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(failures, std::vector<uint32_t>(kThreads, 0));
}

// ---- The layering itself, on components made from plain tables ----

SkComponentTable g_seen[4];
const SkHostTable* g_host_for_fakes = nullptr;
bool g_lock_was_free = false;

template <int N>
uint32_t SKEIN_CALL FakeOpen(uint32_t, SkString* path, const SkLayerTable* layers) {
  g_seen[N] = *layers;
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
    g_lock_was_free ? reader.join() : reader.detach();  // joining a stuck reader would wait for ever
  }
  return SKR_SUCCESS;
}
template <int N>
uint32_t SKEIN_CALL FakeClose(uint32_t) { return SKR_SUCCESS; }
template <int N>
uint32_t SKEIN_CALL FakeWrite(uint32_t, SkBlob* data, uint32_t*) { SkBlobRelease(data); return SKR_SUCCESS; }
template <int N>
uint32_t SKEIN_CALL FakeIoctl(uint32_t, uint32_t, SkBlob* input, SkBlob**) { SkBlobRelease(input); return SKR_SUCCESS; }
template <int N>
void SKEIN_CALL FakeEvent(uint32_t, uint32_t, SkBlob* data) { SkBlobRelease(data); }
template <int N>
SkComponentTable FakeTable() {
  return SkComponentTable{FakeOpen<N>, FakeClose<N>, FakeWrite<N>, FakeIoctl<N>, FakeEvent<N>};
}

TEST_F(PortStackTest, EachLayerSeesTheOneBelowAndTheEventOfTheOneAbove) {
  g_host_for_fakes = CConfiguration::host_table();
  const SkComponentTable caller_table = FakeTable<0>();
  const SkComponentTable t1 = FakeTable<1>(), t2 = FakeTable<2>(), t3 = FakeTable<3>();
  CComponent caller(&caller_table), c1(&t1), c2(&t2), c3(&t3), bottom;
  ASSERT_EQ(OpenComponents(5, u"s/p", {&caller, &c1, &c2, &c3, &bottom}), SKR_SUCCESS);
  g_host_for_fakes = nullptr;

  EXPECT_TRUE(g_lock_was_free) << "the configuration lock was held while a component opened";
  ExpectDownward(g_seen[1], t2);
  EXPECT_EQ(g_seen[1].Event, caller_table.Event);
  ExpectDownward(g_seen[2], t3);
  EXPECT_EQ(g_seen[2].Event, t1.Event);
  ExpectDownward(g_seen[3], SkComponentTable{});  // nothing below the bottom one
  EXPECT_EQ(g_seen[3].Event, t2.Event);
}

}  // namespace
}  // namespace orlenda
