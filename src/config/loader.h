#pragma once
// Loading the configuration file into the model.

#include <iniparser.h>

struct ConfigModel;

// Reads the file's format version from its header. 0 when it is the current version or older,
// -1 when it is newer, unreadable or missing; the numbers found are stored either way.
int checkHeader(const char* path, int& major, int& minor, int& patch);

// What a load does beside filling the model. The start-up's load (and the legacy reload) sets
// the host name and starts the gateway driver; a reset only reads, giving the routes their
// nodes and the driver's defaults as the driver start would, and brings the system in line
// itself.
enum class LoadEffects { Apply, None };

// Fills the model from the configuration file; whatever is missing or malformed takes its
// default, so the load never fails. 0.
int loadConfiguration(ConfigModel& model, LoadEffects effects = LoadEffects::Apply);

// The configuration file at a placed path, parsed by the library; nullptr when it cannot be.
// Only a regular file counts: the library reads a directory as an empty file.
dictionary* parseConfigFile(const char* placedPath);
