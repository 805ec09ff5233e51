#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include "CameraSim.h"
#include "Tarn3DPCAPIClient.h"
#include "TarnEndpoints.h"
#include "UBrandLAPIClient.h"

namespace {

// A loopback TCP socket bound to a free port; listening or not.
class LoopbackSocket {
public:
    explicit LoopbackSocket(bool listening) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in addr;
        std::memset(&addr, 0, sizeof(addr));
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        if (listening)
            listen(fd_, 4);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
    }
    ~LoopbackSocket() { close(fd_); }
    int Port() const { return port_; }

private:
    int fd_ = -1;
    int port_ = 0;
};

template <typename Info>
Info MakeInfo(int port, const char* user = "admin", const char* password = "s3cret") {
    Info info;
    std::memset(&info, 0, sizeof(info));
    snprintf(info.HttpPort, sizeof(info.HttpPort), "%d", port);
    snprintf(info.IP, sizeof(info.IP), "127.0.0.1");
    snprintf(info.UserName, sizeof(info.UserName), "%s", user);
    snprintf(info.Password, sizeof(info.Password), "%s", password);
    return info;
}

class ClientLibraries : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(cam.Start()); }
    void TearDown() override { cam.Stop(); }

    int SendCommand(const CamInfo& info, const std::string& text) {
        UBrand_LAPI_Client client;
        client.SetCamInfo(info);
        client.SetVAType(E_UBRAND_VA_PPL);
        return client.HandleCommand(text);
    }

    int Request3DPC(const DeviceInfo& info, E_PC_API_TYPE type, Tarn_PPLContext* ctx) {
        Tarn_3DPC_API_Client client;
        client.SetDeviceInfo(info);
        client.SetAPIType(type);
        int rc = client.HandleRequest();
        std::memset(ctx, 0x55, sizeof(*ctx));
        client.GetPPLContext(*ctx);
        return rc;
    }

    camsim::Camera cam;
};

const char kSettings[] =
    "action=ppl_setdata&Reset=0&TimeReset=1&Type=time&Hour=23&Min=5&Sec=0&Sensitivity=3&"
    "ReportTime=60";

}  // namespace

TEST_F(ClientLibraries, LapiCommandArrivesExactly) {
    camsim::TarnEndpoints ep(cam, "admin", "s3cret");
    EXPECT_EQ(SendCommand(MakeInfo<CamInfo>(cam.Port()), kSettings), 0);
    EXPECT_EQ(SendCommand(MakeInfo<CamInfo>(cam.Port()), "action=ppl_setdata&Enable=1"), 0);
    ASSERT_EQ(ep.SettingsReceived(),
              (std::vector<std::string>{kSettings, "action=ppl_setdata&Enable=1"}));
    camsim::Request req = cam.Requests().front();
    EXPECT_EQ(req.method, "POST");
    EXPECT_EQ(req.target, "/va/v1/ppl/command");
    EXPECT_EQ(req.Header("Host"), "127.0.0.1:" + std::to_string(cam.Port()));
    EXPECT_EQ(req.Header("Authorization"), "Basic YWRtaW46czNjcmV0");
    EXPECT_EQ(req.Header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(req.body, kSettings);
}

TEST_F(ClientLibraries, LapiRejectionIsNegative) {
    camsim::TarnEndpoints ep(cam, "admin", "s3cret");
    errno = 0;
    EXPECT_EQ(SendCommand(MakeInfo<CamInfo>(cam.Port(), "admin", "wrong"), kSettings), -401);
    EXPECT_EQ(errno, EACCES);
    ep.SetSettingsStatus(500);
    EXPECT_EQ(SendCommand(MakeInfo<CamInfo>(cam.Port()), kSettings), -500);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_TRUE(ep.SettingsReceived().empty());
    EXPECT_EQ(ep.Unauthorized(), 1);
}

TEST_F(ClientLibraries, LapiUnreachableOrIncompleteIsNegative) {
    LoopbackSocket closed(false);
    EXPECT_EQ(SendCommand(MakeInfo<CamInfo>(closed.Port()), kSettings), -ECONNREFUSED);

    // Nothing is sent without the people-counting type, an account or a text.
    UBrand_LAPI_Client untyped;
    untyped.SetCamInfo(MakeInfo<CamInfo>(cam.Port()));
    EXPECT_EQ(untyped.HandleCommand(kSettings), -EINVAL);
    EXPECT_EQ(untyped.SetVAType(static_cast<E_UBRAND_VA_TYPE>(7)), -EINVAL);
    EXPECT_EQ(SendCommand(MakeInfo<CamInfo>(cam.Port(), ""), kSettings), -EINVAL);
    EXPECT_EQ(SendCommand(MakeInfo<CamInfo>(cam.Port()), ""), -EINVAL);
    EXPECT_EQ(SendCommand(MakeInfo<CamInfo>(cam.Port()), std::string(9000, 'a')), -EMSGSIZE);
    // Fields without a terminator are read to their end and no further.
    CamInfo unterminated = MakeInfo<CamInfo>(cam.Port());
    std::memset(unterminated.HttpPort, '9', sizeof(unterminated.HttpPort));
    std::memset(unterminated.IP, '1', sizeof(unterminated.IP));
    EXPECT_EQ(SendCommand(unterminated, kSettings), -EINVAL);
    EXPECT_EQ(cam.AcceptedConnections(), 0);
}

TEST_F(ClientLibraries, CountingTypesAskAndResetTotals) {
    camsim::TarnEndpoints ep(cam, "admin", "s3cret");
    cam.SetTotals(12, -3);
    Tarn_PPLContext ctx;
    ASSERT_EQ(Request3DPC(MakeInfo<DeviceInfo>(cam.Port()), E_PC_API_COUNTING, &ctx), 0);
    EXPECT_EQ(ctx.Reserved[0], 1);
    EXPECT_EQ(ctx.Reserved[1], E_PC_API_COUNTING);
    EXPECT_EQ(ctx.Reserved[2], 200);
    EXPECT_EQ(ctx.TotalIn, 12);
    EXPECT_EQ(ctx.TotalOut, -3);
    EXPECT_EQ(cam.Requests().back().target, "/3dpc/v1/totals");

    ASSERT_EQ(Request3DPC(MakeInfo<DeviceInfo>(cam.Port()), E_PC_API_SETTINGS, &ctx), 0);
    EXPECT_EQ(ctx.Reserved[1], E_PC_API_SETTINGS);
    EXPECT_EQ(ctx.TotalIn, 0);
    EXPECT_EQ(ctx.TotalOut, 0);
    EXPECT_EQ(cam.GetTotals().in, 0);
    EXPECT_EQ(ep.ResetRequests(), 1);
    EXPECT_EQ(cam.Requests().back().method, "POST");
}

TEST_F(ClientLibraries, CountingFailuresLeaveAnEmptyContext) {
    camsim::TarnEndpoints ep(cam, "admin", "s3cret");
    Tarn_PPLContext ctx;
    EXPECT_EQ(Request3DPC(MakeInfo<DeviceInfo>(cam.Port()), E_PC_API_NONE, &ctx), -EINVAL);
    EXPECT_EQ(cam.AcceptedConnections(), 0);
    EXPECT_EQ(ctx.Reserved[0], 0);
    EXPECT_EQ(ctx.TotalIn, 0);

    EXPECT_EQ(Request3DPC(MakeInfo<DeviceInfo>(cam.Port(), "admin", "x"), E_PC_API_COUNTING, &ctx),
              -401);
    EXPECT_EQ(ctx.TotalOut, 0);
    ep.SetCountingStatus(503);
    EXPECT_EQ(Request3DPC(MakeInfo<DeviceInfo>(cam.Port()), E_PC_API_COUNTING, &ctx), -503);

    Tarn_3DPC_API_Client client;
    EXPECT_EQ(client.SetAPIType(static_cast<E_PC_API_TYPE>(3)), -EINVAL);
    EXPECT_EQ(client.GetPPLContext(ctx), -ENODATA);
}

TEST_F(ClientLibraries, CountingRefusesUntrustworthyAnswers) {
    std::mutex lock;  // the handler runs on the camera's thread
    std::string answer;
    cam.AddRoute("GET", "/3dpc/v1/totals", [&](const camsim::Request&, camsim::Exchange& ex) {
        std::unique_lock<std::mutex> guard(lock);
        std::string bytes = answer;
        guard.unlock();
        ex.Send(bytes);
        ex.CloseAfter();
    });
    auto set_answer = [&](const std::string& bytes) {
        std::lock_guard<std::mutex> guard(lock);
        answer = bytes;
    };
    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: ";
    for (const std::string& body :
         {std::string("in=1\n"), std::string("in=x\nout=2\n"), std::string("in=1\nout=2\nin=3\n"),
          std::string("in=2147483648\nout=0\n"), std::string("")}) {
        set_answer(ok + std::to_string(body.size()) + "\r\n\r\n" + body);
        Tarn_PPLContext ctx;
        EXPECT_EQ(Request3DPC(MakeInfo<DeviceInfo>(cam.Port()), E_PC_API_COUNTING, &ctx), -EPROTO)
            << body;
    }
    set_answer(ok + "40\r\n\r\nin=1\n");  // the camera hangs up mid-body
    Tarn_PPLContext ctx;
    EXPECT_EQ(Request3DPC(MakeInfo<DeviceInfo>(cam.Port()), E_PC_API_COUNTING, &ctx), -EPROTO);
    set_answer(ok + "21\r\n\r\nin=-2147483648\r\nout=5");
    ASSERT_EQ(Request3DPC(MakeInfo<DeviceInfo>(cam.Port()), E_PC_API_COUNTING, &ctx), 0);
    EXPECT_EQ(ctx.TotalIn, -2147483647 - 1);
    EXPECT_EQ(ctx.TotalOut, 5);
}

TEST_F(ClientLibraries, SilentCameraTimesOut) {
    LoopbackSocket never_accepts(true);  // the connect completes, no answer comes
    Tarn_PPLContext ctx;
    EXPECT_EQ(Request3DPC(MakeInfo<DeviceInfo>(never_accepts.Port()), E_PC_API_COUNTING, &ctx),
              -ETIMEDOUT);
}
