#include <stdint.h>

#include <chrono>
#include <thread>

#include "IdentifyTestEnv.h"

namespace {

// Offsets in a token, as Identify.h lays it out.
constexpr int kTokenSize = 73;
constexpr size_t kIssuedOffset = 9;
constexpr size_t kExpiresOffset = 17;

int64_t LifetimeMs(const std::vector<unsigned char>& token)
{
    int64_t lifetime = 0;
    for (size_t i = 0; i < 8; ++i) {
        lifetime = (lifetime << 8) + token[kExpiresOffset + i] - token[kIssuedOffset + i];
    }
    return lifetime;
}

using IdentifyTokenTest = IdentifyTest;

TEST_F(IdentifyTokenTest, IssuedTokensCheckAndDiffer)
{
    ASSERT_EQ(Identify_Init(), 0);
    const std::vector<unsigned char> first = IssueToken();
    const std::vector<unsigned char> second = IssueToken();
    ASSERT_EQ(first.size(), static_cast<size_t>(kTokenSize));
    EXPECT_EQ(CheckToken(first), 0);
    EXPECT_EQ(CheckToken(second), 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(LifetimeMs(first), 300000);
}

TEST_F(IdentifyTokenTest, TooSmallBufferIsLeftAloneAndTheNeededLengthReported)
{
    ASSERT_EQ(Identify_Init(), 0);
    std::vector<unsigned char> buffer(kTokenSize, 0xAB);
    int length = kTokenSize - 1;
    EXPECT_EQ(Identify_Apply(0, 0, buffer.data(), &length), IDENTIFY_E_BUFFER_SMALL);
    EXPECT_EQ(length, kTokenSize);
    EXPECT_EQ(buffer, std::vector<unsigned char>(kTokenSize, 0xAB));
    length = -1;
    EXPECT_EQ(Identify_Apply(0, 0, nullptr, &length), IDENTIFY_E_BUFFER_SMALL);
    EXPECT_EQ(length, kTokenSize);
    EXPECT_EQ(Identify_Apply(1, 0, buffer.data(), &length), IDENTIFY_E_PARAM);
}

TEST_F(IdentifyTokenTest, AlteredOrMisSizedTokensAreRefused)
{
    ASSERT_EQ(Identify_Init(), 0);
    std::vector<unsigned char> token = IssueToken();
    for (size_t i = 0; i < token.size(); ++i) {
        std::vector<unsigned char> altered = token;
        altered[i] ^= 0x01;
        const int expected = i == 0              ? IDENTIFY_E_MALFORMED
                             : i < kIssuedOffset ? IDENTIFY_E_WRONG_KEY
                                                 : IDENTIFY_E_BAD_SIGNATURE;
        EXPECT_EQ(CheckToken(altered), expected) << "byte " << i;
    }
    token.push_back(0);
    for (int length : {-1, 0, kTokenSize - 1, kTokenSize + 1}) {
        EXPECT_EQ(Identify_Check(0, 0, token.data(), length), IDENTIFY_E_MALFORMED) << length;
    }
    EXPECT_EQ(Identify_Check(0, 0, nullptr, kTokenSize), IDENTIFY_E_PARAM);
}

TEST_F(IdentifyTokenTest, ExpiredTokenIsRefused)
{
    setenv("IDENTIFY_TOKEN_TTL", "0.001", 1);
    ASSERT_EQ(Identify_Init(), 0);
    const std::vector<unsigned char> token = IssueToken();
    EXPECT_EQ(LifetimeMs(token), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(CheckToken(token), IDENTIFY_E_EXPIRED);
}

TEST_F(IdentifyTokenTest, UnusableLifetimeStopsTheStart)
{
    for (const char* text : {"0", "-1", "1.", "1.2345", "5s", "604801", "99999999999999999999"}) {
        setenv("IDENTIFY_TOKEN_TTL", text, 1);
        EXPECT_EQ(Identify_Init(), IDENTIFY_E_CONFIG) << text;
    }
    setenv("IDENTIFY_TOKEN_TTL", "2.5", 1);
    ASSERT_EQ(Identify_Init(), 0);
    EXPECT_EQ(LifetimeMs(IssueToken()), 2500);
}

TEST_F(IdentifyTokenTest, TokenOfAnotherKeyIsRefused)
{
    ASSERT_EQ(Identify_Init(), 0);
    const std::vector<unsigned char> token = IssueToken();
    ASSERT_EQ(Identify_Fini(), 0);
    setenv("IDENTIFY_KEY_FILE", KeyPath("other").c_str(), 1);
    ASSERT_EQ(Identify_Init(), 0);
    EXPECT_EQ(CheckToken(token), IDENTIFY_E_WRONG_KEY);
}

TEST_F(IdentifyTokenTest, StartsAreCountedAndNothingWorksWithoutOne)
{
    int length = kTokenSize;
    EXPECT_EQ(Identify_Apply(0, 0, nullptr, &length), IDENTIFY_E_NOT_INIT);
    EXPECT_EQ(Identify_Fini(), IDENTIFY_E_NOT_INIT);
    ASSERT_EQ(Identify_Init(), 0);
    ASSERT_EQ(Identify_Init(), 0);
    const std::vector<unsigned char> token = IssueToken();
    ASSERT_EQ(Identify_Fini(), 0);
    EXPECT_EQ(CheckToken(token), 0);
    ASSERT_EQ(Identify_Fini(), 0);
    EXPECT_EQ(CheckToken(token), IDENTIFY_E_NOT_INIT);
}

TEST_F(IdentifyTokenTest, ThreadsIssueAndCheckTogether)
{
    ASSERT_EQ(Identify_Init(), 0);
    int failures[4] = {};
    std::thread threads[4];
    for (int t = 0; t < 4; ++t) {
        threads[t] = std::thread([&failed = failures[t]] {
            for (int i = 0; i < 200; ++i) {
                failed += CheckToken(IssueToken()) != 0;
            }
        });
    }
    for (int t = 0; t < 4; ++t) {
        threads[t].join();
        EXPECT_EQ(failures[t], 0);
    }
}

}  // namespace
