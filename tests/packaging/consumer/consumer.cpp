// Uses the common library as another module would: an event text read with
// the attribute store, a camera URI taken apart, a digest and its base-16
// form, and the monotonic clock. Prints what it found; exits 1 if anything
// is not what the library promises.
#include <cstdio>
#include <string>

#include "MD5.h"
#include "NURI.h"
#include "SAttr.h"
#include "UBase16.h"
#include "UTime.h"

int main() {
    SAttr event('=', "&", "\n", nullptr);
    event.LoadMemory("event=ppl_count&in0=7&out0=3&stayin0=4");
    NURIParts uri;
    bool decomposed = NURI::Decompose("http://127.0.0.1:8080/LAPI/V1.0?x=1", uri);
    std::string digest = MD5::HexDigest("abc");
    std::string decoded;
    bool base16 = UBase16::Decode(UBase16::Encode("pplcounter"), decoded);
    uint64_t before = UTime::GetMonotonicMs();
    bool ok = event.GetIntValue("stayin0", 10) == 4 && decomposed && uri.port == "8080" &&
              digest == "900150983cd24fb0d6963f7d28e17f72" && base16 && decoded == "pplcounter" &&
              UTime::GetMonotonicMs() >= before;
    printf("stayin0=%d host=%s port=%s md5(abc)=%s base16=%s: %s\n",
           event.GetIntValue("stayin0", 10), uri.host.c_str(), uri.port.c_str(), digest.c_str(),
           decoded.c_str(), ok ? "ok" : "WRONG");
    return ok ? 0 : 1;
}
