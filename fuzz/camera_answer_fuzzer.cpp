// Answers of a camera, or of anything that answers in its place: the LAPI
// event subscription's answer read by the event channel, the 3DPC totals and
// reset answers and the LAPI settings answer read by the open client
// libraries, each over a real loopback connection to a camera played here;
// and the libraries' answer parser on its own. Mode byte: 0 subscription,
// 1 3DPC totals, 2 3DPC reset, 3 LAPI settings, otherwise the parser alone.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "ReplacementHttp.h"
#include "Tarn3DPCAPIClient.h"
#include "UBrandLAPIClient.h"
#include "UFile.h"
#include "ipc_va.h"

namespace {

void Check(bool ok) {
    if (!ok)
        abort();
}

// A camera on loopback that gives every connection the answer armed last,
// closes its sending side and then reads the request until the client hangs
// up, so that the client always sees the whole answer and then its end.
class LoopbackCamera {
public:
    LoopbackCamera() {
        listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr;
        memset(&addr, 0, sizeof(addr));
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
            listen(listen_fd_, 16) != 0 ||
            getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            abort();
        }
        port_ = ntohs(addr.sin_port);
        std::thread([this] { Serve(); }).detach();
    }
    virtual ~LoopbackCamera() = default;

    int Port() const { return port_; }
    void Arm(const std::string& answer) {
        std::lock_guard<std::mutex> hold(lock_);
        answer_ = answer;
    }

private:
    void Serve() {
        while (true) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0)
                continue;
            std::string answer;
            {
                std::lock_guard<std::mutex> hold(lock_);
                answer = answer_;
            }
            UFile::WriteAll(fd, answer.data(), answer.size());
            shutdown(fd, SHUT_WR);
            timeval limit = {3, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
            char sink[4096];
            while (recv(fd, sink, sizeof(sink), 0) > 0) {
            }
            close(fd);
        }
    }

    int listen_fd_ = -1;
    int port_ = 0;
    std::mutex lock_;
    std::string answer_;
};

LoopbackCamera& Camera() {
    static LoopbackCamera* camera = new LoopbackCamera();
    return *camera;
}

void Subscribe(const std::string& answer) {
    Camera().Arm(answer);
    int fd = ipcva_connect("127.0.0.1", static_cast<unsigned short>(Camera().Port()), 3000);
    if (fd >= 0)
        close(fd);
}

// The loopback camera's connection record, armed with the answer, for either
// client library (DeviceInfo and CamInfo share these four fields).
template <typename Info>
Info Aim(const std::string& answer) {
    Camera().Arm(answer);
    Info info;
    memset(&info, 0, sizeof(info));
    snprintf(info.HttpPort, sizeof(info.HttpPort), "%d", Camera().Port());
    snprintf(info.IP, sizeof(info.IP), "127.0.0.1");
    snprintf(info.UserName, sizeof(info.UserName), "admin");
    snprintf(info.Password, sizeof(info.Password), "admin");
    return info;
}

void ThreeDpc(const std::string& answer, E_PC_API_TYPE type) {
    DeviceInfo info = Aim<DeviceInfo>(answer);
    Tarn_3DPC_API_Client client;
    client.SetDeviceInfo(info);
    client.SetAPIType(type);
    int rc = client.HandleRequest();
    Tarn_PPLContext context;
    Check((client.GetPPLContext(context) == 0) == (rc == 0));
}

void LapiSettings(const std::string& answer) {
    CamInfo info = Aim<CamInfo>(answer);
    UBrand_LAPI_Client client;
    client.SetCamInfo(info);
    client.SetVAType(E_UBRAND_VA_PPL);
    client.HandleCommand("action=ppl_setdata&Enable=1");
}

void Parse(const std::string& answer) {
    for (bool closed : {false, true}) {
        pplreplacement::HttpAnswer parsed;
        int rc = pplreplacement::ParseAnswer(answer, closed, &parsed);
        if (rc == 0)
            Check(parsed.body.size() <= pplreplacement::kMaxBodyBytes);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    std::string answer(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0]) {
        case 0:
            Subscribe(answer);
            break;
        case 1:
            ThreeDpc(answer, E_PC_API_COUNTING);
            break;
        case 2:
            ThreeDpc(answer, E_PC_API_SETTINGS);
            break;
        case 3:
            LapiSettings(answer);
            break;
        default:
            Parse(answer);
            break;
    }
    return 0;
}
