#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <wlog/wlog.h>

namespace {

std::string readAndRemove(const char* path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    unlink(path);
    return text.str();
}

}  // namespace

// The built-in writer keeps the lines of concurrent writers whole and each writer's in order (one write(2) per
// line), and cuts an overlong text rather than splitting it.
TEST(Wlog, BuiltInWriterNeverInterleavesOrSplitsLines)
{
    char path[] = "/tmp/wlog_lines_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    fflush(stderr);
    const int savedStderr = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
    const int savedLevel = wlog_set_level(WLOG_DEBUG);
    std::vector<std::thread> writers;
    for (int t = 0; t < 8; ++t) {
        writers.emplace_back([t] {
            const std::string payload(50 + t * 97, static_cast<char>('a' + t));  // lengths differ, so a torn line shows
            for (int i = 0; i < 2000; ++i) {
                wlog_format(WLOG_INFO, "STREAMinfo", "writer=%d seq=%d payload=%s end", t, i, payload.c_str());
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    wlog_format(WLOG_ERROR, "LONG", "%s", std::string(20000, 'z').c_str());
    dup2(savedStderr, STDERR_FILENO);
    close(savedStderr);
    wlog_set_level(savedLevel);

    const std::string text = readAndRemove(path);
    std::istringstream lines(text);
    std::regex format(
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} INFO  STREAMinfo writer=(\d) seq=(\d+) payload=([a-z]+) end$)");
    std::vector<int> nextSeq(8, 0);
    std::string line;
    for (int i = 0; i < 8 * 2000; ++i) {
        std::smatch match;
        ASSERT_TRUE(std::getline(lines, line) && std::regex_match(line, match, format)) << line.substr(0, 200);
        const int writer = std::stoi(match[1]);
        ASSERT_EQ(match[3].length(), static_cast<size_t>(50 + writer * 97));
        ASSERT_EQ(std::stoi(match[2]), nextSeq[writer]++);
    }
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_NE(line.find(" ERROR LONG zzz"), std::string::npos);
    EXPECT_GT(line.size(), 8000u);
    EXPECT_LT(line.size(), 20000u);
    EXPECT_FALSE(std::getline(lines, line)) << "the rest of the cut text went to another line";
    EXPECT_EQ(text.back(), '\n');
}

// The environment configures a fresh process: threshold and target file, by default info and above on
// standard error.
TEST(Wlog, EnvironmentSetsLevelAndFile)
{
    char path[] = "/tmp/wlog_env_XXXXXX";
    close(mkstemp(path));
    const struct {
        std::string command;
        int threshold;
    } cases[] = {
        {std::string("WLOG_LEVEL=4 WLOG_FILE=") + path + " " + WLOG_PROBE_PATH, WLOG_WARN},
        {std::string("env -u WLOG_LEVEL -u WLOG_FILE ") + WLOG_PROBE_PATH + " 2>" + path, WLOG_INFO},
    };
    const char* written[] = {"DEBUG PROBE line 2\n", "INFO  PROBE line 3\n", "WARN  PROBE line 4\n",
                             "ERROR PROBE line 5\n"};
    for (const auto& c : cases) {
        ASSERT_EQ(system(c.command.c_str()), 0);
        const std::string text = readAndRemove(path);
        for (int level = WLOG_DEBUG; level <= WLOG_ERROR; ++level) {
            EXPECT_EQ(text.find(written[level - WLOG_DEBUG]) != std::string::npos, level >= c.threshold)
                << c.command << ": " << written[level - WLOG_DEBUG];
        }
    }
}
