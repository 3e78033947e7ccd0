#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <HttpProtocolWrapper.h>
#include <identify/Identify.h>

#include "auth/IdentityCodes.h"

using namespace HttpWrapper;

namespace {

// Each test gets its own key file; the library is left stopped whatever the
// test did.
class IdentityTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "identity-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_dir = pattern;
        setenv("IDENTIFY_KEY_FILE", (m_dir + "/key").c_str(), 1);
        unsetenv("IDENTIFY_TOKEN_TTL");
    }

    void TearDown() override
    {
        while (Identify_Fini() == 0) {
        }
        std::filesystem::remove_all(m_dir);
    }

    std::string m_dir;
};

TEST_F(IdentityTest, SwitchedOffEveryTokenPassesAndNoneIsIssued)
{
    EXPECT_EQ(IdentifyWrapper_Init(false), 0);
    EXPECT_EQ(IdentifyWrapper_Check(nullptr, false), 0);
    EXPECT_EQ(IdentifyWrapper_Check("not base64 at all", false), 0);
    char out[256];
    int outLen = -7;
    EXPECT_EQ(IdentifyWrapper_Apply(out, sizeof(out), outLen, false), IDW_ERR_TOKENS_OFF);
    EXPECT_EQ(outLen, -7);
    // Switched off, Init left the library stopped.
    EXPECT_EQ(IdentifyWrapper_Apply(out, sizeof(out), outLen, true), IDENTIFY_E_NOT_INIT);
    EXPECT_EQ(IdentifyWrapper_Fini(false), 0);
}

TEST_F(IdentityTest, MissingOrUndecodableArgumentsAreRefused)
{
    ASSERT_EQ(IdentifyWrapper_Init(true), 0);
    EXPECT_EQ(IdentifyWrapper_Check(nullptr, true), IDW_ERR_NO_TOKEN);
    EXPECT_EQ(IdentifyWrapper_Check("", true), IDW_ERR_NO_TOKEN);
    EXPECT_EQ(IdentifyWrapper_Check("TW=E", true), IDW_ERR_BAD_BASE64);
    EXPECT_EQ(IdentifyWrapper_Check("TWFu", true), IDENTIFY_E_MALFORMED);  // the library's verdict
    char out[8];
    int outLen = 0;
    EXPECT_EQ(IdentifyWrapper_Apply(nullptr, 200, outLen, true), IDW_ERR_OUT_BUFFER);
    EXPECT_EQ(IdentifyWrapper_Apply(out, 0, outLen, true), IDW_ERR_OUT_BUFFER);
}

// The library's tokens are 73 bytes, 100 characters of Base64.
TEST_F(IdentityTest, TooSmallBufferIsAnsweredWithTheTextSizeAndTheTextMustFit)
{
    ASSERT_EQ(IdentifyWrapper_Init(true), 0);
    char small[4];
    int outLen = -1;
    // Four characters leave room for three raw bytes; the library wants 73.
    EXPECT_EQ(IdentifyWrapper_Apply(small, sizeof(small), outLen, true), (73 / 3 + 1) * 4);
    EXPECT_EQ(outLen, -1);

    std::vector<char> exact(100);  // no byte to spare: the sanitizer sees any overrun
    ASSERT_EQ(IdentifyWrapper_Apply(exact.data(), 100, outLen, true), 0);
    EXPECT_EQ(outLen, 100);
    const std::string token(exact.begin(), exact.end());
    EXPECT_EQ(IdentifyWrapper_Check(token.c_str(), true), 0);

    // 99 characters hold 73 raw bytes, but not their 100 characters of text.
    std::vector<char> shortOne(99, 'x');
    outLen = 0;
    EXPECT_EQ(IdentifyWrapper_Apply(shortOne.data(), 99, outLen, true), IDW_ERR_OUT_BUFFER);
    EXPECT_EQ(outLen, 0);
    EXPECT_EQ(shortOne, std::vector<char>(99, 'x'));

    EXPECT_EQ(IdentifyWrapper_Fini(true), 0);
    EXPECT_EQ(IdentifyWrapper_Check(token.c_str(), true), IDENTIFY_E_NOT_INIT);
}

}  // namespace
