#pragma once
// Loading the configuration file into the model.

#include <iniparser.h>

struct ConfigModel;

// Reads the file's format version from its header. 0 when it is the current version or older,
// -1 when it is newer, unreadable or missing; the numbers found are stored either way.
int checkHeader(const char* path, int& major, int& minor, int& patch);

// Fills the model from the configuration file; whatever is missing or malformed takes its
// default, so the load never fails. 0.
int loadConfiguration(ConfigModel& model);

// The configuration file at a placed path, parsed by the library; nullptr when it cannot be.
// Only a regular file counts: the library reads a directory as an empty file.
dictionary* parseConfigFile(const char* placedPath);
