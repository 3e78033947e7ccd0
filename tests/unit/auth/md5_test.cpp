#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "auth/Md5.h"

using namespace HttpWrapper;

TEST(Md5, Rfc1321TestSuite)
{
    const struct {
        const char* text;
        const char* digest;
    } kVectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& vector : kVectors) {
        EXPECT_STREQ(MD5_sign(vector.text, std::strlen(vector.text)), vector.digest) << vector.text;
    }
}

TEST(Md5, IncrementalContextMatchesOneShotAndIsReusable)
{
    const std::string text = "message digest";
    tagMD5Context context;
    unsigned char digest[MD5_DIGEST_SIZE];
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(MD5_init(&context), 0);
        for (char c : text) {
            ASSERT_EQ(MD5_update(&context, &c, 1), 0);
        }
        ASSERT_EQ(MD5_fini(digest, &context), 0);
        EXPECT_EQ(digest[0], 0xf9);
        EXPECT_EQ(digest[15], 0xd0);
    }
    char hex[MD5_HEX_SIZE];
    EXPECT_EQ(MD5_hex("abc", 3, hex), 0);
    EXPECT_STREQ(hex, "900150983cd24fb0d6963f7d28e17f72");

    tagMD5Context unstarted;
    EXPECT_EQ(MD5_update(&unstarted, "x", 1), -1);
    EXPECT_EQ(MD5_fini(digest, &unstarted), -1);
}
