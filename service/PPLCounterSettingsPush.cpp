// Counting settings and enable requests to the cameras.
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>

#include "PPLCounter.h"
#include "PPLSettingsRequest.h"
#include "ShowLog.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"

namespace {
constexpr size_t kRequestSize = 512;
constexpr size_t kEnableRequestSize = 64;
}  // namespace

// A fresh client per request; nothing is kept between requests.
bool PPLCounter::Create_PPL_Settings_Request(const char* request, int camera) {
    char text[kRequestSize] = {0};
    strncpy(text, request, sizeof(text) - 1);
    UBrand_LAPI_Client client;
    CamInfo info;
    memset(&info, 0, sizeof(info));
    if (!GetCamInfo(camera, info))
        return false;
    client.SetCamInfo(info);
    client.SetVAType(E_UBRAND_VA_PPL);
    return client.HandleCommand(text) >= 0;
}

bool PPLCounter::Create_PPL_Settings_Request(const _PPL_CAM_SETTINGS& settings, int camera) {
    return Create_PPL_Settings_Request(PPL_Settings_Request_Text(settings).c_str(), camera);
}

bool PPLCounter::SendToPair(const std::pair<int, int>& pair, const char* request,
                            const std::function<void(int)>& taken) {
    const int cameras[2] = {pair.first, pair.second};
    for (int side = 0; side < 2; ++side) {
        if (side == 1 && pair.second == pair.first)
            return true;
        if (!Create_PPL_Settings_Request(request, cameras[side])) {
            std::cout << "Failed to set camera " << cameras[side] << " PPL settings." << std::endl;
            return false;
        }
        if (taken)
            taken(cameras[side]);
    }
    return true;
}

int PPLCounter::Reset_PPL_Cam_Service(unsigned int group, int enable_value) {
    char request[kEnableRequestSize] = {0};
    snprintf(request, sizeof(request), "action=ppl_setdata&Enable=%d", enable_value);
    std::pair<int, int> pair(-1, -1);
    if (group < groups.size())
        groups[group]->get_cam_pair(pair);
    if (pair.first == -1 || pair.second == -1) {
        std::cout << "Camera group is incomplete" << std::endl;
        return 0;
    }
    return SendToPair(pair, request) ? 1 : 0;
}

void PPLCounter::Check_PPL_Cam_Restart_Service() {
    for (uint32_t g = 0; g < group_num && g < 32; ++g) {
        if (restart_group_mask & (1u << g))
            Reset_PPL_Cam_Service(g, 1);
    }
    restart_group_mask = 0;
}

void PPLCounter::Update_PPL_Cam_Settings(unsigned int group,
                                         std::vector<_PPL_CAM_SETTINGS>& old_settings,
                                         std::vector<std::pair<int, int>>& old_pairs) {
    PPL_Counter_Group* grp = groups[group];
    bool clear = grp->get_ppl_clear_counting();
    if (use_3dpc == 1) {
        if (counter_3dpc->is_connect() && clear) {
            counter_3dpc->SetAPIType(E_PC_API_SETTINGS);
            counter_3dpc->reconnect();
            counter_3dpc->reset_ppl_total_counts();
            ShowLog("%s(): Clear 3DPC V2 countings\n", "Update_PPL_Cam_Settings");
        } else {
            ShowLog("%s(): 3DPC V2 is not connected / clear setting is not set\n",
                    "Update_PPL_Cam_Settings");
        }
        return;
    }
    // A group that had no settings before this reload cannot be "the same".
    bool had_before = group < old_settings.size() && group < old_pairs.size();
    if (had_before && grp->compare_ppl_settings(old_settings[group]) &&
        grp->compare_cam_pair(old_pairs[group]) && !clear) {
        std::cout << "PPL settings are the same." << std::endl;
        return;
    }
    std::cout << "PPL settings are different." << std::endl;
    _PPL_CAM_SETTINGS settings;
    grp->get_ppl_settings(settings);
    std::pair<int, int> pair;
    grp->get_cam_pair(pair);
    SendToPair(pair, PPL_Settings_Request_Text(settings).c_str(), [&](int camera) {
        UBrand_PPL_Counter* counter = LapiCounter(camera);
        if (clear && counter != nullptr && counter->is_connect())
            counter->reset_ppl_total_counts();
    });
}
