// The requests of the built-in configuration port, and the object behind one open of it.
//
// Layouts of the requests (all texts are UTF-16; an input's text ends at its first NUL or at the
// end of the blob, and an odd last byte is ignored):
//
//   SK_CONFIG_ENUM_PORTS   in: optional sub-path      out: names, each with its NUL, then one NUL
//   SK_CONFIG_GET          in: property path          out: "<xmlroot>...</xmlroot>" with its NUL
//   SK_CONFIG_GET_SETTINGS(_ALL)  in: settings path   out: a settings document with its NUL
//   SK_CONFIG_ADD_PORT     in: port definition        out: the port's store path with its NUL
//   SK_CONFIG_DELETE_PORT  in: the port's store path  out: none
//   SK_CONFIG_SET          in: settings text          out: none
//   SK_CONFIG_APPLY, SK_PORT_LOCK, 0x50070011, 0x50070012: input ignored, no output, SKR_SUCCESS
//
// A port definition and a settings text are property texts in the store's own format:
// <xmlroot><property id="..." type="string|number|binary" value="..."/>...</xmlroot>, where the
// property "ConfigurationPath" names the port's group in the properties store ("/NAVPRT001").
//
// Where ports live: a port is a group at the root of the properties store, named after the port
// ("NAVPRT001"), holding at least "PortName" and "PortType". ADD_PORT, DELETE_PORT and SET take
// such store paths as they are given. The reading requests (ENUM_PORTS, GET, GET_SETTINGS) work
// below the name the configuration port was opened under; the configuration port is normally
// opened under the empty name, and then they read the same groups.
#pragma once

#include <cstdint>

#include "common/blob.h"
#include "common/wide_string.h"
#include "components/configuration.h"
#include "skein/protocol.h"

namespace orlenda {

// The request codes are the public ones of skein/protocol.h.

// One open of the configuration port: its port number and the name it was opened under.
//
// Requests of all opens may run at the same time. The changing requests (ADD_PORT, DELETE_PORT,
// SET) are serialised on one lock shared by every open, so that two opens never choose the same
// number for a new port; that lock is taken before the configuration lock and never held while a
// component runs.
class ConfigurationObject {
 public:
  ConfigurationObject(uint32_t port, WStringView name) : port_(port), name_(name) {}
  ConfigurationObject(const ConfigurationObject&) = delete;
  ConfigurationObject& operator=(const ConfigurationObject&) = delete;

  uint32_t port() const { return port_; }
  const WString& name() const { return name_; }

  // Runs the request `code`. `input` may be empty; `output` null means the caller wants no output
  // (a request that needs one then answers SKR_INVALID_SIZE), otherwise `*output` receives a blob
  // the caller owns, or stays untouched. Unknown codes: SKR_INVALID_PARAMETER.
  uint32_t Request(uint32_t code, const BlobRef& input, Blob** output);

 private:
  uint32_t EnumPorts(const BlobRef& input, Blob** output);
  uint32_t Get(const BlobRef& input, Blob** output);
  // mode 0: SK_CONFIG_GET_SETTINGS, mode 1: SK_CONFIG_GET_SETTINGS_ALL.
  uint32_t GetSettings(const BlobRef& input, Blob** output, int mode);
  uint32_t AddPort(const BlobRef& input, Blob** output);
  uint32_t DeletePort(const BlobRef& input);
  uint32_t Set(const BlobRef& input);

  // The settings path of a request: the name, "/" when both are non-empty, the text.
  WString SettingsPath(WStringView text) const;
  // The documents of the components `mode` selects for `path`, merged, the first one winning.
  uint32_t CollectSettings(WStringView path, int mode, WString* merged);

  const uint32_t port_;
  const WString name_;
  CConfiguration configuration_;  // hands out the settings schema
};

// The text of an input blob: UTF-16 up to its first NUL or the end; an odd last byte is ignored.
WString BlobText(const BlobRef& blob);
// A new blob holding `text` as UTF-16 followed by one NUL; null when memory is short.
Blob* TextBlob(WStringView text);

}  // namespace orlenda
