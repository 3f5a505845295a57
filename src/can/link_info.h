#pragma once
// Live link state of the CAN interfaces, as the gateway driver reports it.

struct ConfigModel;

// Queries the driver for CAN interface `index` (0 or 1) and copies its live state (up, modes,
// controller state, real bit rate, sample point and bit timing) into the record. -1 when the
// driver's node cannot be opened; a refused query is reported on stderr, leaves the record as
// it was and still returns 0.
int refreshCanInformation(unsigned index, ConfigModel& model);
