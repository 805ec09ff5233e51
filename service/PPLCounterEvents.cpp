// Control commands, module events, the count callback and outgoing events.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

#include "NModuleInterface.h"
#include "PPLCounter.h"
#include "PPLSettingsRequest.h"
#include "SAttr.h"
#include "ShowLog.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"

namespace {
constexpr size_t kEventBuildSize = 512;
constexpr size_t kReplySize = 256;

// A stay-in alarm's text: its format filled with the group and the limit.
std::string StayInAlarmText(const char* format, int group, int limit) {
    char text[kEventBuildSize] = {0};
    snprintf(text, sizeof(text), format, group, limit);
    return std::string(text);
}
}  // namespace

std::string PPLCounter::Create_PPL_Enable_Event_Msg() {
    char text[kEventBuildSize] = {0};
    snprintf(text, sizeof(text), "event=ppl_enable&enable=%d", static_cast<int>(enable));
    return std::string(text);
}

// The stay-in key is always "stayin0", whatever the group: receivers rely on it.
std::string PPLCounter::Create_Count_Result_Event_Msg(int group, int in, int out, int stayin) {
    char text[kEventBuildSize] = {0};
    snprintf(text, sizeof(text), "event=ppl_count&in%d=%d&out%d=%d&stayin0=%d", group, in, group,
             out, stayin);
    return std::string(text);
}

std::string PPLCounter::Create_StayIn_Under_Event_Msg(int group, int limit) {
    return StayInAlarmText("event=ppl_stayin_under&group=%d&limit=%d", group, limit);
}

std::string PPLCounter::Create_StayIn_Over_Event_Msg(int group, int limit) {
    return StayInAlarmText("event=ppl_stayin_over&group=%d&limit=%d", group, limit);
}

void PPLCounter::PPL_Event_Out(const std::string& text) {
    std::lock_guard<std::mutex> guard(event_out_lock);
    if (event_out != nullptr)
        event_out->Send(text.data(), static_cast<unsigned int>(text.size()));
}

// Runs on the reporting counter's thread. One callback at a time evaluates
// the latches and sends, so two cameras' events never interleave an alarm
// with a stale count. The latches are latched against each other, never
// against the limits, and nothing resets them.
void PPLCounter::count_result(Abstract_PPL_Counter* counter) {
    std::lock_guard<std::mutex> guard(alarm_lock);
    PPL_Counter_Group* group = groups[0];
    const std::pair<int, int> limits = stayin_limits[0];
    if (!group->is_in_group(counter))
        return;
    if (group->get_total_cam_stayin_count() >= limits.first) {
        if (!stayin_over_latched) {
            PPL_Event_Out(Create_StayIn_Over_Event_Msg(0, limits.first));
            stayin_under_latched = false;
            stayin_over_latched = true;
        }
    } else if (group->get_total_cam_stayin_count() <= limits.second) {
        if (!stayin_under_latched) {
            PPL_Event_Out(Create_StayIn_Under_Event_Msg(0, limits.second));
            stayin_under_latched = true;
            stayin_over_latched = false;
        }
    }
    PPL_Event_Out(Create_Count_Result_Event_Msg(0, group->get_total_cam_in_count(),
                                                group->get_total_cam_out_count(),
                                                group->get_total_cam_stayin_count()));
}

bool PPLCounter::ParseCmd(const char* text, char* reply) {
    if (text == nullptr)
        return false;
    SAttr cmd('=', "&", "\n", nullptr);
    cmd.LoadMemory(text);
    std::cout << "ParseCmd"
              << "(): " << Printable(text) << std::endl;
    const char* action = cmd.GetKeyValue("action");
    if (action == nullptr)
        return false;
    if (strcmp(action, "ppl_config_change") == 0) {
        reload_config = true;
        return true;
    }
    if (strcmp(action, "ppl_reset_service") == 0) {
        if (!GroupArgumentIsZero(cmd))
            return false;
        Reset_PPL_Cam_Service(0, 0);
        restart_group_mask |= 1u;
        snprintf(reply, kReplySize, "%s", "&wait_5_seconds");
        return true;
    }
    if (strcmp(action, "ppl_clear_counts") == 0) {
        return GroupArgumentIsZero(cmd) && ClearCounts();
    }
    if (strcmp(action, "ppl_get_service_status") == 0)
        return ServiceStatus(reply);
    return false;
}

// Only group 0 exists: the key must be there and read as 0.
bool PPLCounter::GroupArgumentIsZero(SAttr& cmd) {
    return cmd.HasKey("group") && cmd.GetIntValue("group", 10) == 0;
}

bool PPLCounter::ClearCounts() {
    _PPL_CAM_SETTINGS settings;
    memset(&settings, 0, sizeof(settings));
    groups[0]->get_ppl_settings(settings);
    settings.ClearCounts = 1;
    std::pair<int, int> pair;
    groups[0]->get_cam_pair(pair);
    if (pair.first == -1 || pair.second == -1)
        return false;
    if (use_3dpc == 1) {
        if (counter_3dpc->is_connect() && settings.ClearCounts != 0) {
            counter_3dpc->SetAPIType(E_PC_API_SETTINGS);
            counter_3dpc->reset_ppl_total_counts();
            ShowLog("%s(): Clear 3DPC V2 countings\n", "ParseCmd");
            return true;
        }
        ShowLog("%s(): 3DPC V2 is not connected\n", "ParseCmd");
        return false;
    }
    return SendToPair(pair, PPL_Settings_Request_Text(settings).c_str());
}

bool PPLCounter::ServiceStatus(char* reply) {
    const char* in_state = "disconnect";
    const char* out_state = "disconnect";
    if (use_3dpc == 1) {
        MarkConnected(counter_3dpc, counter_3dpc->is_connect(), in_state, out_state);
    } else {
        uint32_t mask = lapi_cam_mask;
        for (int n = 0; n < static_cast<int>(lapi_counters.size()); ++n) {
            if (!(mask & (1u << n)))
                continue;
            MarkConnected(lapi_counters[n], lapi_counters[n]->is_connect(), in_state, out_state);
        }
    }
    std::stringstream text;
    text << "&in0"
         << "=" << in_state << "&out0"
         << "=" << out_state;
    snprintf(reply, kReplySize, "%s", text.str().c_str());
    return true;
}

bool PPLCounter::ParseEvt(const char* text) {
    if (text == nullptr)
        return false;
    SAttr evt('=', "&", "\n", nullptr);
    evt.LoadMemory(text);
    const char* name = evt.GetKeyValue("event");
    if (name == nullptr)
        return false;
    if (strcmp(name, "add_camera") == 0) {
        AddCamera(evt.GetUIntValue("ch", 10));
    } else if (strcmp(name, "del_camera") == 0) {
        DeleteCamera(evt.GetUIntValue("ch", 10));
    }
    return true;
}

// The channel is reduced modulo 32 only for the bit test; a channel that
// names no LAPI counter is ignored.
void PPLCounter::AddCamera(unsigned int ch) {
    if (!(lapi_cam_mask & (1u << (ch % 32))))
        return;
    std::string address;
    int port = 0;
    if (!GetCamInfo(static_cast<int>(ch), address, port))
        return;
    UBrand_PPL_Counter* counter = LapiCounter(ch);
    if (counter == nullptr)
        return;
    if (counter->get_server_addr() == address && counter->get_server_port() == port)
        return;
    counter->set_server_addr(address);
    counter->set_server_port(port);
    if (counter->is_running()) {
        counter->reconnect();
    } else {
        counter->start();
    }
}

void PPLCounter::DeleteCamera(unsigned int ch) {
    if (!(lapi_cam_mask & (1u << (ch % 32))))
        return;
    UBrand_PPL_Counter* counter = LapiCounter(ch);
    if (counter != nullptr)
        counter->stop();
}
