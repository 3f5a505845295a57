#pragma once
// The check line that the hardened store writes first into the configuration file: the length
// and CRC-32 of everything after it. The device loses power whenever its ignition goes, also in
// the middle of a store, and a file whose data never reached the flash whole must not be taken
// for a configuration: the start-up checks the line and puts the backup back instead.

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace stored {

enum class Check { Passes, NoCheckLine, Fails };

std::uint32_t crc32(const void* data, std::size_t size, std::uint32_t crc = 0);

// Writes the check line of `size` bytes of `text`, then the text; false when a write failed.
[[nodiscard]] bool writeChecked(std::FILE* stream, const char* text, std::size_t size);

// A file that starts with (a part of) the check line must be whole; one without (written by a
// person or by a legacy build) is as good as its contents. A missing file fails.
Check checkFile(const char* path);

}  // namespace stored
