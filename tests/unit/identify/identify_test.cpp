// The identity-token library: the key file its processes share, and the tokens issued and checked under it.
#include <endian.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <identify/Identify.h>

namespace {

using Token = std::vector<unsigned char>;
constexpr int kTokenSize = 73;
constexpr size_t kIssuedOffset = 9;  // issue time, then expiry: 8 bytes each, milliseconds, big-endian

int64_t LifetimeMs(const Token& token)
{
    uint64_t times[2];
    memcpy(times, &token[kIssuedOffset], sizeof(times));
    return static_cast<int64_t>(be64toh(times[1]) - be64toh(times[0]));
}

Token Issue()
{
    Token token(128);
    int length = static_cast<int>(token.size());
    EXPECT_EQ(Identify_Apply(0, 0, token.data(), &length), 0);
    token.resize(static_cast<size_t>(length));
    return token;
}

int Check(const Token& token)
{
    return Identify_Check(0, 0, token.data(), static_cast<int>(token.size()));
}

// A private key folder per test, named to the library through the environment, and a library left stopped
// at the end whatever the test did.
class IdentifyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(mkdtemp(m_dir.data()), nullptr);
        setenv("IDENTIFY_KEY_FILE", KeyPath().c_str(), 1);
        unsetenv("IDENTIFY_TOKEN_TTL");
    }

    void TearDown() override
    {
        while (Identify_Fini() == 0) {
        }
        std::filesystem::remove_all(m_dir);
    }

    std::string KeyPath(const char* name = "key") const { return m_dir + "/" + name; }
    long FilesInDir() const { return std::distance(std::filesystem::directory_iterator(m_dir), {}); }

    std::string m_dir = ::testing::TempDir() + "identify-XXXXXX";
};

TEST_F(IdentifyTest, StartsAreCountedAndTheKeyFileIsCreatedPrivateAndReusedAndAnotherKeyRefusesTheTokens)
{
    int length = kTokenSize;
    EXPECT_EQ(Identify_Apply(0, 0, nullptr, &length), IDENTIFY_E_NOT_INIT);
    EXPECT_EQ(Identify_Fini(), IDENTIFY_E_NOT_INIT);
    ASSERT_EQ(Identify_Init(), 0);
    ASSERT_EQ(Identify_Init(), 0);
    struct stat info;
    ASSERT_EQ(stat(KeyPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_size, 32);
    EXPECT_EQ(FilesInDir(), 1);  // no temporary file left behind
    const Token token = Issue();
    ASSERT_EQ(Identify_Fini(), 0);
    EXPECT_EQ(Check(token), 0) << "one start is left";
    ASSERT_EQ(Identify_Fini(), 0);
    EXPECT_EQ(Check(token), IDENTIFY_E_NOT_INIT);
    ASSERT_EQ(Identify_Init(), 0);
    EXPECT_EQ(Check(token), 0) << "the key was not reused";

    ASSERT_EQ(Identify_Fini(), 0);
    setenv("IDENTIFY_KEY_FILE", KeyPath("other").c_str(), 1);
    ASSERT_EQ(Identify_Init(), 0);
    EXPECT_EQ(Check(token), IDENTIFY_E_WRONG_KEY);
}

TEST_F(IdentifyTest, DamagedOrUnusableKeyFileStopsTheStart)
{
    std::ofstream(KeyPath(), std::ios::binary) << std::string(31, 'k');
    EXPECT_EQ(Identify_Init(), IDENTIFY_E_KEY_FILE);
    EXPECT_EQ(std::filesystem::file_size(KeyPath()), 31u);  // never replaced by a new key
    setenv("IDENTIFY_KEY_FILE", "/dev/null/key", 1);        // nowhere to create one, even for root
    EXPECT_EQ(Identify_Init(), IDENTIFY_E_KEY_FILE);
}

// Processes released at the same moment all try to create the key; each must end up issuing tokens under
// the one key that was published first.
TEST_F(IdentifyTest, ProcessesStartingTogetherShareOneKey)
{
    int release[2];
    int tokens[2];
    ASSERT_EQ(pipe(release) | pipe(tokens), 0);
    std::vector<pid_t> children(6);
    for (pid_t& child : children) {
        if ((child = fork()) == 0) {
            char ignored;
            close(release[1]);
            static_cast<void>(read(release[0], &ignored, 1) == 0);  // returns when the parent closes its end
            unsigned char token[128];
            int length = sizeof(token);
            const bool issued = Identify_Init() == 0 && Identify_Apply(0, 0, token, &length) == 0;
            _exit(issued && write(tokens[1], token, static_cast<size_t>(length)) == length ? 0 : 1);
        }
        ASSERT_GT(child, 0);
    }
    close(release[0]);
    close(release[1]);
    close(tokens[1]);
    for (pid_t child : children) {
        int status = 0;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    ASSERT_EQ(Identify_Init(), 0);
    Token token(kTokenSize);
    size_t received = 0;
    for (; read(tokens[0], token.data(), token.size()) == kTokenSize; ++received) {
        EXPECT_EQ(Check(token), 0) << "token " << received;
    }
    close(tokens[0]);
    EXPECT_EQ(received, children.size());
    EXPECT_EQ(FilesInDir(), 1);
}

TEST_F(IdentifyTest, IssuedTokensCheckAndDifferAndASmallBufferIsLeftAlone)
{
    ASSERT_EQ(Identify_Init(), 0);
    const Token first = Issue();
    EXPECT_EQ(Check(first), 0);
    EXPECT_NE(Issue(), first);
    EXPECT_EQ(LifetimeMs(first), 300000) << "the default lifetime";

    Token buffer(kTokenSize, 0xAB);
    int length = 0;
    // A null buffer is a question for the size, answered like a small one.
    for (unsigned char* out : {buffer.data(), static_cast<unsigned char*>(nullptr)}) {
        length = out != nullptr ? kTokenSize - 1 : kTokenSize;
        EXPECT_EQ(Identify_Apply(0, 0, out, &length), IDENTIFY_E_BUFFER_SMALL);
        EXPECT_EQ(length, kTokenSize);
    }
    EXPECT_EQ(buffer, Token(kTokenSize, 0xAB));
    EXPECT_EQ(Identify_Apply(1, 0, buffer.data(), &length), IDENTIFY_E_PARAM);
}

TEST_F(IdentifyTest, AlteredOrMisSizedTokensAreRefused)
{
    ASSERT_EQ(Identify_Init(), 0);
    Token token = Issue();
    for (size_t i = 0; i < token.size(); ++i) {
        Token altered = token;
        altered[i] ^= 0x01;
        const int expected =
            i == 0 ? IDENTIFY_E_MALFORMED : (i < kIssuedOffset ? IDENTIFY_E_WRONG_KEY : IDENTIFY_E_BAD_SIGNATURE);
        EXPECT_EQ(Check(altered), expected) << "byte " << i;
    }
    token.push_back(0);
    for (int length : {-1, 0, kTokenSize - 1, kTokenSize + 1}) {
        EXPECT_EQ(Identify_Check(0, 0, token.data(), length), IDENTIFY_E_MALFORMED) << length;
    }
    EXPECT_EQ(Identify_Check(0, 0, nullptr, kTokenSize), IDENTIFY_E_PARAM);
}

TEST_F(IdentifyTest, LifetimeIsTakenFromTheEnvironmentAndAnUnusableOneStopsTheStart)
{
    for (const char* text : {"0", "-1", "1.", "1.2345", "5s", "604801", "99999999999999999999"}) {
        setenv("IDENTIFY_TOKEN_TTL", text, 1);
        EXPECT_EQ(Identify_Init(), IDENTIFY_E_CONFIG) << text;
    }
    setenv("IDENTIFY_TOKEN_TTL", "2.5", 1);
    ASSERT_EQ(Identify_Init(), 0);
    EXPECT_EQ(LifetimeMs(Issue()), 2500);
    ASSERT_EQ(Identify_Fini(), 0);
    setenv("IDENTIFY_TOKEN_TTL", "0.001", 1);
    ASSERT_EQ(Identify_Init(), 0);
    const Token token = Issue();
    EXPECT_EQ(LifetimeMs(token), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(Check(token), IDENTIFY_E_EXPIRED);
}

TEST_F(IdentifyTest, ThreadsIssueAndCheckTogether)
{
    ASSERT_EQ(Identify_Init(), 0);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&failures] {
            for (int i = 0; i < 200; ++i) {
                failures += Check(Issue()) != 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
