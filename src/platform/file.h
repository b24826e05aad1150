// Plain files, for the settings store: whole-file reads, and writes that must survive a power cut
// (write a temporary file, flush it to disk, then replace the old one in one step).
//
// Every call returns 0 or a system error from errors.h. Paths are terminated UTF-16; on POSIX they
// are converted to UTF-8 file names.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

// One open file. Movable, closes on destruction (a failure to close is then lost: call Close to
// see it, as a writer must).
class File {
 public:
  File() = default;
  ~File() { Close(); }
  File(File&& other) noexcept : handle_(other.handle_) { other.handle_ = kClosed; }
  File& operator=(File&& other) noexcept {
    if (this != &other) {
      Close();
      handle_ = other.handle_;
      other.handle_ = kClosed;
    }
    return *this;
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool is_open() const { return handle_ != kClosed; }

  // Opens an existing file for reading; others may read it meanwhile. kErrorFileNotFound when it
  // does not exist.
  uint32_t OpenForReading(const char16_t* path);
  // Creates the file for writing, or empties it when it exists.
  uint32_t CreateForWriting(const char16_t* path);

  uint32_t Size(uint64_t* size);
  // Reads up to `size` bytes from the current position; *got == 0 at the end of the file.
  uint32_t Read(void* buffer, std::size_t size, std::size_t* got);
  // Writes all of `data` (repeating short writes).
  uint32_t Write(const void* data, std::size_t size);
  // Makes what was written durable: FlushFileBuffers / fsync.
  uint32_t FlushToDisk();
  // Closes the file; returns the error of the close itself (0 when it was not open).
  uint32_t Close();

 private:
  static constexpr intptr_t kClosed = -1;
  intptr_t handle_ = kClosed;
};

// Moves `source` to `target` in one step, replacing `target` when it exists, and makes the move
// durable before returning (Windows: write-through; POSIX: the folder is synced after the rename).
// Both must be in the same folder (or at least on the same volume).
uint32_t ReplaceFileWith(const char16_t* source, const char16_t* target);

// Deletes a file. kErrorFileNotFound when there is none.
uint32_t RemoveFile(const char16_t* path);

// Creates one folder (not its ancestors). Returns kErrorAlreadyExists when something of that name
// is there already, which callers that only need the folder treat as success.
uint32_t CreateFolder(const char16_t* path);

// Removes a folder that is empty; fails (and leaves it) when it is not.
uint32_t RemoveEmptyFolder(const char16_t* path);
// Whether only the system's trusted accounts may change `path` (a file or folder that exists):
// Windows: its owner is SYSTEM, the Administrators or the account this process runs as, and its
// DACL (there must be one) lets no other account write, append, delete or change permissions or
// owner; POSIX: its owner is root or this process's user, and neither group nor others may write it.
// kErrorSuccess with *trusted set either way; an error when it cannot be read.
uint32_t OnlyTrustedMayChange(const char16_t* path, bool* trusted);
// Sets the permissions of the service's data folder: Windows a protected DACL, SYSTEM and the
// Administrators full control, Users read (inherited by what it holds); POSIX mode 0755 (the
// folder must be this process's user's). 0 or the error.
uint32_t RestrictFolder(const char16_t* path);
// Whether a file or folder of that name exists.
bool PathExists(const char16_t* path);

// The system's description of `error` (FormatMessageW on Windows, strerror on POSIX), without a
// trailing line break, written terminated to `buffer`. Returns its length in UTF-16 units; the
// text is cut to fit. An error the system has no text for gives "Error <number>".
std::size_t ErrorDescription(uint32_t error, char16_t* buffer, std::size_t capacity);

}  // namespace orlenda::platform
