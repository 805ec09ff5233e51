// Published test vectors for the base-16 codec, the MD5 digest and the URI
// class.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "MD5.h"
#include "NURI.h"
#include "UBase16.h"

// RFC 4648, section 10: BASE16("foobar") = "666F6F626172" and its prefixes.
TEST(Base16, Rfc4648VectorsBothCasesAndRejections) {
    const std::vector<std::pair<std::string, std::string>> vectors = {{"", ""},
                                                                      {"f", "66"},
                                                                      {"fo", "666F"},
                                                                      {"foo", "666F6F"},
                                                                      {"foob", "666F6F62"},
                                                                      {"fooba", "666F6F6261"},
                                                                      {"foobar", "666F6F626172"}};
    for (const auto& v : vectors) {
        EXPECT_EQ(UBase16::Encode(v.first), v.second);
        std::string lower = UBase16::Encode(v.first, false), decoded;
        EXPECT_TRUE(UBase16::Decode(lower, decoded));
        EXPECT_EQ(decoded, v.first);
        EXPECT_TRUE(UBase16::Decode(v.second, decoded));
        EXPECT_EQ(decoded, v.first);
    }
    EXPECT_EQ(UBase16::Encode(std::string("\x00\xff\x7f", 3), false), "00ff7f");
    std::string kept = "kept";
    for (const char* bad : {"6", "666", "6G", "g6", "66 6", "0x66", "66\n"})
        EXPECT_FALSE(UBase16::Decode(bad, kept)) << bad;
    EXPECT_EQ(kept, "kept") << "a failed decode leaves the output alone";
}

// RFC 1321, appendix A.5: the test suite.
TEST(MD5Digest, Rfc1321SuiteOneShotAndInPieces) {
    const std::vector<std::pair<std::string, std::string>> suite = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto& v : suite) {
        EXPECT_EQ(MD5::HexDigest(v.first), v.second) << v.first;
        // Piece sizes that cross the 64-byte block in every way.
        for (size_t piece : {1u, 3u, 63u, 64u, 65u}) {
            MD5 md5;
            for (size_t at = 0; at < v.first.size(); at += piece)
                md5.Update(v.first.substr(at, piece));
            EXPECT_EQ(md5.FinalHex(), v.second) << v.first << " in pieces of " << piece;
        }
    }
    unsigned char raw[MD5::kDigestSize];
    MD5::Digest("abc", 3, raw);
    EXPECT_EQ(UBase16::Encode(raw, sizeof(raw), false), "900150983cd24fb0d6963f7d28e17f72");
    MD5 reused;
    reused.Update("junk");
    reused.FinalHex();
    reused.Reset();
    reused.Update("abc");
    EXPECT_EQ(reused.FinalHex(), "900150983cd24fb0d6963f7d28e17f72");
}

// RFC 3986, section 5.4: reference resolution examples against one base.
TEST(URI, Rfc3986ResolutionNormalAndAbnormalExamples) {
    const std::string base = "http://a/b/c/d;p?q";
    const std::vector<std::pair<std::string, std::string>> examples = {
        // 5.4.1 normal examples
        {"g:h", "g:h"},
        {"g", "http://a/b/c/g"},
        {"./g", "http://a/b/c/g"},
        {"g/", "http://a/b/c/g/"},
        {"/g", "http://a/g"},
        {"//g", "http://g"},
        {"?y", "http://a/b/c/d;p?y"},
        {"g?y", "http://a/b/c/g?y"},
        {"#s", "http://a/b/c/d;p?q#s"},
        {"g#s", "http://a/b/c/g#s"},
        {"g?y#s", "http://a/b/c/g?y#s"},
        {";x", "http://a/b/c/;x"},
        {"g;x", "http://a/b/c/g;x"},
        {"g;x?y#s", "http://a/b/c/g;x?y#s"},
        {"", "http://a/b/c/d;p?q"},
        {".", "http://a/b/c/"},
        {"./", "http://a/b/c/"},
        {"..", "http://a/b/"},
        {"../", "http://a/b/"},
        {"../g", "http://a/b/g"},
        {"../..", "http://a/"},
        {"../../", "http://a/"},
        {"../../g", "http://a/g"},
        // 5.4.2 abnormal examples (strict parser)
        {"../../../g", "http://a/g"},
        {"../../../../g", "http://a/g"},
        {"/./g", "http://a/g"},
        {"/../g", "http://a/g"},
        {"g.", "http://a/b/c/g."},
        {".g", "http://a/b/c/.g"},
        {"g..", "http://a/b/c/g.."},
        {"..g", "http://a/b/c/..g"},
        {"./../g", "http://a/b/g"},
        {"./g/.", "http://a/b/c/g/"},
        {"g/./h", "http://a/b/c/g/h"},
        {"g/../h", "http://a/b/c/h"},
        {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
        {"g;x=1/../y", "http://a/b/c/y"},
        {"g?y/./x", "http://a/b/c/g?y/./x"},
        {"g?y/../x", "http://a/b/c/g?y/../x"},
        {"g#s/./x", "http://a/b/c/g#s/./x"},
        {"g#s/../x", "http://a/b/c/g#s/../x"},
        {"http:g", "http:g"}};
    for (const auto& e : examples) {
        std::string target;
        EXPECT_TRUE(NURI::Resolve(base, e.first, target)) << e.first;
        EXPECT_EQ(target, e.second) << e.first;
    }
    std::string target;
    EXPECT_FALSE(NURI::Resolve("/relative/base", "g", target)) << "the base needs a scheme";
    // A path left starting with "//" must not turn into an authority.
    EXPECT_TRUE(NURI::Resolve("x:/a/b", "..//g", target));
    EXPECT_EQ(target, "x:/.//g");
}

TEST(URI, DecomposesEveryComponentAndComposesTheSameText) {
    NURIParts p;
    ASSERT_TRUE(NURI::Decompose("http://user:pw@[::1]:8080/LAPI/V1.0?a=1&b#frag", p));
    EXPECT_EQ(p.scheme, "http");
    EXPECT_EQ(p.userinfo, "user:pw");
    EXPECT_EQ(p.host, "[::1]");
    EXPECT_EQ(p.port, "8080");
    EXPECT_EQ(p.path, "/LAPI/V1.0");
    EXPECT_EQ(p.query, "a=1&b");
    EXPECT_EQ(p.fragment, "frag");
    for (const char* text : {"http://127.0.0.1", "http://h?", "http://h#", "http://@h:/",
                             "file:///etc/x", "mailto:a@b", "a/b?c#d", "", "//h", "?q"}) {
        ASSERT_TRUE(NURI::Decompose(text, p)) << text;
        EXPECT_EQ(NURI::Compose(p), text);
    }
    for (const char* bad : {"1http://h", ":nope", "http://h:8o/", "http://[::1/", "http://h/a b",
                            "http://h/%4", "http://h/%zz", "http://h/\x01", "a#b#c", "http://h^/"})
        EXPECT_FALSE(NURI::Decompose(bad, p)) << bad;
}

// RFC 3986, 2.1-2.4: unreserved characters are never encoded, everything
// else is, as upper-case hex; decoding accepts either case.
TEST(URI, PercentEncodingFollowsTheReservedAndUnreservedSets) {
    EXPECT_EQ(NURI::URLEncode("AZaz09-._~"), "AZaz09-._~");
    EXPECT_EQ(NURI::URLEncode(":/?#[]@!$&'()*+,;="),
              "%3A%2F%3F%23%5B%5D%40%21%24%26%27%28%29%2A%2B%2C%3B%3D");
    EXPECT_EQ(NURI::URLEncode("a b/c%", "/"), "a%20b/c%25");
    EXPECT_EQ(NURI::URLEncode(std::string("\0\xff", 2)), "%00%FF");
    std::string out;
    EXPECT_TRUE(NURI::URLDecode("a%20b%2fc%2F%e2%82%ac", out));
    EXPECT_EQ(out, "a b/c/\xe2\x82\xac");
    out = "kept";
    for (const char* bad : {"%", "%2", "%2g", "a%"})
        EXPECT_FALSE(NURI::URLDecode(bad, out)) << bad;
    EXPECT_EQ(out, "kept");
    for (char c : std::string(":/?#[]@!$&'()*+,;="))
        EXPECT_TRUE(NURI::IsReserved(c) && !NURI::IsUnreserved(c)) << c;
    for (char c : std::string("%\" <>\\^`{|}"))
        EXPECT_FALSE(NURI::IsReserved(c) || NURI::IsUnreserved(c)) << c;
}
