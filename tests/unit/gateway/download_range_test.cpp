// The gateway's side of a resumed download: the plug-in's Download-Range head,
// its resolution against a body of the stream head and the file, and which
// bytes of each that means.
#include <gtest/gtest.h>

#include <ext/StreamBlockLayout.h>

#include "download/DownloadRange.h"

namespace {

const uint64_t kFile = 1000;
const uint64_t kBody = kFile + 40;
const std::string kTag = "\"3e8-1-0\"";

}  // namespace

TEST(DownloadRange, ResolvesAgainstTheBodyAndSlicesItIntoStreamHeadAndFile)
{
    const struct {
        const char* head;
        ServedPart::Outcome outcome;
        uint64_t first, last;
        size_t headOffset, headLength;
        uint64_t fileOffset, fileLength;
    } rows[] = {
        {"bytes=0-9", ServedPart::kPart, 0, 9, 0, 10, 0, 0},           // inside the stream head
        {"bytes=20-59", ServedPart::kPart, 20, 59, 20, 20, 0, 20},     // straddling it
        {"bytes=39-40", ServedPart::kPart, 39, 40, 39, 1, 0, 1},       // its last byte and the file's first
        {"bytes=40-99", ServedPart::kPart, 40, 99, 0, 0, 0, 60},       // the file only
        {"bytes=1039-", ServedPart::kPart, 1039, 1039, 0, 0, 999, 1},  // the last byte
        {"bytes=0-18446744073709551615", ServedPart::kPart, 0, 1039, 0, 40, 0, 1000},
        {"bytes=-5", ServedPart::kPart, 1035, 1039, 0, 0, 995, 5},
        {"bytes=-5000", ServedPart::kPart, 0, 1039, 0, 40, 0, 1000},
        {"bytes=1040-", ServedPart::kUnsatisfiable, 0, 0, 0, 0, 0, 0},  // past the end
        {"bytes=18446744073709551615-", ServedPart::kUnsatisfiable, 0, 0, 0, 0, 0, 0},
        {"bytes=-0", ServedPart::kUnsatisfiable, 0, 0, 0, 0, 0, 0},
        {"bytes=40-;if-range=\"3e8-1-0\"", ServedPart::kPart, 40, 1039, 0, 0, 0, 1000},
        {"bytes=40-;if-range=\"3e8-2-0\"", ServedPart::kWhole, 0, 0, 0, 40, 0, 1000},  // another version
        {"bytes=40-;if-range=", ServedPart::kWhole, 0, 0, 0, 40, 0, 1000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.head);
        DownloadRange range;
        ASSERT_TRUE(parseDownloadRange(row.head, range));
        ServedPart part = resolveRange(range, kBody, kTag);
        EXPECT_EQ(part.outcome, row.outcome);
        EXPECT_EQ(part.first, row.first);
        EXPECT_EQ(part.last, row.last);
        BodySlices slices = sliceBody(part, 40, kFile);
        EXPECT_EQ(slices.headOffset, row.headOffset);
        EXPECT_EQ(slices.headLength, row.headLength);
        EXPECT_EQ(slices.fileOffset, row.fileOffset);
        EXPECT_EQ(slices.fileLength, row.fileLength);
    }
}

TEST(DownloadRange, RefusesHeadsThePluginDoesNotWriteAndTagsTellVersionsApart)
{
    for (const char* head : {"", "bytes=", "bytes=-", "bytes=5", "bytes=9-5", "bytes=1-2,4-5", "bytes= 1-2",
                             "bytes=18446744073709551616-", "bytes=1-;x=y", "items=1-2"}) {
        DownloadRange range;
        EXPECT_FALSE(parseDownloadRange(head, range)) << head;
    }
    unsigned char head[StreamBlock::kHeadSize] = {'M', 'G', 'R', 'H'};
    const std::string tag = entityTagOf(1000, 1767225600123456789, head, sizeof head);
    EXPECT_EQ(tag, entityTagOf(1000, 1767225600123456789, head, sizeof head));
    EXPECT_NE(tag, entityTagOf(1001, 1767225600123456789, head, sizeof head));
    EXPECT_NE(tag, entityTagOf(1000, 1767225600123456790, head, sizeof head));
    head[StreamBlock::kHeadBlockSizeOffset] = 1;  // another block size
    EXPECT_NE(tag, entityTagOf(1000, 1767225600123456789, head, sizeof head));
}
