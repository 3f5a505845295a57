#pragma once
// The WLAN group: a wireless interface that works as a station (wpa_supplicant) or as a micro
// AP (uaputl). Its apply writes the service's configuration file, an address file and the
// platform file, restarts the matching init script, and asks for a reboot when the interface
// changes between station and AP.

#include "model/handler.h"

int readWlan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int storeWlanInformation(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
// The apply handler: index 0 is the group as a whole, index k the interface k.
int setWlanConfig(unsigned index, ConfigModel& model, AnswerMessage& answer);

// Start-up, once the platform file is read: the interface takes its mode from the file, and the
// base name and supported modes that go with it.
void startWlanInterfaces(ConfigModel& model);

// The WLAN driver's init script: 0 start, 1 stop, 2 restart; -1 for any other command. Nothing
// in the daemon calls it; it completes the WLAN controls for the device's tools.
int wlanDriverControl(int command);
