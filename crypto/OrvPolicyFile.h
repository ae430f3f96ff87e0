#pragma once
#include <stddef.h>

#include <string>

// Reads policy files (plain, protected, or the decrypted intermediate) without trusting what the
// path names: a FIFO, a device, a directory or an endless file must neither block nor exhaust
// memory. Plain reads only, every result checked.
class OrvPolicyFile {
  public:
    // Fills `out` with the whole content of the regular file `path`, at most `cap` bytes. On
    // failure returns false and sets `reason` to a short text for the caller's log line.
    static bool read(const char* path, size_t cap, std::string& out, const char*& reason);

    // Replaces the content of `path` with `size` bytes; never blocks on a FIFO without reader.
    // A file created here gets `mode` (less the umask).
    static bool write(const char* path, const void* data, size_t size, int mode = 0666);

    // Puts `size` bytes at `path` so that a crash or power cut at any moment leaves either the
    // old file or the new one, complete: a temporary file beside it is written, flushed to
    // storage, renamed into place and the directory flushed. False with errno set on failure,
    // `path` then untouched and no temporary file left.
    static bool store(const char* path, const void* data, size_t size);
    // The temporary file store() writes beside `path`.
    static std::string storeTemp(const char* path) { return std::string(path) + ".new"; }

    static constexpr size_t kMaxPlainSize = 16u << 20;
    // The reason given when the path cannot be opened at all (a missing file, say).
    static const char kCannotOpen[];
};
