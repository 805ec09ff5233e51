#ifndef TARN_3DPC_API_CLIENT_H
#define TARN_3DPC_API_CLIENT_H

// Client of the maker's 3D people-counting cameras. On the recorder this class
// comes from the maker's libTarn3DPCAPIClient.so; this header declares what the
// service uses, and platform/replacement/ provides an open implementation.

#include <cstddef>

// Connection data handed to the client by value (layout fixed by the library).
struct DeviceInfo {
    char HttpPort[8];       // decimal text, zero-terminated
    char IP[32];            // dotted IPv4 text, zero-terminated
    char UserName[64];      // zero-terminated
    char Password[64];      // zero-terminated
    unsigned int Interval;  // polling interval, seconds
    unsigned int Reserved;  // always 0
};
static_assert(sizeof(DeviceInfo) == 176, "DeviceInfo is 176 bytes");
static_assert(offsetof(DeviceInfo, HttpPort) == 0, "DeviceInfo.HttpPort at 0");
static_assert(offsetof(DeviceInfo, IP) == 8, "DeviceInfo.IP at 8");
static_assert(offsetof(DeviceInfo, UserName) == 40, "DeviceInfo.UserName at 40");
static_assert(offsetof(DeviceInfo, Password) == 104, "DeviceInfo.Password at 104");
static_assert(offsetof(DeviceInfo, Interval) == 168, "DeviceInfo.Interval at 168");
static_assert(offsetof(DeviceInfo, Reserved) == 172, "DeviceInfo.Reserved at 172");

// Results of the last request: five 32-bit words; the counter reads words 3
// (total in) and 4 (total out) only.
struct Tarn_PPLContext {
    int Reserved[3];
    int TotalIn;
    int TotalOut;
};
static_assert(sizeof(Tarn_PPLContext) == 20, "Tarn_PPLContext is 20 bytes");
static_assert(offsetof(Tarn_PPLContext, TotalIn) == 12, "TotalIn is word 3");
static_assert(offsetof(Tarn_PPLContext, TotalOut) == 16, "TotalOut is word 4");

// Request selected for HandleRequest().
enum E_PC_API_TYPE : int {
    E_PC_API_NONE = 0,      // no request may be sent
    E_PC_API_COUNTING = 1,  // ask for the camera's running totals
    E_PC_API_SETTINGS = 2,  // one-shot request of a settings update: reset the counts
};
static_assert(sizeof(E_PC_API_TYPE) == 4, "E_PC_API_TYPE is a 32-bit word");

class Tarn_3DPC_API_Client {
public:
    Tarn_3DPC_API_Client();
    virtual ~Tarn_3DPC_API_Client();
    Tarn_3DPC_API_Client(const Tarn_3DPC_API_Client&) = delete;
    Tarn_3DPC_API_Client& operator=(const Tarn_3DPC_API_Client&) = delete;

    int SetDeviceInfo(DeviceInfo info);
    int SetAPIType(E_PC_API_TYPE type);
    // One blocking request to the camera; 0 on success, else an error code
    // (errno may be left set).
    int HandleRequest();
    int GetPPLContext(Tarn_PPLContext& context);

private:
    struct Impl;
    Impl* impl;
};

#endif
