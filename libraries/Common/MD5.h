#ifndef COMMON_MD5_H
#define COMMON_MD5_H

#include <cstddef>
#include <cstdint>
#include <string>

// The MD5 message digest (RFC 1321), for checksums and the digest schemes of
// camera and module protocols; not for anything that needs collision
// resistance. Feed the message in pieces of any size with Update, then take
// the digest once with Final or FinalHex; Reset starts a new message. One
// object is used by one thread at a time.
class MD5 {
public:
    static constexpr size_t kDigestSize = 16;

    MD5();
    virtual ~MD5() = default;

    void Reset();
    void Update(const void* data, size_t size);
    void Update(const std::string& data) { Update(data.data(), data.size()); }
    // Completes the message and writes the 16-byte digest. The object must be
    // Reset before it takes another message.
    void Final(unsigned char digest[kDigestSize]);
    // The digest as 32 lower-case hex digits.
    std::string FinalHex();

    // One-shot forms.
    static void Digest(const void* data, size_t size, unsigned char digest[kDigestSize]);
    static std::string HexDigest(const std::string& data);

private:
    void Transform(const unsigned char block[64]);

    uint32_t state_[4];
    uint64_t length_;  // bytes fed so far
    unsigned char buffer_[64];
};

#endif
