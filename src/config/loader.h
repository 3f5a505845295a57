#pragma once
struct ConfigModel;

// Loads the configuration file into the model; whatever is missing takes its default. 0.
int loadConfiguration(ConfigModel& model);
