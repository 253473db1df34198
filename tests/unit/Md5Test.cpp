// MD5 against the RFC 1321 test suite and against OpenSSL as an oracle.
#include "md5.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

std::string hex(const unsigned char *d, size_t n) {
    std::string s;
    char buf[3];
    for (size_t i = 0; i < n; i++) {
        std::snprintf(buf, sizeof buf, "%02x", d[i]);
        s += buf;
    }
    return s;
}

std::string md5Of(const void *data, size_t len) {
    TWK_MD5Context ctx;
    unsigned char out[16];
    TWK_MD5Init(&ctx);
    TWK_MD5Update(&ctx, data, static_cast<uint32_t>(len));
    TWK_MD5Final(out, &ctx);
    return hex(out, 16);
}

std::string opensslMd5(const void *data, size_t len) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EXPECT_EQ(EVP_Digest(data, len, out, &n, EVP_md5(), nullptr), 1);
    return hex(out, n);
}

std::vector<unsigned char> randomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<unsigned char> v(n);
    for (auto &b : v) b = static_cast<unsigned char>(gen());
    return v;
}

TEST(Md5, MatchesTheRfc1321TestSuite) {
    const std::pair<const char *, const char *> suite[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
    };
    for (const auto &[input, digest] : suite)
        EXPECT_EQ(md5Of(input, std::string(input).size()), digest) << '"' << input << '"';
    std::string digits;
    for (int i = 0; i < 8; i++) digits += "1234567890";
    EXPECT_EQ(md5Of(digits.data(), digits.size()), "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, AgreesWithOpensslForEveryLengthUpTo300Bytes) {
    const auto data = randomBytes(300, 1);
    for (size_t len = 0; len <= data.size(); len++)
        ASSERT_EQ(md5Of(data.data(), len), opensslMd5(data.data(), len)) << "length " << len;
}

TEST(Md5, AgreesWithOpensslAroundEveryPaddingBoundary) {
    const auto data = randomBytes(64 * 70 + 8, 2);
    for (size_t block = 0; block < 70; block++) {
        for (size_t off : {54, 55, 56, 57, 63, 64, 65}) {
            const size_t len = block * 64 + off;
            ASSERT_EQ(md5Of(data.data(), len), opensslMd5(data.data(), len)) << "length " << len;
        }
    }
}

TEST(Md5, AgreesWithOpensslOnLargeBuffers) {
    std::mt19937 gen(3);
    for (size_t len :
         {size_t{1} << 20, (size_t{1} << 20) + 55, (size_t{3} << 20) + 17, size_t{4} << 20}) {
        const auto data = randomBytes(len, static_cast<unsigned>(len));
        EXPECT_EQ(md5Of(data.data(), len), opensslMd5(data.data(), len)) << "length " << len;
    }
}

TEST(Md5, PiecewiseUpdatesEqualOneUpdate) {
    const auto data = randomBytes(200000, 4);
    std::mt19937 gen(5);
    for (int round = 0; round < 50; round++) {
        TWK_MD5Context ctx;
        TWK_MD5Init(&ctx);
        size_t pos = 0;
        while (pos < data.size()) {
            size_t n = std::min<size_t>(data.size() - pos, gen() % 200);
            TWK_MD5Update(&ctx, data.data() + pos, static_cast<uint32_t>(n));
            pos += n;
        }
        unsigned char out[16];
        TWK_MD5Final(out, &ctx);
        ASSERT_EQ(hex(out, 16), opensslMd5(data.data(), data.size())) << "round " << round;
    }
}

TEST(Md5, MillionAsInOneByteUpdates) {
    TWK_MD5Context ctx;
    TWK_MD5Init(&ctx);
    for (int i = 0; i < 1000000; i++) TWK_MD5Update(&ctx, "a", 1);
    unsigned char out[16];
    TWK_MD5Final(out, &ctx);
    EXPECT_EQ(hex(out, 16), "7707d6ae4e027c70eea2a935c2296f21");
}

TEST(Md5, UnalignedInputGivesTheSameDigest) {
    const auto data = randomBytes(4096 + 8, 6);
    const std::string expected = opensslMd5(data.data() + 1, 4096);
    std::vector<unsigned char> shifted(data.begin() + 1, data.begin() + 1 + 4096);
    EXPECT_EQ(md5Of(data.data() + 1, 4096), expected);
    EXPECT_EQ(md5Of(shifted.data(), 4096), expected);
}

} // namespace
