// The service host with a stand-in for the system: the run modes of the command line, the status
// reports and their check points, the console run that reports nothing, a start that fails on its
// configuration, and the execution state that follows the port locks.
#include "service/service_host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "components/configuration.h"
#include "platform/errors.h"
#include "platform/file.h"
#include "service/run_mode.h"
#include "service/service_data.h"
#include "service/server_registry.h"
#include "service/service_start.h"
#include "support/component_fixture.h"
#include "support/log_capture.h"
#include "support/wire_client.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using platform::ServiceStatus;

TEST(RunMode, VerbsAfterADashOrSlashInAnyCase) {
  const std::pair<std::vector<const char*>, RunMode> cases[] = {
      {{"orlenda"}, RunMode::kDispatcher},            {{"orlenda", "/DEBUG"}, RunMode::kDebug},
      {{"orlenda", "-Debug"}, RunMode::kDebug},       {{"orlenda", "debug"}, RunMode::kDispatcher},
      {{"orlenda", "-debugs"}, RunMode::kDispatcher}, {{"orlenda", "-"}, RunMode::kDispatcher},
      {{"orlenda", "-install"}, RunMode::kInstall},    {{"orlenda", "/REMOVE"}, RunMode::kRemove},
      {{"orlenda", "-Stop"}, RunMode::kStop},         {{"orlenda", "/start", "x"}, RunMode::kStart},
  };
  for (const auto& [args, mode] : cases) {
    EXPECT_EQ(ParseRunMode(static_cast<int>(args.size()), args.data()), mode) << (args.size() > 1 ? args[1] : "(none)");
  }
}

// The system as a recorder: every status report, execution state and error event, in order.
class FakeSystem : public platform::ServiceSystem {
 public:
  uint32_t RunDispatcher(const char16_t*, ServiceMain) override { return 0; }
  bool RegisterControlHandler(const char16_t*, ControlHandler) override { return true; }
  bool SetStatus(const ServiceStatus& status) override {
    std::lock_guard<std::mutex> hold(lock);
    statuses.push_back(status);
    return !fail_status;
  }
  bool WriteErrorEvent(const char16_t* source, const char16_t* first, const char16_t* second) override {
    std::lock_guard<std::mutex> hold(lock);
    events.push_back(std::u16string(source) + u"|" + first + u"|" + second);
    return true;
  }
  void SetExecutionState(uint32_t flags) override {
    if (on_execution_state) on_execution_state(flags);
    std::lock_guard<std::mutex> hold(lock);
    execution.push_back(flags);
  }
  uint32_t LastError() override { return 1234; }
  bool SetInterruptHandler(InterruptHandler) override { return true; }

  // Waits (bounded) until `done` holds of what was recorded, under the lock.
  bool Await(const std::function<bool()>& done) {
    for (int i = 0; i < 2000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      std::lock_guard<std::mutex> hold(lock);
      if (done()) return true;
    }
    return false;
  }
  bool AwaitState(uint32_t state) {
    const auto reported = [&](const ServiceStatus& s) { return s.current_state == state; };
    return Await([&] { return std::any_of(statuses.begin(), statuses.end(), reported); });
  }
  // Start-pending, then stopped once with `exit_code`.
  void ExpectStoppedAtStart(uint32_t exit_code) {
    ASSERT_EQ(statuses.size(), 2u);
    EXPECT_EQ(statuses[1].current_state, platform::kServiceStopped);
    EXPECT_EQ(statuses[1].win32_exit_code, exit_code);
  }

  std::mutex lock;
  std::vector<ServiceStatus> statuses;
  std::vector<std::u16string> events;
  std::vector<uint32_t> execution;
  std::function<void(uint32_t)> on_execution_state;
  bool fail_status = false;
};

constexpr uint32_t kAwake = platform::kExecutionContinuous | platform::kExecutionSystemRequired;
const ServiceIdentity kIdentity = {u"Orlenda", u"Orlenda Service", u"Orlenda", u"OrlendaLog", u"OrlendaLog",
                                   u"orlenda", nullptr, nullptr, true};

// A body that runs until stopped.
uint32_t WaitForStop(ServiceHost& host) {
  host.ReportStatus(platform::kServiceRunning, 0, 0);
  host.stop_event().Wait(platform::kInfinite);
  return 0;
}

TEST(ServiceHostTest, StatusReportsAndCheckPointsInOrder) {
  FakeSystem system;
  ServiceHost host(kIdentity, &WaitForStop, system);
  std::thread service([&] { host.ServiceMain(); });
  ASSERT_TRUE(system.AwaitState(platform::kServiceRunning));
  host.OnControl(4);  // interrogate: the state again
  host.OnControl(platform::kServiceControlStop);
  service.join();
  // Each report as {state, controls accepted, exit code, check point, wait hint}; all of an own process.
  std::vector<std::array<uint32_t, 5>> reports;
  for (const ServiceStatus& s : system.statuses) {
    EXPECT_EQ(s.service_type, platform::kServiceOwnProcess);
    reports.push_back({s.current_state, s.controls_accepted, s.win32_exit_code, s.check_point, s.wait_hint});
  }
  const std::vector<std::array<uint32_t, 5>> expected = {
      {platform::kServiceStartPending, 0, 0, 1, 3000}, {platform::kServiceRunning, 1, 0, 0, 0},
      {platform::kServiceRunning, 1, 0, 0, 0},         {platform::kServiceStopPending, 1, 0, 2, 0},
      {platform::kServiceStopped, 1, 0, 0, 0}};
  EXPECT_EQ(reports, expected);
  EXPECT_TRUE(system.events.empty());
}

// A failed status report goes to the event log and becomes the exit code; the console run of the
// same host reports nothing, and reads the body's result in reverse: a normal stop (0) exits with the
// thread's last error, a failed start would exit with 0.
TEST(ServiceHostTest, AFailedReportBecomesTheExitCodeAndTheConsoleRunReportsNothing) {
  FakeSystem system;
  system.fail_status = true;
  ServiceHost host(kIdentity, [](ServiceHost& h) -> uint32_t { return h.ReportStatus(5, 0, 0) ? 0u : 1u; }, system);
  host.ServiceMain();  // the start-pending report fails: the body never runs
  system.ExpectStoppedAtStart(1234u);
  ASSERT_EQ(system.events.size(), 2u);
  EXPECT_EQ(system.events[0], u"Orlenda|Orlenda error: 1234|Orlenda Service: SetServiceStatus failed.");
  system.statuses.clear();
  system.events.clear();
  const char* args[] = {"orlenda", "-debug"};
  EXPECT_EQ(host.Main(2, args), 1234);
  EXPECT_TRUE(system.statuses.empty());
  host.ReportError(u"nothing");
  EXPECT_TRUE(system.events.empty());
}

// ServiceStart itself, on the data folder of this test process.
class ServiceStartTest : public testing::ConfigurationFixture {
 protected:
  void WriteBrokerConfiguration() {
    testing::WriteConfiguration({{u"loopback", ORLENDA_LOOPBACK_MODULE}}, {{u"/stack/LOOP/loopback/note", u""}});
    port_ = testing::FreeTcpPort();
    testing::SetNumberOnFile(u"/TCP_COMMUNICATION_PORT", port_);
    CPropertyHandler properties{WString(u"Orlenda.properties")};
    ASSERT_TRUE(properties.SetString(u"LOOP/1/PortName", u"test"));
  }

  FakeSystem system_;
  uint16_t port_ = 0;
};

TEST_F(ServiceStartTest, AConfigurationThatCannotLoadStopsWithExitCodeThree) {
  CPropertyHandler store{WString(u"Orlenda.configuration")};  // no components: the load fails
  ASSERT_TRUE(store.SetString(u"/note", u"empty"));
  ServiceHost host(kIdentity, &ServiceStart, system_);
  host.ServiceMain();
  system_.ExpectStoppedAtStart(kStartFailedExitCode);
}

// The folder is taken over whoever made it; a file in it that others may write is refused.
TEST_F(ServiceStartTest, ALooserDataFolderIsTakenOverAndAConfigurationOthersMayWriteIsRefused) {
  WriteBrokerConfiguration();
  namespace fs = std::filesystem;
  ServiceHost host(kIdentity, &ServiceStart, system_);
  WString folder, refusal;
  ASSERT_TRUE(ServiceDataFolder(host, &folder));
  fs::permissions(fs::path(View(folder)), fs::perms::all);  // anyone may plant a configuration in it
  EXPECT_TRUE(SecureServiceData(host, &refusal)) << testing::Narrow(View(refusal));
  bool trusted = false;
  ASSERT_EQ(platform::OnlyTrustedMayChange(folder.c_str(), &trusted), 0u);
  EXPECT_TRUE(trusted);

  const WString path = testing::StorePath(u"Orlenda.configuration");
  fs::permissions(fs::path(View(path)), fs::perms::others_write, fs::perm_options::add);
  ASSERT_EQ(platform::OnlyTrustedMayChange(path.c_str(), &trusted), 0u);
  if (trusted) GTEST_SKIP() << "this file system cannot make a file writable by others from here";
  host.ServiceMain();
  system_.ExpectStoppedAtStart(kStartFailedExitCode);
  ASSERT_EQ(system_.events.size(), 1u);
  EXPECT_NE(system_.events[0].find(u"may be changed by users other than the administrators"), std::u16string::npos);
}

// Locked, unlocked, locked by another client that then goes away without unlocking, and the stop
// lets the machine sleep while the servers are still there (each change is seen before the next).
TEST_F(ServiceStartTest, TheMachineStaysAwakeOnlyWhileAPortIsLockedAndSleepsBeforeTheServersGo) {
  WriteBrokerConfiguration();
  std::vector<bool> listening;
  system_.on_execution_state = [&](uint32_t) {
    listening.push_back(testing::WireClient().ConnectTcp(port_) == platform::kErrorSuccess);
  };
  testing::WireClient holder, leaver;
  const auto lock = [&](testing::WireClient& client, uint32_t value, uint32_t flags) {
    ASSERT_EQ(client.Call(testing::IoctlFrame(2, SK_PORT_LOCK, testing::DwordBytes(value))), SKR_SUCCESS);
    EXPECT_TRUE(system_.Await([&] { return !system_.execution.empty() && system_.execution.back() == flags; }));
  };
  const auto work = [&] {
    ASSERT_EQ(holder.ConnectTcp(port_), platform::kErrorSuccess);
    ASSERT_EQ(holder.Call(testing::OpenFrame(1, u"LOOP/1")), SKR_SUCCESS);
    lock(holder, 1, kAwake);
    lock(holder, 2, platform::kExecutionContinuous);
    ASSERT_EQ(leaver.ConnectTcp(port_), platform::kErrorSuccess);
    ASSERT_EQ(leaver.Call(testing::OpenFrame(1, u"LOOP/1")), SKR_SUCCESS);
    lock(leaver, 1, kAwake);
    leaver.Disconnect();
    EXPECT_TRUE(system_.Await([&] { return system_.execution.size() == 4; }));
  };
  ServiceHost host(kIdentity, &ServiceStart, system_);
  std::thread service([&] { host.ServiceMain(); });
  if (system_.AwaitState(platform::kServiceRunning)) work();  // its failures still stop the service
  host.OnControl(platform::kServiceControlStop);
  service.join();
  EXPECT_EQ(system_.execution, (std::vector<uint32_t>{kAwake, platform::kExecutionContinuous, kAwake,
                                                      platform::kExecutionContinuous, platform::kExecutionContinuous}));
  EXPECT_EQ(listening, std::vector<bool>(5, true));
  EXPECT_TRUE(holder.AwaitClosed(5000));
  EXPECT_EQ(RegisteredServerCount(), 0u);
}

}  // namespace
}  // namespace orlenda
