#ifndef UBRAND_LAPI_CLIENT_H
#define UBRAND_LAPI_CLIENT_H

// Client of the outside brand's LAPI cameras, used to push counting settings.
// On the recorder this class comes from libUBrandLAPIClient.so; this header
// declares what the service uses, and platform/replacement/ provides an open
// implementation.

#include <cstddef>
#include <string>

// Connection record; every text zero-terminated, the whole record zero-filled
// before it is filled.
struct CamInfo {
    char HttpPort[8];
    char IP[32];
    char UserName[64];
    char Password[64];
};
static_assert(sizeof(CamInfo) == 168, "CamInfo is 168 bytes");
static_assert(offsetof(CamInfo, HttpPort) == 0, "CamInfo.HttpPort at 0");
static_assert(offsetof(CamInfo, IP) == 8, "CamInfo.IP at 8");
static_assert(offsetof(CamInfo, UserName) == 40, "CamInfo.UserName at 40");
static_assert(offsetof(CamInfo, Password) == 104, "CamInfo.Password at 104");

enum E_UBRAND_VA_TYPE : int {
    E_UBRAND_VA_NONE = 0,
    E_UBRAND_VA_PPL = 1,  // people counting
};

class UBrand_LAPI_Client {
public:
    UBrand_LAPI_Client();
    virtual ~UBrand_LAPI_Client();
    UBrand_LAPI_Client(const UBrand_LAPI_Client&) = delete;
    UBrand_LAPI_Client& operator=(const UBrand_LAPI_Client&) = delete;

    int SetCamInfo(CamInfo info);
    int SetVAType(E_UBRAND_VA_TYPE type);
    // Delivers one "action=..." request; 0 or more on success, negative when
    // the camera rejects it or cannot be reached.
    int HandleCommand(std::string command);

private:
    struct Impl;
    Impl* impl;
};

#endif
