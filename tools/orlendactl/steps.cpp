// The steps of orlendactl. Each sends its request(s) on the session's connection and prints the
// result by name, then what came back in readable form: texts of the service (UTF-16) as UTF-8,
// port lists one name a line, binary data as a hex dump.
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "session.h"
#include "text.h"

namespace orlendactl {
namespace {

constexpr uint32_t kDefaultWatchMs = 5000;

// "write-text hello": the step as the user gave it, long arguments cut.
std::string Label(const Step& step) {
  std::string label = step.kind->name;
  for (const std::string& arg : step.args) {
    const std::string shown = arg.size() > 40 ? arg.substr(0, 37) + "..." : arg;
    label += arg.empty() || arg.find(' ') != std::string::npos ? " \"" + shown + "\"" : " " + shown;
  }
  return label;
}

void PrintText(Session& s, const std::string& utf8) {
  std::vector<std::string> lines;
  std::istringstream in(utf8);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back("  " + line);
  }
  s.Lines(lines);
}

// TEXT, or the contents of FILE for "@FILE".
bool TextArgument(Session& s, const std::string& arg, std::string* text) {
  if (arg.empty() || arg[0] != '@') {
    *text = arg;
    return true;
  }
  std::ifstream file(arg.substr(1), std::ios::binary);
  if (!file) {
    s.Error("cannot read " + arg.substr(1));
    return false;
  }
  text->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return true;
}

bool Ioctl(Session& s, const Step& step, uint32_t code, const std::string& input, std::string* output = nullptr) {
  return s.Report(Label(step), s.client().Ioctl(code, input, output));
}

bool Lock(Session& s, const Step& step, uint32_t value) { return Ioctl(s, step, SK_PORT_LOCK, skein::Dword(value)); }

std::string XmlEscaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&') out += "&amp;";
    else if (c == '<') out += "&lt;";
    else if (c == '>') out += "&gt;";
    else if (c == '"') out += "&quot;";
    else out += c;
  }
  return out;
}

// A property text: `properties` are ID=VALUE (a string) or ID=#NUMBER (a number).
bool PropertyText(Session& s, const std::vector<std::pair<std::string, std::string>>& fixed,
                  const std::vector<std::string>& properties, std::string* text) {
  *text = "<xmlroot>";
  auto add = [&](const std::string& id, const std::string& type, const std::string& value) {
    *text += "<property id=\"" + XmlEscaped(id) + "\" type=\"" + type + "\" value=\"" + XmlEscaped(value) + "\"/>";
  };
  for (const auto& entry : fixed) add(entry.first, "string", entry.second);
  for (const std::string& property : properties) {
    const std::size_t equals = property.find('=');
    uint32_t number = 0;
    if (equals == std::string::npos || equals == 0) {
      s.Error("not ID=VALUE: " + property);
      return false;
    }
    const std::string value = property.substr(equals + 1);
    if (!value.empty() && value[0] == '#') {
      if (!ParseNumber(value.substr(1), &number)) {
        s.Error("not a number: " + value);
        return false;
      }
      add(property.substr(0, equals), "number", std::to_string(number));
    } else {
      add(property.substr(0, equals), "string", value);
    }
  }
  *text += "</xmlroot>";
  return true;
}

// A request to the configuration port whose output is a UTF-16 text, printed as lines.
bool TextRequest(Session& s, const Step& step, uint32_t code, const std::string& input) {
  std::string output;
  const bool ok = Ioctl(s, step, code, input, &output);
  if (!output.empty()) PrintText(s, Utf16ToUtf8(output));
  return ok;
}

// The input of a request that takes an optional path: the path as UTF-16, or nothing.
std::string PathInput(const Step& step) { return step.args.empty() ? std::string() : Utf8ToUtf16(step.args[0], true); }

bool Wait(Session& s, uint32_t ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  return s.client().connected() || s.Report("wait", SKC_CONNECTION_LOST);
}

bool PrintGot(Session& s, uint32_t code, const std::string& output) {
  if (code == SK_CONFIG_GET_NUMBER_PROPERTY && output.size() == 4) {
    const uint32_t n = static_cast<uint8_t>(output[0]) | static_cast<uint8_t>(output[1]) << 8 |
                       static_cast<uint8_t>(output[2]) << 16 | static_cast<uint32_t>(static_cast<uint8_t>(output[3])) << 24;
    s.Line("  " + std::to_string(n) + " (" + Hex32(n) + ")");
  } else if (code == SK_CONFIG_GET_STRING_PROPERTY) {
    s.Line("  \"" + Utf16ToUtf8(output) + "\"");
  } else {
    s.Lines(HexDump(output));
  }
  return true;
}

bool GetProperty(Session& s, const Step& step, uint32_t code) {
  std::string output;
  return Ioctl(s, step, code, Utf8ToUtf16(step.args[0], true), &output) && PrintGot(s, code, output);
}

bool SetProperty(Session& s, const Step& step, uint32_t code, const std::string& value) {
  return Ioctl(s, step, code, Utf8ToUtf16(step.args[0], true) + value);
}

// The service's own settings are the properties of the port opened with the empty name: the
// step opens (and for a change locks) it for itself when no port is open. A change is taken up by
// the servers at once: the service applies every property change.
bool Setting(Session& s, const Step& step) {
  const bool own = !s.port_open();
  if (!own && !s.port_name().empty()) {
    s.Error(Label(step) + ": the open port is not the service's settings (close it first)");
    return false;
  }
  if (own && !s.Report("open \"\"", s.client().Open(""))) return false;
  // A change needs the lock, which the settings port always grants; an open port of the user's
  // is the user's to lock.
  if (own && step.args.size() > 1 && !s.Report("lock", s.client().Ioctl(SK_PORT_LOCK, skein::Dword(1)))) {
    s.client().Close();
    return false;
  }
  const std::string name = Utf8ToUtf16(step.args[0], true);
  bool ok;
  std::string output;
  uint32_t number = 0;
  if (step.args.size() == 1) {
    uint32_t code = SK_CONFIG_GET_NUMBER_PROPERTY;
    uint32_t result = s.client().Ioctl(code, name, &output);
    if (result == SKR_FAILED) {
      code = SK_CONFIG_GET_STRING_PROPERTY;
      result = s.client().Ioctl(code, name, &output);
    }
    ok = s.Report(Label(step), result) && PrintGot(s, code, output);
  } else if (ParseNumber(step.args[1], &number)) {
    ok = Ioctl(s, step, SK_CONFIG_SET_NUMBER_PROPERTY, name + skein::Dword(number));
  } else {
    ok = Ioctl(s, step, SK_CONFIG_SET_STRING_PROPERTY, name + Utf8ToUtf16(step.args[1], true));
  }
  if (own) ok = s.Report("close", s.client().Close()) && ok;
  return ok;
}

bool Watch(Session& s, const Step& step) {
  std::istringstream list(step.args[0]);
  for (std::string item; std::getline(list, item, ',');) {
    uint32_t event = 0;
    if (!ParseCode(item, &event)) {
      s.Error("not an event: " + item);
      return false;
    }
    if (!s.Report("register " + CodeText(event), s.client().RegisterCallback(event))) return false;
  }
  return Wait(s, step.for_ms != 0 ? step.for_ms : kDefaultWatchMs);
}

bool LockAndWait(Session& s, const Step& step) {
  s.ForgetLockNotice();
  if (!s.Report("register " + CodeText(SK_EVENT_LOCK), s.client().RegisterCallback(SK_EVENT_LOCK))) return false;
  const uint32_t result = s.client().Ioctl(SK_PORT_LOCK, skein::Dword(1));
  s.Line(Label(step) + ": " + ResultText(result));
  if (result != SKR_LOCK_PENDING) return (result & 0x80000000u) == 0;
  const uint32_t ms = step.for_ms != 0 ? step.for_ms : s.client().options().call_timeout_ms;
  if (s.WaitForLock(ms)) return true;
  s.Error(Label(step) + ": the lock did not come");
  return false;
}

bool Write(Session& s, const Step& step, const std::string& data) {
  uint32_t written = 0;
  const bool ok = s.Report(Label(step), s.client().Write(data, &written));
  s.Line("  " + std::to_string(written) + " of " + std::to_string(data.size()) + " bytes written");
  return ok;
}

template <class F>
bool WithHex(Session& s, const std::string& text, F then) {
  std::string bytes;
  if (!ParseHex(text, &bytes)) {
    s.Error("not hex: " + text);
    return false;
  }
  return then(bytes);
}

template <class F>
bool WithCode(Session& s, const std::string& text, F then) {
  uint32_t code = 0;
  if (!ParseCode(text, &code)) {
    s.Error("not a code: " + text);
    return false;
  }
  return then(code);
}

const StepKind kSteps[] = {
    {"open", 1, 1, false, "open NAME", "open a port: \"PORT/member\", \"PORT?key\" or \"PORT?name=key\" with an access key, a name without \"/\" for the configuration port, \"\" for the service's settings",
     [](Session& s, const Step& st) {
       const bool ok = s.Report(Label(st), s.client().Open(st.args[0]));
       if (ok) s.set_port(true, st.args[0]);
       return ok;
     }},
    {"close", 0, 0, false, "close", "close the port",
     [](Session& s, const Step& st) {
       s.set_port(false);
       return s.Report(Label(st), s.client().Close());
     }},
    {"lock", 0, 0, false, "lock", "ask for the port's lock (SKR_LOCK_PENDING when another holds it)",
     [](Session& s, const Step& st) { return Lock(s, st, 1); }},
    {"lock-wait", 0, 0, true, "lock-wait [--for D]", "ask for the lock and wait until it is granted (default: the call time-out)",
     LockAndWait},
    {"unlock", 0, 0, false, "unlock", "give the lock up", [](Session& s, const Step& st) { return Lock(s, st, 2); }},
    {"exclusive", 1, 1, false, "exclusive on|off", "take or give up the exclusive-writer flag (needs the lock)",
     [](Session& s, const Step& st) {
       if (st.args[0] != "on" && st.args[0] != "off") {
         s.Error("exclusive takes on or off");
         return false;
       }
       return Ioctl(s, st, SK_PORT_EXCLUSIVE, skein::Dword(st.args[0] == "on" ? 1 : 0));
     }},
    {"notify", 1, 1, false, "notify TEXT", "send TEXT to the port's other clients (event SK_EVENT_NOTIFY)",
     [](Session& s, const Step& st) { return Ioctl(s, st, SK_PORT_NOTIFY, st.args[0]); }},
    {"notify-hex", 1, 1, false, "notify-hex HEX", "the same with bytes",
     [](Session& s, const Step& st) {
       return WithHex(s, st.args[0], [&](const std::string& b) { return Ioctl(s, st, SK_PORT_NOTIFY, b); });
     }},
    {"write-text", 1, 1, false, "write-text TEXT", "write TEXT (its UTF-8 bytes)",
     [](Session& s, const Step& st) { return Write(s, st, st.args[0]); }},
    {"write-hex", 1, 1, false, "write-hex HEX", "write bytes given in hex",
     [](Session& s, const Step& st) {
       return WithHex(s, st.args[0], [&](const std::string& b) { return Write(s, st, b); });
     }},
    {"write-file", 1, 1, false, "write-file PATH", "write a file's bytes",
     [](Session& s, const Step& st) {
       std::string data;
       return TextArgument(s, "@" + st.args[0], &data) && Write(s, st, data);
     }},
    {"ioctl", 1, 2, false, "ioctl CODE [HEX]", "send a control (a number or a name such as SK_PORT_LOCK) with input bytes; prints the output",
     [](Session& s, const Step& st) {
       return WithCode(s, st.args[0], [&](uint32_t code) {
         return WithHex(s, st.args.size() > 1 ? st.args[1] : "", [&](const std::string& input) {
           std::string output;
           const bool ok = Ioctl(s, st, code, input, &output);
           s.Lines(HexDump(output));
           return ok;
         });
       });
     }},
    {"register", 1, 1, false, "register EVENT", "receive an event (a number or a name); events print as they come",
     [](Session& s, const Step& st) {
       return WithCode(s, st.args[0], [&](uint32_t e) { return s.Report(Label(st), s.client().RegisterCallback(e)); });
     }},
    {"unregister", 1, 1, false, "unregister EVENT", "stop receiving an event",
     [](Session& s, const Step& st) {
       return WithCode(s, st.args[0], [&](uint32_t e) { return s.Report(Label(st), s.client().UnregisterCallback(e)); });
     }},
    {"watch", 1, 1, true, "watch EVENT[,EVENT...] [--for D]", "register the events and print them for D (default 5s)", Watch},
    {"wait", 1, 1, false, "wait D", "pause for D, printing the events that come (\"500ms\", \"2s\", \"1m\")",
     [](Session& s, const Step& st) {
       uint32_t ms = 0;
       if (!ParseDuration(st.args[0], &ms)) {
         s.Error("not a duration: " + st.args[0]);
         return false;
       }
       return Wait(s, ms);
     }},
    {"ports", 0, 1, false, "ports [PATH]", "configuration port: list the configured ports (under PATH)",
     [](Session& s, const Step& st) {
       std::string output;
       const bool ok = Ioctl(s, st, SK_CONFIG_ENUM_PORTS, PathInput(st), &output);
       std::vector<std::string> lines;
       for (const std::string& name : Utf16List(output)) lines.push_back("  " + name);
       s.Lines(lines);
       return ok;
     }},
    {"add", 2, -1, false, "add TYPE NAME [ID=VALUE|ID=#NUMBER]...", "configuration port: add a port of TYPE named NAME with these settings; prints its path (changes need the lock)",
     [](Session& s, const Step& st) {
       std::string text;
       const std::vector<std::string> rest(st.args.begin() + 2, st.args.end());
       return PropertyText(s, {{"PortType", st.args[0]}, {"PortName", st.args[1]}}, rest, &text) &&
              TextRequest(s, st, SK_CONFIG_ADD_PORT, Utf8ToUtf16(text, true));
     }},
    {"add-xml", 1, 1, false, "add-xml TEXT|@FILE", "configuration port: add a port from a property text",
     [](Session& s, const Step& st) {
       std::string text;
       return TextArgument(s, st.args[0], &text) && TextRequest(s, st, SK_CONFIG_ADD_PORT, Utf8ToUtf16(text, true));
     }},
    {"delete", 1, 1, false, "delete PORT", "configuration port: delete a configured port",
     [](Session& s, const Step& st) { return Ioctl(s, st, SK_CONFIG_DELETE_PORT, Utf8ToUtf16(st.args[0], true)); }},
    {"set", 2, -1, false, "set PORT ID=VALUE|ID=#NUMBER...", "configuration port: change settings of a configured port",
     [](Session& s, const Step& st) {
       std::string text;
       const std::vector<std::string> rest(st.args.begin() + 1, st.args.end());
       return PropertyText(s, {{"ConfigurationPath", st.args[0]}}, rest, &text) &&
              Ioctl(s, st, SK_CONFIG_SET, Utf8ToUtf16(text, true));
     }},
    {"set-xml", 1, 1, false, "set-xml TEXT|@FILE", "configuration port: change settings from a property text naming its ConfigurationPath",
     [](Session& s, const Step& st) {
       std::string text;
       return TextArgument(s, st.args[0], &text) && Ioctl(s, st, SK_CONFIG_SET, Utf8ToUtf16(text, true));
     }},
    {"get", 1, 1, false, "get PATH", "configuration port: the stored properties under PATH",
     [](Session& s, const Step& st) { return TextRequest(s, st, SK_CONFIG_GET, Utf8ToUtf16(st.args[0], true)); }},
    {"settings", 0, 1, false, "settings [PATH]", "configuration port: the settings document of PATH (none: the service's own schema)",
     [](Session& s, const Step& st) { return TextRequest(s, st, SK_CONFIG_GET_SETTINGS, PathInput(st)); }},
    {"settings-all", 0, 1, false, "settings-all [PATH]", "configuration port: the settings documents of every component",
     [](Session& s, const Step& st) { return TextRequest(s, st, SK_CONFIG_GET_SETTINGS_ALL, PathInput(st)); }},
    {"apply", 0, 0, false, "apply", "configuration port: make the servers take changed settings up",
     [](Session& s, const Step& st) { return Ioctl(s, st, SK_CONFIG_APPLY, std::string()); }},
    {"get-string", 1, 1, false, "get-string NAME", "a string property of the open port",
     [](Session& s, const Step& st) { return GetProperty(s, st, SK_CONFIG_GET_STRING_PROPERTY); }},
    {"get-number", 1, 1, false, "get-number NAME", "a number property of the open port",
     [](Session& s, const Step& st) { return GetProperty(s, st, SK_CONFIG_GET_NUMBER_PROPERTY); }},
    {"get-data", 1, 1, false, "get-data NAME", "a data property of the open port",
     [](Session& s, const Step& st) { return GetProperty(s, st, SK_CONFIG_GET_DATA_PROPERTY); }},
    {"set-string", 2, 2, false, "set-string NAME VALUE", "set a string property of the open port",
     [](Session& s, const Step& st) {
       return SetProperty(s, st, SK_CONFIG_SET_STRING_PROPERTY, Utf8ToUtf16(st.args[1], true));
     }},
    {"set-number", 2, 2, false, "set-number NAME VALUE", "set a number property of the open port",
     [](Session& s, const Step& st) {
       uint32_t n = 0;
       if (!ParseNumber(st.args[1], &n)) {
         s.Error("not a number: " + st.args[1]);
         return false;
       }
       return SetProperty(s, st, SK_CONFIG_SET_NUMBER_PROPERTY, skein::Dword(n));
     }},
    {"set-data", 2, 2, false, "set-data NAME HEX", "set a data property of the open port",
     [](Session& s, const Step& st) {
       return WithHex(s, st.args[1], [&](const std::string& b) { return SetProperty(s, st, SK_CONFIG_SET_DATA_PROPERTY, b); });
     }},
    {"setting", 1, 2, false, "setting NAME [VALUE]", "a setting of the service itself (TCP_PING_INTERVAL...): shows it, or sets it (a number when VALUE is one) and the servers take it up at once",
     Setting},
    {nullptr, 0, 0, false, nullptr, nullptr, nullptr},
};

}  // namespace

const StepKind* StepKinds() { return kSteps; }

const StepKind* FindStep(const std::string& name) {
  for (const StepKind* kind = kSteps; kind->name != nullptr; ++kind) {
    if (name == kind->name) return kind;
  }
  return nullptr;
}

}  // namespace orlendactl
