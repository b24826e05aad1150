// Loadable modules (DLLs, shared objects), their file versions, and the running executable's path.
//
// Module names are terminated UTF-16; on POSIX they are converted to UTF-8 file names. A name
// without a folder (a bare name) is resolved by ResolveModuleName, never by the system's search for
// libraries.
//
// File versions. Windows reads the file's version resource (VERSIONINFO, root value "\").
// POSIX has no version resource: a module (or the executable, if it exports dynamic symbols)
// carries its version as the exported data symbol `SkeinComponentVersion`, four uint16_t in the
// order major, minor, patch, build (cmake/Version.cmake generates it). The symbol counts only when
// the file itself defines it, not a library it depends on. Reading it maps the file with dlopen
// (lazily, and only for the look-up); a file that cannot be mapped or lacks the symbol has no
// version information, so POSIX never reports kNoVersionValue. Executables cannot be mapped a
// second time: of those, only the running one is read (through the process's own symbol table).
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

// One loaded module. Movable; releases the module on destruction.
class Module {
 public:
  Module() = default;
  ~Module() { Release(); }
  Module(Module&& other) noexcept : handle_(other.handle_) { other.handle_ = nullptr; }
  Module& operator=(Module&& other) noexcept {
    if (this != &other) {
      Release();
      handle_ = other.handle_;
      other.handle_ = nullptr;
    }
    return *this;
  }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  // LoadLibraryW / dlopen(RTLD_NOW | RTLD_LOCAL). Releases any module held before. Returns 0 or a
  // system error (POSIX: dlopen sets no errno, so every failure there is kErrorFileNotFound).
  uint32_t Load(const char16_t* file_name);
  // The address of an exported function or data symbol, or nullptr (also when nothing is loaded).
  void* Symbol(const char* name) const;
  // FreeLibrary / dlclose; nothing when nothing is loaded.
  void Release();
  bool loaded() const { return handle_ != nullptr; }

 private:
  void* handle_ = nullptr;
};

enum class VersionStatus {
  kNoVersionInfo,   // no version information, or no memory to read it
  kNoVersionValue,  // information present, but its root value could not be queried
  kFound,
};

struct FileVersion {
  VersionStatus status = VersionStatus::kNoVersionInfo;
  // Most significant first: high and low word of the version's first half, then of its second.
  uint16_t parts[4] = {0, 0, 0, 0};
};

// The file version of the module file `file_name` (a full path, or a name the loader finds).
FileVersion ReadFileVersion(const char16_t* file_name);

// Whether the module of `file_name` is mapped in this process now (GetModuleHandleW / dlopen with
// RTLD_NOLOAD); takes no reference.
bool IsModuleResident(const char16_t* file_name);

// The file a module name stands for, terminated, in `out`; returns its length in UTF-16 units, or
// 0 when it does not fit or the executable's folder is unknown. A name with a folder in it is taken
// as it is. A bare name is never looked for in the current folder or along the system's search
// path (PATH, the dynamic loader's path), where anyone may put a file of that name for a service
// running as the system to load: it names the file beside the running executable, with the
// platform's module extension (".dll", ".so") added when the name has none; on Windows, when no
// such file is there, the file of that name in the system folder.
std::size_t ResolveModuleName(const char16_t* name, char16_t* out, std::size_t capacity);

// The platform's module file extension, with its dot; and the system folder where bare module
// names are looked for second (empty on POSIX). For ResolveModuleName.
const char16_t* ModuleExtension();
std::size_t SystemModuleFolder(char16_t* buffer, std::size_t capacity);

// The full path of the running executable, terminated, in `buffer`. Returns its length in UTF-16
// units, or 0 when it is unknown or does not fit. Windows asks GetModuleFileNameW with a buffer of
// 260 characters, so longer paths are unknown there.
std::size_t ExecutablePath(char16_t* buffer, std::size_t capacity);

}  // namespace orlenda::platform
