// The MD5 wrapper's own contract over the crypto library: one-shot and
// incremental digests agree, hex is lower case, an unstarted context refuses.
// The hex form inside a Digest response is pinned by the helper's tests.
#include <gtest/gtest.h>

#include <string>

#include "auth/Md5.h"

using namespace HttpWrapper;

TEST(Md5, OneShotIncrementalAndHexAgreeAndAnUnstartedContextRefuses)
{
    const std::string text = "message digest";
    EXPECT_STREQ(MD5_sign(text.c_str(), text.size()), "f96b697d7cb7938d525a2f31aaf161d0");
    tagMD5Context context;
    unsigned char digest[MD5_DIGEST_SIZE];
    for (int round = 0; round < 2; ++round) {  // a context is reusable
        ASSERT_EQ(MD5_init(&context), 0);
        for (char c : text) {
            ASSERT_EQ(MD5_update(&context, &c, 1), 0);
        }
        ASSERT_EQ(MD5_fini(digest, &context), 0);
        EXPECT_EQ(digest[0], 0xf9);
        EXPECT_EQ(digest[15], 0xd0);
    }
    tagMD5Context unstarted;
    EXPECT_EQ(MD5_update(&unstarted, "x", 1), -1);
    EXPECT_EQ(MD5_fini(digest, &unstarted), -1);
}
