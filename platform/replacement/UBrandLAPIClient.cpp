// Open client for pushing "action=..." requests to the LAPI cameras: one HTTP
// POST per HandleCommand(), described in docs/replacement-protocol.md.

#include "UBrandLAPIClient.h"

#include <cerrno>
#include <cstring>

#include "ReplacementHttp.h"

namespace {

constexpr const char* kPeopleCountingPath = "/va/v1/ppl/command";
constexpr const char* kCommandType = "application/x-www-form-urlencoded";

int Fail(int err) {
    errno = err;
    return -err;
}

}  // namespace

struct UBrand_LAPI_Client::Impl {
    CamInfo info;
    E_UBRAND_VA_TYPE type = E_UBRAND_VA_NONE;
    Impl() { std::memset(&info, 0, sizeof(info)); }
};

UBrand_LAPI_Client::UBrand_LAPI_Client() : impl(new Impl) {}

UBrand_LAPI_Client::~UBrand_LAPI_Client() {
    delete impl;
}

int UBrand_LAPI_Client::SetCamInfo(CamInfo info) {
    impl->info = info;
    return 0;
}

int UBrand_LAPI_Client::SetVAType(E_UBRAND_VA_TYPE type) {
    if (type != E_UBRAND_VA_NONE && type != E_UBRAND_VA_PPL)
        return Fail(EINVAL);
    impl->type = type;
    return 0;
}

int UBrand_LAPI_Client::HandleCommand(std::string command) {
    using pplreplacement::FieldText;
    if (impl->type != E_UBRAND_VA_PPL || command.empty())
        return Fail(EINVAL);
    const CamInfo& info = impl->info;
    pplreplacement::HttpTarget target;
    int rc = pplreplacement::MakeTarget(FieldText(info.IP, sizeof(info.IP)),
                                        FieldText(info.HttpPort, sizeof(info.HttpPort)),
                                        FieldText(info.UserName, sizeof(info.UserName)),
                                        FieldText(info.Password, sizeof(info.Password)), &target);
    if (rc != 0)
        return rc;
    pplreplacement::HttpAnswer answer;
    rc = pplreplacement::HttpExchange(target, "POST", kPeopleCountingPath, kCommandType, command,
                                      &answer);
    if (rc != 0)
        return rc;
    return pplreplacement::RejectionCode(answer.status);
}
