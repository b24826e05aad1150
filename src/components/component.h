// CComponent: the service's handle on one component module, or a wrapper around an operation table
// that holds no module (the port stacks use such wrappers for their top and bottom).
//
// Calls go through the module's operation table. An entry the module left empty answers
// SKR_INVALID_PARAMETER (Write and Ioctl release the blob they were handed first); an empty event
// sink does nothing but drop the reference its blob carried. For the duration of every call the component holds one extra reference on the
// blob it passes, so a module that releases the blob early cannot free it under the caller.
//
// Blob ownership follows the module contract (skein/component.h): a blob handed to Write, Ioctl or
// Event carries one reference that passes to the component.
#pragma once

#include <cstdint>

#include "common/blob.h"
#include "common/wide_string.h"
#include "platform/module.h"
#include "skein/component.h"

namespace orlenda {

class CComponent {
 public:
  // Loads `file_name`, calls its InitializeSkeinComponent with `host` and the object's own zeroed
  // table, and writes the version report for the file. A module without the export, or that
  // refuses, is released again: the object is then not loaded.
  CComponent(const WString& file_name, const SkHostTable* host);
  // A wrapper holding no module, with a copy of the five entries (all empty without a table).
  explicit CComponent(const SkComponentTable* table = nullptr);
  virtual ~CComponent();
  CComponent(const CComponent&) = delete;
  CComponent& operator=(const CComponent&) = delete;

  // True while a module is held.
  virtual bool IsLoaded() const;

  // UnloadSkeinComponent (when exported), release the library, empty all five entries. Calling
  // it again does nothing more; the destructor calls it for a component still loaded.
  void Unload();

  // Entries 0-3 into `table` (the downward operations).
  void CopyDownward(SkComponentTable* table) const;
  // Entry 4 into the event slot of `table` (the upward operation).
  void CopyUpward(SkComponentTable* table) const;

  uint32_t Open(uint32_t port, WStringView path, const SkComponentTable* layers);
  uint32_t Close(uint32_t port);
  // `data` carries one reference that passes to the component.
  uint32_t Write(uint32_t port, Blob* data, uint32_t* written);
  // `input` carries one reference that passes to the component; `*output` receives a blob the
  // caller then owns (or null).
  uint32_t Ioctl(uint32_t port, uint32_t code, Blob* input, Blob** output);
  // `data` carries one reference that passes to the component.
  void Event(uint32_t port, uint32_t event, Blob* data);

  const SkComponentTable& table() const { return table_; }

 private:
  platform::Module module_;
  SkComponentTable table_{};
};

// Writes one trace line about the file version of a module: "%-22s: %d.%d.%d.%d" at level 4, or
// "%-22s: no version info" / "%-22s: no version value" at level 3, with the file's bare name (after
// its last path separator: '\\' on Windows, '/' on POSIX; the extension stays). Without a file name
// it reports the running executable. Where versions come from on POSIX: platform/module.h.
void ReportModuleVersion(const char16_t* file_name);

// Strings across the module boundary: a new heap string the receiver frees (null when memory is
// short), and the text of one.
SkString* ToSkString(WStringView text);
WString FromSkString(const SkString* text);

// The host's blob and the module contract's blob are one layout.
inline SkBlob* ToSkBlob(Blob* blob) { return reinterpret_cast<SkBlob*>(blob); }
inline Blob* FromSkBlob(SkBlob* blob) { return reinterpret_cast<Blob*>(blob); }

}  // namespace orlenda
