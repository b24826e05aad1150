// The device modules' settings: what fails an Open, and the settings documents as the
// configuration port collects them.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "support/device_test_fixture.h"
#include "ports/configuration_requests.h"
#include "settings/xml_document.h"

namespace orlenda::device_testing {
namespace {

#ifdef _WIN32
constexpr char16_t kAbsentDevice[] = u"COM199";
#else
constexpr char16_t kAbsentDevice[] = u"/nonexistent/ttyUSB9";
#endif

TEST_F(DeviceTest, SettingsThatCannotWorkFailTheOpenAndAnAbsentDeviceDoesNot) {
  struct Case {
    const char16_t* port;
    Settings settings;
    uint32_t result;
  };
  const Case cases[] = {
      {u"serial/a", {{u"SERIAL_DEVICE", kAbsentDevice}, {u"SERIAL_DATA_BITS", u"9"}}, SKR_INVALID_PARAMETER},
      {u"serial/b", {{u"SERIAL_DEVICE", kAbsentDevice}, {u"SERIAL_DATA_BITS", u"4"}}, SKR_INVALID_PARAMETER},
      {u"serial/c", {{u"SERIAL_DEVICE", kAbsentDevice}, {u"SERIAL_PARITY", u"Sometimes"}}, SKR_INVALID_PARAMETER},
      {u"serial/d", {{u"SERIAL_DEVICE", kAbsentDevice}, {u"SERIAL_STOP_BITS", u"3"}}, SKR_INVALID_PARAMETER},
      {u"serial/e", {{u"SERIAL_DEVICE", kAbsentDevice}, {u"SERIAL_FLOW_CONTROL", u"Pigeon"}}, SKR_INVALID_PARAMETER},
      {u"printer/a", {{u"NETPRINTER_PORT", u"9100"}}, SKR_INVALID_PARAMETER},  // no host
      {u"printer/b", {{u"NETPRINTER_HOST", u"127.0.0.1"}, {u"NETPRINTER_PORT", u"70000"}}, SKR_INVALID_PARAMETER},
      // Choices ignore case, numbers may be strings; the device is absent and the port opens offline.
      {u"serial/f",
       {{u"SERIAL_DEVICE", kAbsentDevice}, {u"SERIAL_PARITY", u"even"}, {u"SERIAL_FLOW_CONTROL", u"xonxoff"},
        {u"SERIAL_STOP_BITS", u"2"}, {u"SERIAL_DATA_BITS", u"7"}},
       SKR_SUCCESS},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.port, c.port + std::char_traits<char16_t>::length(c.port)));
    Configure(c.port, c.settings);
    DeviceClient client;
    EXPECT_EQ(client.Open(c.port), c.result);
    if (c.result == SKR_SUCCESS) {
      EXPECT_EQ(client.State(), 0u);  // offline
      // The first attempt failed while the port was opening; the reason names the device.
      EXPECT_NE(client.LastText(SK_EVENT_DEVICE_OFFLINE).find(testing::Narrow(kAbsentDevice)), std::string::npos);
      EXPECT_EQ(client.Write("x"), SKR_DEVICE_OFFLINE);
    }
    EXPECT_EQ(client.Close(), c.result == SKR_SUCCESS ? SKR_SUCCESS : SKR_INVALID_HANDLE);
  }
}

// One choice or range of a settings document, as a settings editor reads it.
struct Setting {
  std::u16string kind, default_value, min;
  std::set<std::u16string> options, languages;
};

// Walks the document below the cursor, collecting choices and ranges by id.
void Collect(XmlDocument& doc, std::map<std::u16string, Setting>* settings, Setting* owner) {
  const auto attribute = [&](const char16_t* name) {
    const WString value = doc.GetAttribute(name);
    return std::u16string(value.begin(), value.end());
  };
  doc.ResetMain();
  while (doc.FindSibling(u"")) {
    const WString name = doc.ElementName(doc.main_position());
    const std::u16string kind(name.begin(), name.end());
    if (kind == u"ui" && owner != nullptr) {
      if (!attribute(u"label").empty()) owner->languages.insert(attribute(u"language"));
      continue;
    }
    Setting* next = owner;
    if (kind == u"choice" || kind == u"range") {
      next = &(*settings)[attribute(u"id")];
      *next = Setting{kind, attribute(u"default"), attribute(u"min"), {}, {}};
    } else if (kind == u"option" && owner != nullptr) {
      owner->options.insert(attribute(u"value"));
      next = nullptr;  // an option's own ui names the option, not the setting
    }
    if (doc.Descend()) {
      Collect(doc, settings, next);
      doc.Ascend();
    }
  }
}

TEST_F(DeviceTest, SettingsDocumentsReachTheConfigurationPortWellFormed) {
  struct Case {
    uint32_t code;
    const char16_t* path;
    std::vector<const char16_t*> ids;  // a sample of what must be there
    std::size_t count;                 // choices and ranges in all
  };
  const Case cases[] = {
      {SK_CONFIG_GET_SETTINGS, u"serial", {u"SERIAL_DEVICE", u"SERIAL_BAUD_RATE", u"SERIAL_RECONNECT_INTERVAL"}, 8},
      {SK_CONFIG_GET_SETTINGS, u"printer", {u"NETPRINTER_PORT", u"NETPRINTER_KEEPALIVE"}, 5},
      {SK_CONFIG_GET_SETTINGS_ALL, u"", {u"SERIAL_FLOW_CONTROL", u"NETPRINTER_WRITE_TIMEOUT"}, 13},
  };
  LocalConnection configuration;
  ASSERT_EQ(port_testing::OpenName(configuration, u""), SKR_SUCCESS);
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path, c.path + std::char_traits<char16_t>::length(c.path)));
    BlobRef output;
    ASSERT_EQ(configuration.Ioctl(c.code, port_testing::Utf16(c.path, std::string(2, '\0')), &output), SKR_SUCCESS);
    XmlDocument doc;
    doc.ParseText(View(BlobText(output)));
    ASSERT_TRUE(doc.HasValidRoot()) << testing::Narrow(View(doc.GetReport()));
    doc.ResetAll();
    ASSERT_TRUE(doc.FindSibling(u"xmlroot") && doc.Descend());
    std::map<std::u16string, Setting> settings;
    Collect(doc, &settings, nullptr);
    EXPECT_EQ(settings.size(), c.count);
    for (const char16_t* id : c.ids) EXPECT_EQ(settings.count(id), 1u) << testing::Narrow(id);
    for (const auto& [id, s] : settings) {
      SCOPED_TRACE(testing::Narrow(id));
      EXPECT_EQ(s.languages, (std::set<std::u16string>{u"en", u"ja"}));
      if (s.kind == u"choice") {
        EXPECT_EQ(s.options.count(s.default_value), 1u);  // the default is one of the options
      } else {
        EXPECT_GE(std::stoul(testing::Narrow(s.default_value)), std::stoul(testing::Narrow(s.min)));
      }
    }
  }
  EXPECT_EQ(configuration.Close(), SKR_SUCCESS);
}

}  // namespace
}  // namespace orlenda::device_testing
