// The host service table: what every component module may ask of the service.
//
// Entries 0-7 work on the properties store only. Each holds the configuration lock for its one
// store call; the module's strings are converted before and the results after, outside the lock.
// Arguments handed in belong to the entry (strings freed, the blob's reference released) on every
// path, failures included; what an entry hands back belongs to the module.
#include <cstddef>

#include "common/blob.h"
#include "components/component.h"
#include "components/configuration.h"
#include "platform/heap.h"
#include "ports/sk_connection.h"
#include "skein/protocol.h"

namespace orlenda {
namespace {

// What the port enumeration sends a port after taking its lock: the value (the add-port request
// of a port's serving component), then that request's output.
constexpr uint32_t kEnumerateAddPort = 0x60070003u;
constexpr uint32_t kEnumerateFollowUp = 0x50070012u;

// Takes over a string handed in: its text, and the block freed.
WString Take(SkString* text) {
  if (text == nullptr) return WString();
  WString value = FromSkString(text);
  SkStringFree(text);
  return value;
}

// A module's list of names: one block of pointers, each name a block of its own. Null when memory
// is short (nothing is left allocated then).
SkStringList* MakeList(const HeapVector<WString>& names) {
  const std::size_t slots = names.empty() ? 1 : names.size();
  auto* list = static_cast<SkStringList*>(
      platform::HeapAllocZero(offsetof(SkStringList, items) + slots * sizeof(SkString*)));
  if (list == nullptr) return nullptr;
  for (const WString& name : names) {
    SkString* item = ToSkString(View(name));
    if (item == nullptr) {
      SkStringListFree(list);
      return nullptr;
    }
    list->items[list->count++] = item;
  }
  return list;
}

int32_t SKEIN_CALL EnumerateGroups(SkString* path, SkStringList** names) {
  const WString where = Take(path);
  if (names == nullptr) return 0;
  *names = nullptr;
  HeapVector<WString> found;
  if (!CConfiguration::WithProperties(
          [&](CPropertyHandler& store) { return store.EnumerateGroups(View(where), &found); })) {
    return 0;
  }
  *names = MakeList(found);
  return *names != nullptr;
}

int32_t SKEIN_CALL GetBinary(SkString* path, SkBlob** value) {
  const WString where = Take(path);
  if (value == nullptr) return 0;
  *value = nullptr;
  BlobRef found;
  if (!CConfiguration::WithProperties(
          [&](CPropertyHandler& store) { return store.GetBinary(View(where), &found); })) {
    return 0;
  }
  // A value of no bytes is found but hands back no blob.
  *value = ToSkBlob(found.Release());
  return 1;
}

int32_t SKEIN_CALL GetNumber(SkString* path, uint32_t* value) {
  const WString where = Take(path);
  if (value == nullptr) return 0;
  return CConfiguration::WithProperties(
      [&](CPropertyHandler& store) { return store.GetNumber(View(where), value); });
}

int32_t SKEIN_CALL GetString(SkString* path, SkString** value) {
  const WString where = Take(path);
  if (value == nullptr) return 0;
  *value = nullptr;
  WString found;
  if (!CConfiguration::WithProperties(
          [&](CPropertyHandler& store) { return store.GetString(View(where), &found); })) {
    return 0;
  }
  *value = ToSkString(View(found));
  return *value != nullptr;
}

int32_t SKEIN_CALL Delete(SkString* path) {
  const WString where = Take(path);
  return CConfiguration::WithProperties(
      [&](CPropertyHandler& store) { return store.Delete(View(where)); });
}

int32_t SKEIN_CALL SetBinary(SkString* path, SkBlob* value) {
  const WString where = Take(path);
  // The reference handed in keeps the blob alive for the call and is dropped when it ends.
  const BlobRef held = BlobRef::Adopt(FromSkBlob(value));
  return CConfiguration::WithProperties(
      [&](CPropertyHandler& store) { return store.SetBinary(View(where), held.get()); });
}

int32_t SKEIN_CALL SetNumber(SkString* path, uint32_t value) {
  const WString where = Take(path);
  return CConfiguration::WithProperties(
      [&](CPropertyHandler& store) { return store.SetNumber(View(where), value); });
}

int32_t SKEIN_CALL SetString(SkString* path, SkString* value) {
  const WString where = Take(path);
  const WString text = Take(value);
  return CConfiguration::WithProperties(
      [&](CPropertyHandler& store) { return store.SetString(View(where), text); });
}

// Asks the service to enumerate the port `path` with `value`: 0 when port enumeration is switched
// off ("/EnumeratePort" missing or 0), 1 for an empty value. A value goes to the port itself, on
// an internal client connection: the port's lock is taken, 0x60070003 carries the value's text
// (UTF-16 with its NUL), 0x50070012 then carries that request's output, and the port is closed
// again (which gives up the lock). 1 when the open, the lock and 0x60070003 succeeded; what the
// port answers to 0x50070012 is not looked at.
uint32_t SKEIN_CALL EnumeratePort(SkString* path, SkString* value) {
  WString port_path = Take(path);
  const WString text = Take(value);
  uint32_t enabled = 0;
  if (!CConfiguration::WithProperties(
          [&](CPropertyHandler& store) { return store.GetNumber(u"/EnumeratePort", &enabled); }) ||
      enabled == 0) {
    return 0;
  }
  if (text.empty()) return 1;

  const HeapUnique<LocalConnection> connection(HeapNew<LocalConnection>());
  if (!connection) return 0;
  if (connection->Open(&port_path) != SKR_SUCCESS) return 0;
  uint32_t result = 0;
  const BlobRef lock = BlobRef::Adopt(DwordBlobCreate(1));
  BlobRef ignored;
  if (lock && connection->Ioctl(SK_PORT_LOCK, lock, &ignored) == SKR_SUCCESS) {
    const BlobRef request = BlobRef::Adopt(BlobCopy(text.c_str(), (text.size() + 1) * sizeof(char16_t)));
    BlobRef answer;
    if (request && connection->Ioctl(kEnumerateAddPort, request, &answer) == SKR_SUCCESS) {
      BlobRef follow_up_answer;
      connection->Ioctl(kEnumerateFollowUp, answer, &follow_up_answer);
      result = 1;
    }
  }
  connection->Close();
  return result;
}

}  // namespace

void FillHostTable(SkHostTable* table) {
  table->EnumerateGroups = EnumerateGroups;
  table->GetBinary = GetBinary;
  table->GetNumber = GetNumber;
  table->GetString = GetString;
  table->Delete = Delete;
  table->SetBinary = SetBinary;
  table->SetNumber = SetNumber;
  table->SetString = SetString;
  table->EnumeratePort = EnumeratePort;
}

}  // namespace orlenda
