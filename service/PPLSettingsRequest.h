#ifndef PPL_SETTINGS_REQUEST_H
#define PPL_SETTINGS_REQUEST_H

#include <string>

#include "PPL_Counter_Group.h"

// The settings request a LAPI camera is sent for a group's settings: the
// reset time read as "%d:%d:%d" (a part the text does not give is 0), and
// "Reset" carrying the clear-count flag, "TimeReset" the reset-enable flag.
// Shared by the service and by pplctl's configuration check.
std::string PPL_Settings_Request_Text(const _PPL_CAM_SETTINGS& settings);

#endif
