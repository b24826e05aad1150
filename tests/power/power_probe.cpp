// power_probe: plays the system's power broadcasts at a running broker (orlenda -debug), as the
// suspend guard would receive them, while it holds a port's lock over the local pipe:
//   the suspend query is refused while the lock is held; a suspend makes the locked port answer
//   SKR_SUSPENDED; a resume restores it; after the unlock the suspend query is granted.
// Windows only (the broadcasts reach a window). Exit status 0 when all of that held.
#include <windows.h>

#include <cstdio>

#include "skein/client.h"

namespace {

constexpr wchar_t kWindow[] = L"Suspend/Resume Handler";
constexpr LRESULT kQueryDeny = 0x424D5144;

int g_failures = 0;

bool Expect(bool ok, const char* what) {
  std::printf("%s: %s\n", ok ? "ok" : "FAILED", what);
  if (!ok) ++g_failures;
  return ok;
}

LRESULT Broadcast(HWND window, WPARAM event) {
  DWORD_PTR answer = 0;
  SendMessageTimeoutW(window, WM_POWERBROADCAST, event, 0, SMTO_ABORTIFHUNG, 10000, &answer);
  return static_cast<LRESULT>(answer);
}

}  // namespace

int main() {
  HWND window = nullptr;
  for (int i = 0; i < 200 && window == nullptr; ++i) {  // the broker may still be starting
    window = FindWindowW(kWindow, nullptr);
    if (window == nullptr) Sleep(50);
  }
  if (!Expect(window != nullptr, "the broker's window \"Suspend/Resume Handler\" is there")) return 1;

  // The window comes before the servers: the pipe may take a moment more.
  SkClient* client = nullptr;
  uint32_t result = SKC_CANNOT_CONNECT;
  for (int i = 0; i < 200 && result != SKR_SUCCESS; ++i) {
    result = SkConnectLocal(nullptr, nullptr, &client);
    if (result != SKR_SUCCESS) Sleep(50);
  }
  if (!Expect(result == SKR_SUCCESS, "connected over the pipe")) return 1;
  Expect(SkOpen(client, "LOOP/1") == SKR_SUCCESS, "opened LOOP/1");
  const uint32_t lock = 1, unlock = 2;
  Expect(SkIoctl(client, SK_PORT_LOCK, &lock, 4, nullptr, nullptr) == SKR_SUCCESS, "locked it");

  Expect(Broadcast(window, PBT_APMQUERYSUSPEND) == kQueryDeny, "the suspend query is refused while locked");
  Broadcast(window, PBT_APMSUSPEND);
  Expect(SkWrite(client, "x", 1, nullptr) == SKR_SUSPENDED, "a write while suspended: SKR_SUSPENDED");
  Broadcast(window, PBT_APMRESUMEAUTOMATIC);
  Expect(SkWrite(client, "y", 1, nullptr) == SKR_SUCCESS, "a write after the resume succeeds");
  Expect(SkIoctl(client, SK_PORT_LOCK, &unlock, 4, nullptr, nullptr) == SKR_SUCCESS, "unlocked it");
  Expect(Broadcast(window, PBT_APMQUERYSUSPEND) == TRUE, "the suspend query is granted after the unlock");
  SkClose(client);
  SkDisconnect(client);
  return g_failures == 0 ? 0 : 1;
}
