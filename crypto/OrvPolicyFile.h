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
    static bool write(const char* path, const void* data, size_t size);

    static constexpr size_t kMaxPlainSize = 16u << 20;
    // The reason given when the path cannot be opened at all (a missing file, say).
    static const char kCannotOpen[];
};
