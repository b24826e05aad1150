#include "ports/settings_notice.h"

#include <atomic>

namespace orlenda {
namespace {

std::atomic<SettingsListener> g_listener{nullptr};

}  // namespace

void SetSettingsListener(SettingsListener listener) { g_listener.store(listener, std::memory_order_release); }

void NotifySettingsChanged() {
  const SettingsListener listener = g_listener.load(std::memory_order_acquire);
  if (listener != nullptr) listener();
}

}  // namespace orlenda
