#include "PPLSettingsRequest.h"

#include <cstdio>
#include <cstring>

std::string PPL_Settings_Request_Text(const _PPL_CAM_SETTINGS& settings) {
    char reset_time[sizeof(settings.ResetTime) + 1] = {0};
    memcpy(reset_time, settings.ResetTime, sizeof(settings.ResetTime));
    int hour = 0, min = 0, sec = 0;
    sscanf(reset_time, "%d:%d:%d", &hour, &min, &sec);
    char request[512] = {0};
    snprintf(request, sizeof(request),
             "action=ppl_setdata&Reset=%d&TimeReset=%d&Type=%s&Hour=%d&Min=%d&Sec=%d"
             "&Sensitivity=%d&ReportTime=%d",
             settings.ClearCounts, settings.ResetEnable, "time", hour, min, sec,
             settings.Sensitivity, settings.ReportInterval);
    return request;
}
