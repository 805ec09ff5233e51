// Control commands and module events as the neighbouring modules could send
// them, through the service's real endpoints: a datagram on its command
// socket answered by its reply, and an event through a System V queue,
// received into the service's 256-byte event buffer. The service object
// lives in a private directory and never contacts a camera: no group has
// cameras, and camera events find no port in its configuration.
#include <sched.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "NModuleInterface.h"
#include "NTextCommand.h"
#include "PPLCounter.h"
#include "UFile.h"

namespace {

constexpr size_t kPassBufferSize = 256;

void Check(bool ok) {
    if (!ok)
        abort();
}

// Opens the parts of the service that only its own loop may set.
class FuzzedService : public PPLCounter {
public:
    using PPLCounter::PPLCounter;
    void SetCameraMask(uint32_t mask) { lapi_cam_mask = mask; }
    void SetCameraKind(uint32_t three_d) { use_3dpc = three_d; }
    using PPLCounter::HandleCommand;
    using PPLCounter::HandleEvent;
};

struct Rig {
    std::string dir;
    FuzzedService* service = nullptr;
    NTextCommand* command = nullptr;  // the service's end
    NCommandIPC* module = nullptr;    // the neighbouring module's end
    NEventMQ* events = nullptr;       // stands for queue 601
};

Rig* MakeRig() {
    // A private IPC namespace when allowed, so no queue outlives a crash.
    (void)unshare(CLONE_NEWIPC);
    Rig* rig = new Rig();
    char dir[] = "/tmp/pplfuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        abort();
    rig->dir = dir;
    PPLCounterPlaces where;
    where.system_ini = rig->dir + "/System.ini";
    where.status_ini = rig->dir + "/PPLCounter.ini";
    where.record_ini = rig->dir + "/PPLRecord.ini";
    where.command_path = rig->dir + "/SI_PPLCOUNTER";
    // Addresses without ports: a camera event may start a counter, which
    // then waits for a port and never connects.
    std::string config =
        "SERV_PPL_NUM=1\nSERV_PPL_ENABLE=1\nSERV_PPL_TYPE=LAPI\n"
        "SERV_PPL_CAM_0_IP=127.0.0.1\nSERV_PPL_CAM_1_IP=127.0.0.2\n"
        "SERV_PPL_CAM_2_IP=127.0.0.1\nSERV_PPL_CAM_3_IP=127.0.0.3\n";
    UFile::WriteFile(where.system_ini.c_str(), config);
    rig->service = new FuzzedService(where);
    rig->command = new NTextCommand(where.command_path.c_str(), nullptr);
    rig->module = new NCommandIPC((rig->dir + "/module").c_str(), where.command_path.c_str());
    rig->events = new NEventMQ(0, true);  // IPC_PRIVATE: a queue of its own
    return rig;
}

// One pass of the service's loop: the command handler takes the datagram
// and answers it; the answer must be a reply the module can read.
void Command(Rig& rig, const uint8_t* data, size_t size) {
    rig.module->Send(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size));
    char reply[kPassBufferSize];
    memset(reply, 0, sizeof(reply));
    rig.service->HandleCommand(*rig.command, reply);
    Check(memchr(reply, '\0', sizeof(reply)) != nullptr);
    // The loop hands the reply to Reply() as its format text.
    Check(strchr(reply, '%') == nullptr);
    char answer[1024];
    if (rig.module->Wait(0, 0) > 0 && rig.module->Recv(answer, sizeof(answer)) > 0)
        Check(strncmp(answer, "reply=", 6) == 0);
}

void Event(Rig& rig, const uint8_t* data, size_t size) {
    rig.events->Send(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size));
    char event[kPassBufferSize];
    memset(event, 0, sizeof(event));
    while (rig.events->Wait(0, 0) > 0)
        rig.service->HandleEvent(*rig.events, event);
}

Rig* TheRig() {
    static Rig* rig = MakeRig();
    return rig;
}

// The endpoints unlink their own paths; the rest goes here.
void RemoveFiles() {
    Rig* rig = TheRig();
    delete rig->command;
    delete rig->module;
    delete rig->events;
    unlink((rig->dir + "/System.ini").c_str());
    unlink((rig->dir + "/PPLCounter.ini").c_str());
    rmdir(rig->dir.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TheRig();
    atexit(RemoveFiles);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Rig* rig = TheRig();
    if (size < 1)
        return 0;
    // Bits of the first byte: endpoint, camera kind, which cameras are named.
    static const uint32_t kMasks[4] = {0u, 0x3u, 0x5u, 0xffffffffu};
    rig->service->SetCameraKind((data[0] >> 1) & 1);
    rig->service->SetCameraMask(kMasks[(data[0] >> 2) & 3]);
    if (data[0] & 1)
        Event(*rig, data + 1, size - 1);
    else
        Command(*rig, data + 1, size - 1);
    return 0;
}
