#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "IdentifyTestEnv.h"

namespace {

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

size_t EntriesIn(const std::string& dir)
{
    auto entries = std::filesystem::directory_iterator(dir);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

using IdentifyKeyFileTest = IdentifyTest;

TEST_F(IdentifyKeyFileTest, CreatedPrivateOnFirstStartAndReused)
{
    ASSERT_EQ(Identify_Init(), 0);
    struct stat info;
    ASSERT_EQ(stat(KeyPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_size, 32);
    EXPECT_EQ(EntriesIn(m_dir), 1u);  // no temporary file left behind
    const std::string key = ReadFile(KeyPath());
    const std::vector<unsigned char> token = IssueToken();
    ASSERT_EQ(Identify_Fini(), 0);
    ASSERT_EQ(Identify_Init(), 0);
    EXPECT_EQ(ReadFile(KeyPath()), key);
    EXPECT_EQ(CheckToken(token), 0);
}

TEST_F(IdentifyKeyFileTest, DamagedOrUnusableKeyFileStopsTheStart)
{
    std::ofstream(KeyPath(), std::ios::binary) << std::string(31, 'k');
    EXPECT_EQ(Identify_Init(), IDENTIFY_E_KEY_FILE);
    EXPECT_EQ(ReadFile(KeyPath()), std::string(31, 'k'));  // never replaced by a new key
    setenv("IDENTIFY_KEY_FILE", "/dev/null/key", 1);       // nowhere to create one, even for root
    EXPECT_EQ(Identify_Init(), IDENTIFY_E_KEY_FILE);
}

// Processes released at the same moment all try to create the key; each must
// end up issuing tokens under the one key that was published first.
TEST_F(IdentifyKeyFileTest, ProcessesStartingTogetherShareOneKey)
{
    constexpr int kProcesses = 6;
    int release[2];
    int tokens[2];
    ASSERT_EQ(pipe(release), 0);
    ASSERT_EQ(pipe(tokens), 0);
    pid_t children[kProcesses];
    for (pid_t& child : children) {
        child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(release[1]);
            char ignored;
            (void)!read(release[0], &ignored, 1);  // returns when the parent closes its end
            unsigned char token[128];
            int length = sizeof(token);
            const bool issued = Identify_Init() == 0 && Identify_Apply(0, 0, token, &length) == 0;
            _exit(issued && write(tokens[1], token, static_cast<size_t>(length)) == length ? 0 : 1);
        }
    }
    close(release[0]);
    close(release[1]);
    close(tokens[1]);
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    ASSERT_EQ(Identify_Init(), 0);
    std::vector<unsigned char> token(IssueToken().size());
    int received = 0;
    for (; read(tokens[0], token.data(), token.size()) == static_cast<ssize_t>(token.size()); ++received) {
        EXPECT_EQ(CheckToken(token), 0) << "token " << received;
    }
    close(tokens[0]);
    EXPECT_EQ(received, kProcesses);
    EXPECT_EQ(EntriesIn(m_dir), 1u);
}

}  // namespace
