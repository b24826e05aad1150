// The hidden window that takes the system's power broadcasts. Its class and window are named
// "Suspend/Resume Handler"; it is never shown.
#include "platform/power_window.h"

#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

constexpr wchar_t kWindowName[] = L"Suspend/Resume Handler";
constexpr LRESULT kQueryDeny = 0x424D5144;  // BROADCAST_QUERY_DENY

struct Callbacks {
  PowerWindow::QuerySuspend query;
  PowerWindow::PowerEvent event;
};

LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  if (message == WM_NCCREATE) {
    const auto* create = reinterpret_cast<const CREATESTRUCTW*>(lparam);
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(create->lpCreateParams));
  }
  const auto* callbacks = reinterpret_cast<const Callbacks*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  switch (message) {
    case WM_POWERBROADCAST:
      if (callbacks == nullptr) return 0;
      if (wparam == PBT_APMQUERYSUSPEND) return callbacks->query() ? TRUE : kQueryDeny;
      callbacks->event(static_cast<uint32_t>(wparam));
      return 0;
    case WM_CLOSE:
      DestroyWindow(window);
      return 0;
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
    default:
      return DefWindowProcW(window, message, wparam, lparam);
  }
}

}  // namespace

void PowerWindow::Start(QuerySuspend query, PowerEvent event) {
  if (thread_.joinable()) return;
  query_ = query;
  event_ = event;
  window_ = 0;
  done_.Reset();
  created_.Reset();
  if (!thread_.Start(&Main, this)) {
    done_.Set();
    return;
  }
  created_.Wait(kInfinite);  // so that a Stop right after Start finds the window
}

void PowerWindow::Main(void* argument) {
  auto* self = static_cast<PowerWindow*>(argument);
  Callbacks callbacks{self->query_, self->event_};
  HINSTANCE instance = GetModuleHandleW(nullptr);
  WNDCLASSEXW window_class{};
  window_class.cbSize = sizeof(window_class);
  window_class.style = CS_HREDRAW | CS_VREDRAW;
  window_class.lpfnWndProc = WindowProcedure;
  window_class.hInstance = instance;
  window_class.hbrBackground = static_cast<HBRUSH>(GetStockObject(NULL_BRUSH));
  window_class.lpszClassName = kWindowName;
  if (RegisterClassExW(&window_class) == 0) {
    self->created_.Set();
    self->done_.Set();
    return;
  }
  HWND window = CreateWindowExW(0, kWindowName, L"", WS_OVERLAPPEDWINDOW, 0, 0, 0, 0, nullptr, nullptr, instance,
                                &callbacks);
  self->window_ = reinterpret_cast<uintptr_t>(window);
  self->created_.Set();
  MSG message;
  while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  if (IsWindow(window)) DestroyWindow(window);
  UnregisterClassW(kWindowName, instance);
  self->done_.Set();
}

void PowerWindow::Stop() {
  if (!thread_.joinable()) return;
  if (window_ != 0) PostMessageW(reinterpret_cast<HWND>(window_), WM_CLOSE, 0, 0);
  done_.Wait(kInfinite);
  thread_.Join();
  window_ = 0;
}

}  // namespace orlenda::platform
