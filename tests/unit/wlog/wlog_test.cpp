#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <wlog/wlog.h>

namespace {

struct Captured {
    std::mutex lock;
    std::vector<std::pair<int, std::string>> lines;
};

void capture(int level, const char* module, const char* text, void* user)
{
    Captured* captured = static_cast<Captured*>(user);
    std::lock_guard<std::mutex> guard(captured->lock);
    captured->lines.emplace_back(level, std::string(module) + "|" + text);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Restores the level and the output function a test changed.
class WlogTest : public ::testing::Test {
protected:
    void SetUp() override { savedLevel_ = wlog_get_level(); }
    void TearDown() override
    {
        wlog_set_output(nullptr, nullptr);
        wlog_set_level(savedLevel_);
    }
    int savedLevel_ = WLOG_INFO;
};

}  // namespace

TEST_F(WlogTest, ThresholdFiltersLowerLevelsAndFormatsTheRest)
{
    Captured captured;
    wlog_set_output(capture, &captured);
    wlog_set_level(WLOG_WARN);
    wlog_format(WLOG_DEBUG, "M", "debug %d", 1);
    wlog_format(WLOG_INFO, "M", "info %d", 2);
    wlog_format(WLOG_WARN, "M", "warn %s=%d", "x", 3);
    wlog_format(WLOG_ERROR, "M", "error %05.1f", 2.5);
    ASSERT_EQ(captured.lines.size(), 2u);
    EXPECT_EQ(captured.lines[0], std::make_pair(4, std::string("M|warn x=3")));
    EXPECT_EQ(captured.lines[1], std::make_pair(5, std::string("M|error 002.5")));

    EXPECT_FALSE(wlog_enabled(WLOG_INFO));
    EXPECT_TRUE(wlog_enabled(WLOG_WARN));
    EXPECT_EQ(wlog_set_level(WLOG_DEBUG), WLOG_WARN);
    EXPECT_TRUE(wlog_enabled(WLOG_DEBUG));
}

TEST_F(WlogTest, LevelIsClampedToTheKnownRange)
{
    wlog_set_level(99);
    EXPECT_EQ(wlog_get_level(), WLOG_ERROR);
    wlog_set_level(-3);
    EXPECT_EQ(wlog_get_level(), WLOG_DEBUG);
}

TEST_F(WlogTest, OverlongTextIsCutNotSplit)
{
    Captured captured;
    wlog_set_output(capture, &captured);
    wlog_set_level(WLOG_DEBUG);
    std::string longText(20000, 'a');
    wlog_format(WLOG_INFO, "M", "%s", longText.c_str());
    ASSERT_EQ(captured.lines.size(), 1u);
    EXPECT_GT(captured.lines[0].second.size(), 1000u);
    EXPECT_LT(captured.lines[0].second.size(), longText.size());
}

// The built-in writer must keep lines of concurrent writers whole: one write(2)
// per line. Standard error is redirected to a file for the test.
TEST_F(WlogTest, ConcurrentWritersNeverInterleaveLines)
{
    char path[] = "/tmp/wlog_interleave_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    fflush(stderr);
    int savedStderr = dup(STDERR_FILENO);
    ASSERT_EQ(dup2(fd, STDERR_FILENO), STDERR_FILENO);
    wlog_set_level(WLOG_DEBUG);

    const int threads = 8;
    const int linesPerThread = 2000;
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t) {
        writers.emplace_back([t] {
            // Lines of different lengths make torn writes visible.
            std::string payload(50 + t * 97, (char)('a' + t));
            for (int i = 0; i < linesPerThread; ++i) {
                wlog_format(WLOG_INFO, "STREAMinfo", "writer=%d seq=%d payload=%s end", t, i, payload.c_str());
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    dup2(savedStderr, STDERR_FILENO);
    close(savedStderr);
    close(fd);

    std::string text = readFile(path);
    unlink(path);
    std::regex line(
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} INFO  STREAMinfo writer=(\d) seq=(\d+) payload=([a-z]+) end$)");
    std::map<int, int> nextSeq;
    std::istringstream lines(text);
    std::string current;
    int count = 0;
    while (std::getline(lines, current)) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(current, match, line)) << current.substr(0, 200);
        int writer = std::stoi(match[1]);
        ASSERT_EQ(match[3].length(), (size_t)(50 + writer * 97));
        ASSERT_EQ(std::stoi(match[2]), nextSeq[writer]++);  // each writer's lines stay in order
        ++count;
    }
    EXPECT_EQ(count, threads * linesPerThread);
}

// The environment configures a fresh process: threshold and target file.
TEST_F(WlogTest, EnvironmentSetsLevelAndFile)
{
    char path[] = "/tmp/wlog_env_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string command = std::string("WLOG_LEVEL=4 WLOG_FILE=") + path + " " + WLOG_PROBE_PATH;
    ASSERT_EQ(system(command.c_str()), 0);
    std::string text = readFile(path);
    unlink(path);
    EXPECT_EQ(text.find("debug line"), std::string::npos);
    EXPECT_EQ(text.find("info line"), std::string::npos);
    EXPECT_NE(text.find("WARN  PROBEwarn warn line 4\n"), std::string::npos);
    EXPECT_NE(text.find("ERROR PROBEerror error line 5\n"), std::string::npos);
}

TEST_F(WlogTest, DefaultsToInfoOnStandardError)
{
    char path[] = "/tmp/wlog_default_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string command = std::string("env -u WLOG_LEVEL -u WLOG_FILE ") + WLOG_PROBE_PATH + " 2>" + path;
    ASSERT_EQ(system(command.c_str()), 0);
    std::string text = readFile(path);
    unlink(path);
    EXPECT_EQ(text.find("debug line"), std::string::npos);
    EXPECT_NE(text.find("INFO  PROBEinfo info line 3\n"), std::string::npos);
    EXPECT_NE(text.find("ERROR PROBEerror error line 5\n"), std::string::npos);
}
