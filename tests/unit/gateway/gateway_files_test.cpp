// What the gateway reads from disk is a regular file, read without waiting,
// within bounds; a reload that cannot read everything changes nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "base/JsonFile.h"
#include "base/Logger.h"
#include "base/RegularFile.h"
#include "media_fixture.h"

namespace {
const std::string kDevice = "0a1b2c3d-0000-4000-8000-00000000c0de";
const char kIndex[] =
    R"({"recordings":[{"name":"a.bin","starttime":"20260101T000000Z","endtime":"20260101T010000Z"}]})";
}  // namespace

TEST_F(MediaFixture, OnlyARegularFileIsOpenedAndNothingWaits)
{
    const std::string file = folder + "/file.json";
    std::ofstream(file) << "{}";
    const std::string fifo = folder + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string link = folder + "/link";
    ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);

    std::string error;
    int fd = openRegularFile(link, FileLinks::kFollow, error);
    ASSERT_GE(fd, 0) << error;
    close(fd);
    EXPECT_EQ(openRegularFile(link, FileLinks::kRefused, error), -1);
    EXPECT_NE(error.find("symbolic link"), std::string::npos) << error;
    EXPECT_EQ(openRegularFile(fifo, FileLinks::kFollow, error), -1);  // returns at once, no writer needed
    EXPECT_EQ(error, fifo + ": is not a regular file");
    EXPECT_EQ(openRegularFile(folder, FileLinks::kFollow, error), -1);
    std::string text;
    EXPECT_FALSE(readRegularFile(folder + "/missing", 10, text, error));
    std::ofstream(file) << std::string(11, ' ');
    EXPECT_FALSE(readRegularFile(file, 10, text, error));
}

// The JSON reader's depth is bounded twice: by a count of every bracket before
// it runs, and by its own stack limit, whose exception becomes an error.
TEST(JsonFile, NestingIsAnErrorNeverAnException)
{
    Json::Value root;
    std::string error;
    const std::string deep = "{\"a\":" + std::string(1001, '[') + std::string(1001, ']') + "}";
    EXPECT_FALSE(parseJsonText(deep, 100000, root, error));
    EXPECT_NE(error.find("deeper than"), std::string::npos) << error;
    EXPECT_FALSE(parseJsonText(deep, 100, root, error));
    EXPECT_NE(error.find("more than 100"), std::string::npos) << error;
    EXPECT_FALSE(parseJsonText("{\"a\"://\r[[\n]]}", 100, root, error)) << "no comments";
    EXPECT_TRUE(
        parseJsonText(std::string(kMaxJsonDepth - 1, '[') + std::string(kMaxJsonDepth - 1, ']'), 100, root, error))
        << error;
}

TEST_F(MediaFixture, AReloadThatCannotReadAnIndexChangesNothing)
{
    addDevice(device(kDevice, 554), kIndex, {{"a.bin", "recording"}});
    MediaLibrary running;
    std::string error;
    ASSERT_TRUE(running.load(folder, devices, log, error)) << error;
    const std::string index = folder + "/" + kDevice + "/" + kRecordingIndexFile;

    std::ofstream(index) << R"({"recordings": [)";
    MediaLibrary fresh;
    EXPECT_TRUE(fresh.load(folder, devices, log, error)) << "at start, the device is left empty";
    EXPECT_FALSE(fresh.load(folder, devices, log, error, false, &running)) << "a reload is refused";
    ASSERT_EQ(unlink(index.c_str()), 0);
    EXPECT_FALSE(fresh.load(folder, devices, log, error, false, &running));
    EXPECT_NE(error.find("is gone"), std::string::npos) << error;

    // A recording that is a link is not the device's, even when it points at one of its files.
    std::ofstream(index) << R"({"recordings":[{"name":"l.bin","starttime":"20260101T000000Z",)"
                            R"("endtime":"20260101T010000Z"}]})";
    ASSERT_EQ(symlink("a.bin", (folder + "/" + kDevice + "/l.bin").c_str()), 0);
    ASSERT_TRUE(fresh.load(folder, devices, log, error, false, &running)) << error;
    EXPECT_TRUE(fresh.findByIndex(kDevice)->recordings.empty());
}

TEST(Logger, EveryControlByteIsEscapedSoAnEventStaysOneLine)
{
    const std::string line = "a\nb\r\x1b[31m\x7f\t\xe9";
    EXPECT_EQ(escapeControlBytes(line.data(), line.size()), "a\\x0ab\\x0d\\x1b[31m\\x7f\\x09\xe9");
    EXPECT_EQ(escapeControlBytes("a\0b", 3), "a\\x00b");
}
