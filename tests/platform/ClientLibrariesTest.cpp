#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "CameraSim.h"
#include "Tarn3DPCAPIClient.h"
#include "TarnEndpoints.h"
#include "UBrandLAPIClient.h"

namespace {

template <typename Info>
Info MakeInfo(int port, const char* password) {
    Info info;
    std::memset(&info, 0, sizeof(info));
    snprintf(info.HttpPort, sizeof(info.HttpPort), "%d", port);
    snprintf(info.IP, sizeof(info.IP), "127.0.0.1");
    snprintf(info.UserName, sizeof(info.UserName), "admin");
    snprintf(info.Password, sizeof(info.Password), "%s", password);
    return info;
}

const char kSettings[] =
    "action=ppl_setdata&Reset=0&TimeReset=1&Type=time&Hour=23&Min=5&Sec=0&Sensitivity=3&"
    "ReportTime=60";

class ClientLibraries : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(cam.Start()); }
    void TearDown() override { cam.Stop(); }

    int SendCommand(const std::string& text, const char* password = "s3cret") {
        UBrand_LAPI_Client client;
        client.SetCamInfo(MakeInfo<CamInfo>(cam.Port(), password));
        client.SetVAType(E_UBRAND_VA_PPL);
        return client.HandleCommand(text);
    }
    // The context is filled with a pattern first, so stale words would show.
    int Request3DPC(E_PC_API_TYPE type, const char* password = "s3cret") {
        Tarn_3DPC_API_Client client;
        client.SetDeviceInfo(MakeInfo<DeviceInfo>(cam.Port(), password));
        client.SetAPIType(type);
        int rc = client.HandleRequest();
        std::memset(&ctx, 0x55, sizeof(ctx));
        client.GetPPLContext(ctx);
        return rc;
    }

    camsim::Camera cam;
    camsim::TarnEndpoints ep{cam, "admin", "s3cret"};
    Tarn_PPLContext ctx;
};

}  // namespace

TEST_F(ClientLibraries, LapiCommandArrivesExactly) {
    EXPECT_EQ(SendCommand(kSettings), 0);
    EXPECT_EQ(SendCommand("action=ppl_setdata&Enable=1"), 0);
    ASSERT_EQ(ep.SettingsReceived(),
              (std::vector<std::string>{kSettings, "action=ppl_setdata&Enable=1"}));
    camsim::Request req = cam.Requests().front();
    EXPECT_EQ(req.method + " " + req.target, "POST /va/v1/ppl/command");
    EXPECT_EQ(req.Header("Host"), "127.0.0.1:" + std::to_string(cam.Port()));
    EXPECT_EQ(req.Header("Authorization"), "Basic YWRtaW46czNjcmV0");
    EXPECT_EQ(req.Header("Content-Type"), "application/x-www-form-urlencoded");
}

TEST_F(ClientLibraries, LapiRejectedUnsendableOrUnreachableIsNegative) {
    EXPECT_EQ(SendCommand(kSettings, "wrong"), -401);
    EXPECT_EQ(errno, EACCES);
    ep.SetSettingsStatus(500);
    EXPECT_EQ(SendCommand(kSettings), -500);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_TRUE(ep.SettingsReceived().empty());
    // Nothing goes out without an account, a text of bounded size or the counting type.
    EXPECT_EQ(SendCommand(kSettings, ""), -EINVAL);
    EXPECT_EQ(SendCommand(""), -EINVAL);
    EXPECT_EQ(SendCommand(std::string(9000, 'a')), -EMSGSIZE);
    UBrand_LAPI_Client untyped;
    untyped.SetCamInfo(MakeInfo<CamInfo>(cam.Port(), "s3cret"));
    EXPECT_EQ(untyped.HandleCommand(kSettings), -EINVAL);
    EXPECT_EQ(cam.AcceptedConnections(), 2);

    cam.SetRefusing(true);
    EXPECT_EQ(SendCommand(kSettings), -ECONNREFUSED);
}

TEST_F(ClientLibraries, CountingTypesNoneCountingAndSettings) {
    cam.SetTotals(12, -3);
    EXPECT_EQ(Request3DPC(E_PC_API_NONE), -EINVAL);
    EXPECT_EQ(cam.AcceptedConnections(), 0);
    EXPECT_EQ(ctx.TotalIn, 0);
    ASSERT_EQ(Request3DPC(E_PC_API_COUNTING), 0);
    EXPECT_EQ(std::make_pair(ctx.TotalIn, ctx.TotalOut), std::make_pair(12, -3));
    EXPECT_EQ(Request3DPC(E_PC_API_COUNTING, "wrong"), -401);
    EXPECT_EQ(ctx.TotalIn, 0) << "a failure leaves no stale totals";
    ep.SetCountingStatus(503);
    EXPECT_EQ(Request3DPC(E_PC_API_COUNTING), -503);
    ep.SetCountingStatus(0);

    ASSERT_EQ(Request3DPC(E_PC_API_SETTINGS), 0);
    EXPECT_EQ(ep.ResetRequests(), 1);
    EXPECT_EQ(std::make_pair(ctx.TotalIn, ctx.TotalOut), std::make_pair(0, 0));
}

TEST_F(ClientLibraries, CountingRefusesMalformedTotalsAndTimesOutOnSilence) {
    std::mutex lock;  // the handler runs on the camera's thread
    std::string body;
    cam.AddRoute("GET", "/3dpc/v1/totals", [&](const camsim::Request&, camsim::Exchange& ex) {
        std::lock_guard<std::mutex> guard(lock);
        if (body != "silent")
            ex.Reply(200, body, "text/plain");
    });
    auto answer = [&](const std::string& text) {
        std::unique_lock<std::mutex> guard(lock);
        body = text;
        guard.unlock();
        return Request3DPC(E_PC_API_COUNTING);
    };
    for (const char* bad :
         {"in=1\n", "in=x\nout=2\n", "in=1\nout=2\nin=3\n", "in=2147483648\nout=0\n", ""})
        EXPECT_EQ(answer(bad), -EPROTO) << bad;
    ASSERT_EQ(answer("in=-2147483648\r\nout=5"), 0);
    EXPECT_EQ(std::make_pair(ctx.TotalIn, ctx.TotalOut), std::make_pair(-2147483647 - 1, 5));
    EXPECT_EQ(answer("silent"), -ETIMEDOUT);
}
