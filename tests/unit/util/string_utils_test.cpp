#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/StringUtils.h"

using namespace HttpWrapper;

namespace {

typedef std::vector<std::string> Pieces;

Pieces Cut(const std::string& s, const Pieces& delimiters, int maxCuts = -1)
{
    Pieces out{"stale"};
    const int count = Split(s, delimiters, out, maxCuts);
    EXPECT_EQ(count, static_cast<int>(out.size()));
    return out;
}

}  // namespace

// RemoveSpace and the 64-cut limit of Split are pinned by the message parser's tests.
TEST(Split, KeepsEmptyPiecesAndTheRestAndTheFirstListedDelimiterBreaksTies)
{
    EXPECT_EQ(Cut("a,,b,", {","}), (Pieces{"a", "", "b", ""}));
    EXPECT_EQ(Cut("", {","}), (Pieces{""}));
    EXPECT_EQ(Cut("k=v=w", {"="}, 1), (Pieces{"k", "v=w"}));
    EXPECT_EQ(Cut("RTSP/1.0 200 OK", {" ", "/"}), (Pieces{"RTSP", "1.0", "200", "OK"}));
    // "\r\n" and "\r" both start at the same position: the one listed first cuts.
    EXPECT_EQ(Cut("a\r\nb", {"\r\n", "\r"}), (Pieces{"a", "b"}));
    EXPECT_EQ(Cut("a\r\nb", {"\r", "\r\n"}), (Pieces{"a", "\nb"}));
    EXPECT_EQ(Cut("a,b", {""}), (Pieces{"a,b"}));  // an empty delimiter never cuts
    Pieces out;
    EXPECT_EQ(Split("a;b=c&d", ";", "=", "&", out, -1), 4);
}

TEST(Trim, BlanksGoBeforeCarriageReturnsAndContainIsCaseSensitive)
{
    std::string s = "\r ab";
    EXPECT_EQ(RemoveSpace(s), " ab");
    s = "\r\r";
    EXPECT_EQ(RemoveSpace(s), "");
    EXPECT_TRUE(Contain("/path?sessionId=42&channel=1", "channel"));
    EXPECT_FALSE(Contain("/path?sessionId=42&channel=1", "Channel"));
}

TEST(Escape, AClientAddressCannotCutTheUrl)
{
    // One address reads as before; nothing else can cut or extend the URL.
    EXPECT_EQ(EscapeClientAddress("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(EscapeClientAddress("2001:db8::1"), "2001:db8::1");
    EXPECT_EQ(EscapeClientAddress("203.0.113.7, 127.0.0.2"), "203.0.113.7,%20127.0.0.2");
    EXPECT_EQ(EscapeClientAddress("a&devIndex=zzz"), "a%26devIndex%3Dzzz");
    EXPECT_EQ(EscapeClientAddress("%26 RTSP/1.0\r\nX: y"), "%2526%20RTSP%2F1.0%0D%0AX:%20y");
}
