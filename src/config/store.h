#pragma once
// Storing the changed groups back into the configuration file: the parsed file is edited in
// memory and then replaces the file on disk as a whole, through a temporary file and a backup.

#include <cstddef>

struct ConfigModel;
struct AnswerMessage;

inline constexpr const char* kTemporaryConfigPath = "/tmp/kiv_config.tmp";
inline constexpr const char* kBackupConfigPath = "/mnt/user/kiv_config.old";

// The key number of an error text that concerns a whole section (the 32-bit form of -1).
inline constexpr unsigned kSectionErrorKey = 4294967295u;

// "ERROR@(group,index,key): ..." for a key or, with kSectionErrorKey, for a section that could
// not be set. The length written, as snprintf gives it.
int formatIniError(char* buffer, std::size_t size, unsigned group, unsigned index, unsigned key);

// Stores the groups and records marked changed (every one after a file of an older format was
// loaded). 0, or -1 with the error text in the answer's data; a file that cannot be parsed
// gives -1 without text. A failed key does not stop the file from being written.
[[nodiscard]] int storeConfiguration(ConfigModel& model, AnswerMessage& answer);

// Start-up: a store cut short between moving the configuration file to the backup and moving
// the new file into place leaves no configuration file, or an empty one, while the backup holds
// the last stored configuration. The backup is then put back, before the start-up would create
// an empty file there and come up on the defaults. 1 when it was put back, 0 when there was
// nothing to put back, -1 when putting it back failed.
int restoreInterruptedStore();
