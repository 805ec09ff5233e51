// Open client of the 3D people-counting cameras: one HTTP request per
// HandleRequest(), described in docs/replacement-protocol.md.

#include "Tarn3DPCAPIClient.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <sstream>

#include "ReplacementHttp.h"

namespace {

using pplreplacement::HttpAnswer;
using pplreplacement::HttpTarget;

constexpr const char* kTotalsPath = "/3dpc/v1/totals";
constexpr const char* kResetPath = "/3dpc/v1/totals/reset";

int Fail(int err) {
    errno = err;
    return -err;
}

// Strict signed 32-bit decimal.
bool ParseInt32(const std::string& text, int* value) {
    size_t i = (!text.empty() && text[0] == '-') ? 1 : 0;
    if (i == text.size() || text.size() - i > 10)
        return false;
    long long v = 0;
    for (; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
        v = v * 10 + (text[i] - '0');
    }
    if (text[0] == '-')
        v = -v;
    if (v < INT_MIN || v > INT_MAX)
        return false;
    *value = static_cast<int>(v);
    return true;
}

// The body is "key=value" lines; "in" and "out" must each appear exactly once.
bool ParseTotals(const std::string& body, int* in, int* out) {
    std::istringstream lines(body);
    std::string line;
    int seen_in = 0, seen_out = 0;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = line.substr(0, eq);
        std::string value = line.substr(eq + 1);
        if (key == "in") {
            if (++seen_in > 1 || !ParseInt32(value, in))
                return false;
        } else if (key == "out") {
            if (++seen_out > 1 || !ParseInt32(value, out))
                return false;
        }
    }
    return seen_in == 1 && seen_out == 1;
}

}  // namespace

struct Tarn_3DPC_API_Client::Impl {
    DeviceInfo info;
    E_PC_API_TYPE type = E_PC_API_NONE;
    Tarn_PPLContext context;
    Impl() {
        std::memset(&info, 0, sizeof(info));
        std::memset(&context, 0, sizeof(context));
    }
    int MakeTarget(HttpTarget* target) const;
    int Request();
};

int Tarn_3DPC_API_Client::Impl::MakeTarget(HttpTarget* target) const {
    using pplreplacement::FieldText;
    return pplreplacement::MakeTarget(FieldText(info.IP, sizeof(info.IP)),
                                      FieldText(info.HttpPort, sizeof(info.HttpPort)),
                                      FieldText(info.UserName, sizeof(info.UserName)),
                                      FieldText(info.Password, sizeof(info.Password)), target);
}

int Tarn_3DPC_API_Client::Impl::Request() {
    std::memset(&context, 0, sizeof(context));
    if (type != E_PC_API_COUNTING && type != E_PC_API_SETTINGS)
        return Fail(EINVAL);
    HttpTarget target;
    int rc = MakeTarget(&target);
    if (rc != 0)
        return rc;
    HttpAnswer answer;
    if (type == E_PC_API_COUNTING)
        rc = pplreplacement::HttpExchange(target, "GET", kTotalsPath, "", "", &answer);
    else
        rc = pplreplacement::HttpExchange(target, "POST", kResetPath, "", "", &answer);
    if (rc != 0)
        return rc;
    rc = pplreplacement::RejectionCode(answer.status);
    if (rc != 0)
        return rc;
    int in = 0, out = 0;
    if (!ParseTotals(answer.body, &in, &out))
        return Fail(EPROTO);
    context.Reserved[0] = 1;
    context.Reserved[1] = type;
    context.Reserved[2] = answer.status;
    context.TotalIn = in;
    context.TotalOut = out;
    return 0;
}

Tarn_3DPC_API_Client::Tarn_3DPC_API_Client() : impl(new Impl) {}

Tarn_3DPC_API_Client::~Tarn_3DPC_API_Client() {
    delete impl;
}

int Tarn_3DPC_API_Client::SetDeviceInfo(DeviceInfo info) {
    impl->info = info;
    return 0;
}

int Tarn_3DPC_API_Client::SetAPIType(E_PC_API_TYPE type) {
    if (type != E_PC_API_NONE && type != E_PC_API_COUNTING && type != E_PC_API_SETTINGS)
        return Fail(EINVAL);
    impl->type = type;
    return 0;
}

int Tarn_3DPC_API_Client::HandleRequest() {
    return impl->Request();
}

int Tarn_3DPC_API_Client::GetPPLContext(Tarn_PPLContext& context) {
    context = impl->context;
    return impl->context.Reserved[0] == 1 ? 0 : Fail(ENODATA);
}
