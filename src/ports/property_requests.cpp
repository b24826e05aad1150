// The typed property requests. Inputs: a get holds the property name as UTF-16 with its NUL; a
// set holds the name with its NUL followed at once by the value (a string's UTF-16 units, its NUL
// optional; a number's 4 bytes; a data value's bytes).
#include "ports/property_requests.h"

#include <cstring>

#include "components/configuration.h"
#include "logging/log.h"
#include "ports/configuration_requests.h"
#include "settings/property_path.h"
#include "skein/protocol.h"

namespace orlenda {
namespace {

// The property name at the start of `input` and where its value begins (after the name's NUL).
// False when the input holds no NUL unit: then there is no name and its terminator.
bool SplitNameAndValue(const BlobRef& input, WString* name, std::size_t* value_offset) {
  const std::size_t units = static_cast<std::size_t>(input.size() / 2);
  const uint8_t* bytes = input.data();
  for (std::size_t i = 0; i < units; ++i) {
    char16_t unit;
    std::memcpy(&unit, bytes + 2 * i, sizeof unit);
    if (unit == u'\0') {
      name->assign(i, u'\0');
      if (i != 0) std::memcpy(&(*name)[0], bytes, i * sizeof(char16_t));
      *value_offset = 2 * (i + 1);
      return true;
    }
  }
  return false;
}

uint32_t ServeGet(WStringView port_name, uint32_t code, const BlobRef& input, BlobRef* output) {
  if (input.size() < sizeof(char16_t)) return SKR_INVALID_SIZE;  // not even one unit of a name
  // A get's name may come without its NUL: the text of the whole input is the name then.
  const WString name = BlobText(input);
  if (name.empty()) return SKR_INVALID_PARAMETER;  // the key would name the port itself
  if (output == nullptr) return SKR_INVALID_SIZE;
  const WString key = JoinPropertyPath(port_name, View(name));

  Blob* value = nullptr;
  bool found = false;
  if (code == SK_CONFIG_GET_STRING_PROPERTY) {
    WString text;
    found = CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.GetString(View(key), &text); });
    if (found) value = TextBlob(View(text));
  } else if (code == SK_CONFIG_GET_NUMBER_PROPERTY) {
    uint32_t number = 0;
    found = CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.GetNumber(View(key), &number); });
    if (found) value = DwordBlobCreate(number);
  } else {
    BlobRef data;
    found = CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.GetBinary(View(key), &data); });
    // A value of no bytes reads back as no buffer: the answer is an empty blob.
    if (found) value = data ? data.Release() : BlobCreate(0);
  }
  if (!found) return SKR_FAILED;
  if (value == nullptr) return SKR_OUT_OF_MEMORY;
  *output = BlobRef::Adopt(value);
  return SKR_SUCCESS;
}

uint32_t ServeSet(WStringView port_name, uint32_t code, const BlobRef& input, bool* changed) {
  if (input.size() == 0) return SKR_INVALID_SIZE;
  WString name;
  std::size_t offset = 0;
  if (!SplitNameAndValue(input, &name, &offset)) return SKR_INVALID_SIZE;
  if (name.empty()) return SKR_INVALID_PARAMETER;
  const uint8_t* value = input.data() + offset;
  const std::size_t size = static_cast<std::size_t>(input.size()) - offset;
  const WString key = JoinPropertyPath(port_name, View(name));

  if (code == SK_CONFIG_SET_STRING_PROPERTY) {
    // A string is whole UTF-16 units; its NUL, and anything after it, is not part of the value.
    if (size % 2 != 0) return SKR_INVALID_SIZE;
    WString text(size / 2, u'\0');
    if (size != 0) std::memcpy(&text[0], value, size);
    const std::size_t end = text.find(u'\0');
    if (end != WString::npos) text.resize(end);
    if (!CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.SetString(View(key), text); })) {
      return SKR_FAILED;
    }
    *changed = true;
    Log(4, u"-- Ioctl(%s, SK_CONFIG_SET_STRING_PROPERTY, %s, %s)", port_name, name, text);
    return SKR_SUCCESS;
  }
  if (code == SK_CONFIG_SET_NUMBER_PROPERTY) {
    if (size != 4) return SKR_INVALID_SIZE;
    const uint32_t number = static_cast<uint32_t>(value[0]) | static_cast<uint32_t>(value[1]) << 8 |
                            static_cast<uint32_t>(value[2]) << 16 | static_cast<uint32_t>(value[3]) << 24;
    if (!CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.SetNumber(View(key), number); })) {
      return SKR_FAILED;
    }
    *changed = true;
    Log(4, u"-- Ioctl(%s, SK_CONFIG_SET_NUMBER_PROPERTY, %s, %d)", port_name, name, number);
    return SKR_SUCCESS;
  }
  const BlobRef data = BlobRef::Adopt(BlobCopy(value, size));
  if (!data) return SKR_OUT_OF_MEMORY;
  if (!CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.SetBinary(View(key), data.get()); })) {
    return SKR_FAILED;
  }
  *changed = true;
  LogDataFormat(4, value, static_cast<uint32_t>(size), u"-- Ioctl(%s, SK_CONFIG_SET_DATA_PROPERTY, %s)", port_name,
                name);
  return SKR_SUCCESS;
}

}  // namespace

bool IsPropertyRequest(uint32_t code) {
  return (code >= SK_CONFIG_GET_DATA_PROPERTY && code <= SK_CONFIG_GET_STRING_PROPERTY) ||
         (code >= SK_CONFIG_SET_DATA_PROPERTY && code <= SK_CONFIG_SET_STRING_PROPERTY);
}

uint32_t ServePropertyRequest(WStringView port_name, uint32_t code, const BlobRef& input, BlobRef* output,
                              bool* changed) {
  bool ignored = false;
  if (changed == nullptr) changed = &ignored;
  *changed = false;
  if (code >= SK_CONFIG_GET_DATA_PROPERTY && code <= SK_CONFIG_GET_STRING_PROPERTY) {
    return ServeGet(port_name, code, input, output);
  }
  if (code >= SK_CONFIG_SET_DATA_PROPERTY && code <= SK_CONFIG_SET_STRING_PROPERTY) {
    return ServeSet(port_name, code, input, changed);
  }
  return SKR_INVALID_PARAMETER;
}

}  // namespace orlenda
