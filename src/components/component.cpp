#include "components/component.h"

#include <cstddef>
#include <limits>
#include <type_traits>

#include "logging/log.h"
#include "platform/errors.h"
#include "platform/paths.h"

namespace orlenda {

// Blobs cross the module boundary as they are: the host's Blob and the contract's SkBlob must be
// the same bytes, and the reference count the same atomic 64-bit word.
static_assert(sizeof(Blob) == sizeof(SkBlob), "Blob and SkBlob differ in size");
static_assert(alignof(Blob) == alignof(SkBlob), "Blob and SkBlob differ in alignment");
static_assert(std::is_standard_layout<Blob>::value && std::is_standard_layout<SkBlob>::value,
              "blob headers must be plain layouts");
static_assert(offsetof(Blob, references) == offsetof(SkBlob, references), "reference count moved");
static_assert(offsetof(Blob, size) == offsetof(SkBlob, size), "byte count moved");
static_assert(sizeof(std::atomic<uint64_t>) == sizeof(int64_t) &&
                  std::atomic<uint64_t>::is_always_lock_free,
              "the reference count must be a plain lock-free 64-bit word on both sides");
static_assert(sizeof(char16_t) == sizeof(uint16_t), "SkString units are UTF-16 code units");

namespace {

// Holds one extra reference on a blob for the length of a call, so a module that drops the
// reference it was handed before it is done cannot free the block under its caller.
class CallReference {
 public:
  explicit CallReference(Blob* blob) : blob_(blob) { BlobAddRef(blob_); }
  ~CallReference() { BlobRelease(blob_); }
  CallReference(const CallReference&) = delete;
  CallReference& operator=(const CallReference&) = delete;

 private:
  Blob* blob_;
};

}  // namespace

CComponent::CComponent(const WString& file_name, const SkHostTable* host) {
  if (module_.Load(file_name.c_str()) != platform::kErrorSuccess) return;  // no version line
  auto initialize = reinterpret_cast<SkInitializeFn>(module_.Symbol(SKEIN_INITIALIZE_NAME));
  if (initialize == nullptr || initialize(host, &table_) == 0) {
    // A refusing module may have filled entries before it said no; they point into code that is
    // about to go away.
    table_ = SkComponentTable{};
    module_.Release();
  }
  ReportModuleVersion(file_name.c_str());
}

CComponent::CComponent(const SkComponentTable* table) {
  if (table != nullptr) table_ = *table;
}

CComponent::~CComponent() { Unload(); }

bool CComponent::IsLoaded() const { return module_.loaded(); }

void CComponent::Unload() {
  if (module_.loaded()) {
    auto unload = reinterpret_cast<SkUnloadFn>(module_.Symbol(SKEIN_UNLOAD_NAME));
    if (unload != nullptr) unload();
    module_.Release();
  }
  table_ = SkComponentTable{};
}

void CComponent::CopyDownward(SkComponentTable* table) const {
  table->Open = table_.Open;
  table->Close = table_.Close;
  table->Write = table_.Write;
  table->Ioctl = table_.Ioctl;
}

void CComponent::CopyUpward(SkComponentTable* table) const { table->Event = table_.Event; }

uint32_t CComponent::Open(uint32_t port, WStringView path, const SkComponentTable* layers) {
  if (table_.Open == nullptr) return SKR_INVALID_PARAMETER;
  SkString* text = ToSkString(path);  // the component frees it
  if (text == nullptr) return SKR_OUT_OF_MEMORY;
  return table_.Open(port, text, layers);
}

uint32_t CComponent::Close(uint32_t port) {
  if (table_.Close == nullptr) return SKR_INVALID_PARAMETER;
  return table_.Close(port);
}

uint32_t CComponent::Write(uint32_t port, Blob* data, uint32_t* written) {
  uint32_t ignored = 0;
  if (written == nullptr) written = &ignored;
  *written = 0;
  if (table_.Write == nullptr) {
    BlobRelease(data);
    return SKR_INVALID_PARAMETER;
  }
  CallReference hold(data);
  return table_.Write(port, ToSkBlob(data), written);
}

uint32_t CComponent::Ioctl(uint32_t port, uint32_t code, Blob* input, Blob** output) {
  SkBlob* result = nullptr;
  if (output != nullptr) *output = nullptr;
  if (table_.Ioctl == nullptr) {
    BlobRelease(input);
    return SKR_INVALID_PARAMETER;
  }
  uint32_t status;
  {
    CallReference hold(input);
    status = table_.Ioctl(port, code, ToSkBlob(input), &result);
  }
  // A caller that wants no output still must not leak the one the component made.
  if (output != nullptr) {
    *output = FromSkBlob(result);
  } else {
    BlobRelease(FromSkBlob(result));
  }
  return status;
}

void CComponent::Event(uint32_t port, uint32_t event, Blob* data) {
  if (table_.Event == nullptr) {
    // Nobody listens: the event goes nowhere, but the reference it carried is still ours to drop.
    BlobRelease(data);
    return;
  }
  CallReference hold(data);
  table_.Event(port, event, ToSkBlob(data));
}

void ReportModuleVersion(const char16_t* file_name) {
  char16_t own_path[260];
  if (file_name == nullptr) {
    platform::ExecutablePath(own_path, sizeof(own_path) / sizeof(own_path[0]));
    file_name = own_path;
  }
  // The trace names the file only, not the folder it was found in.
  const char16_t separator = platform::PathSeparator();
  const char16_t* name = file_name;
  for (const char16_t* p = file_name; *p != 0; ++p) {
    if (*p == separator) name = p + 1;
  }

  const platform::FileVersion version = platform::ReadFileVersion(file_name);
  switch (version.status) {
    case platform::VersionStatus::kNoVersionInfo:
      Log(3, u"%-22s: no version info", name);
      break;
    case platform::VersionStatus::kNoVersionValue:
      Log(3, u"%-22s: no version value", name);
      break;
    case platform::VersionStatus::kFound:
      Log(4, u"%-22s: %d.%d.%d.%d", name, version.parts[0], version.parts[1], version.parts[2],
          version.parts[3]);
      break;
  }
}

SkString* ToSkString(WStringView text) {
  if (text.size() >= std::numeric_limits<uint32_t>::max()) return nullptr;
  return SkStringCreate(reinterpret_cast<const uint16_t*>(text.data()),
                        static_cast<uint32_t>(text.size()));
}

WString FromSkString(const SkString* text) {
  if (text == nullptr) return WString();
  return WString(reinterpret_cast<const char16_t*>(text->text), text->length);
}

}  // namespace orlenda
