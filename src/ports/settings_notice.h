// The settings notice: a configuration request that set settings (SK_CONFIG_APPLY) tells whoever
// runs the connection servers, so that they take the new settings up. The service host installs
// its server registry as the listener; without one a notice goes nowhere.
#pragma once

namespace orlenda {

using SettingsListener = void (*)();

// Installs `listener` (null removes it).
void SetSettingsListener(SettingsListener listener);
// Calls the listener, on the calling thread; it returns when the servers have taken the settings.
void NotifySettingsChanged();

}  // namespace orlenda
