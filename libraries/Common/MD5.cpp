#include "MD5.h"

#include <string.h>

#include "UBase16.h"

namespace {

// Per-round shift amounts and the sine-derived constants of RFC 1321, 3.4.
const uint32_t kShift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                             5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                             4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                             6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};

const uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

uint32_t RotateLeft(uint32_t x, uint32_t n) {
    return (x << n) | (x >> (32 - n));
}

// The message is little-endian whatever the host's byte order.
uint32_t LoadLE(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void StoreLE(uint32_t v, unsigned char* p) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

}  // namespace

MD5::MD5() {
    Reset();
}

void MD5::Reset() {
    state_[0] = 0x67452301;
    state_[1] = 0xefcdab89;
    state_[2] = 0x98badcfe;
    state_[3] = 0x10325476;
    length_ = 0;
}

void MD5::Transform(const unsigned char block[64]) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i)
        x[i] = LoadLE(block + 4 * i);
    uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
    for (int i = 0; i < 64; ++i) {
        uint32_t f;
        int g;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (b & d) | (c & ~d);
            g = (5 * i + 1) % 16;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
        }
        uint32_t rotated = RotateLeft(a + f + kSine[i] + x[g], kShift[i]);
        a = d;
        d = c;
        c = b;
        b += rotated;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
}

void MD5::Update(const void* data, size_t size) {
    const unsigned char* in = static_cast<const unsigned char*>(data);
    size_t used = length_ % 64;
    length_ += size;
    if (used > 0) {
        size_t take = size < 64 - used ? size : 64 - used;
        memcpy(buffer_ + used, in, take);
        in += take;
        size -= take;
        if (used + take < 64)
            return;
        Transform(buffer_);
    }
    for (; size >= 64; in += 64, size -= 64)
        Transform(in);
    if (size > 0)
        memcpy(buffer_, in, size);
}

void MD5::Final(unsigned char digest[kDigestSize]) {
    // Pad with 0x80 and zeros to 56 bytes modulo 64, then the bit length.
    unsigned char tail[72] = {0x80};
    size_t used = length_ % 64;
    size_t pad = used < 56 ? 56 - used : 120 - used;
    uint64_t bits = length_ * 8;
    for (int i = 0; i < 8; ++i)
        tail[pad + i] = static_cast<unsigned char>(bits >> (8 * i));
    Update(tail, pad + 8);
    for (int i = 0; i < 4; ++i)
        StoreLE(state_[i], digest + 4 * i);
}

std::string MD5::FinalHex() {
    unsigned char digest[kDigestSize];
    Final(digest);
    return UBase16::Encode(digest, sizeof(digest), false);
}

void MD5::Digest(const void* data, size_t size, unsigned char digest[kDigestSize]) {
    MD5 md5;
    md5.Update(data, size);
    md5.Final(digest);
}

std::string MD5::HexDigest(const std::string& data) {
    MD5 md5;
    md5.Update(data);
    return md5.FinalHex();
}
