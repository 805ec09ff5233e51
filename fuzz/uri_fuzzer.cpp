// URI references from outside text: decomposing must never read past the
// text, composing the parts must give back exactly the text they came from,
// a resolved reference must itself decompose, and percent-decoding must undo
// percent-encoding for every byte string.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "NURI.h"

namespace {

void Check(bool ok) {
    if (!ok)
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    NURIParts parts;
    if (NURI::Decompose(text, parts)) {
        Check(NURI::Compose(parts) == text);
        std::string target;
        NURIParts resolved;
        if (NURI::Resolve("http://a/b/c/d;p?q", text, target))
            Check(NURI::Decompose(target, resolved) && resolved.hasScheme);
    }
    std::string decoded;
    Check(NURI::URLDecode(NURI::URLEncode(text), decoded) && decoded == text);
    Check(NURI::URLDecode(NURI::URLEncode(text, ":/?#[]@!$&'()*+,;="), decoded) && decoded == text);
    if (NURI::URLDecode(text, decoded))
        Check(decoded.size() <= text.size());
    return 0;
}
