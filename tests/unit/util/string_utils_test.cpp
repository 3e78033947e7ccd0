#include <gtest/gtest.h>

#include <map>
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

TEST(Trim, RemoveSpaceAndRemoveQuotEdges)
{
    std::string s = "\r ab";
    EXPECT_EQ(RemoveSpace(s), " ab");  // blanks go before carriage returns
    s = "\r\r";
    EXPECT_EQ(RemoveSpace(s), "");
    s = "\"\"a\"b\"";
    EXPECT_EQ(RemoveQuot(s), "a\"b");
}

TEST(Params, ParseParamAndFetch)
{
    std::map<std::string, std::string> params;
    EXPECT_EQ(ParseParam({"a=1", "b=x=y", "flag", "a=2"}, "=", params), 4);
    EXPECT_EQ(params, (std::map<std::string, std::string>{{"a", "2"}, {"b", "x=y"}, {"flag", ""}}));

    const std::string url = "/path?sessionId=42&channel=1";
    EXPECT_EQ(FetchUrlParamValue(url, "sessionId="), "42");
    EXPECT_EQ(FetchUrlParamValue(url, "channel="), "1");
    EXPECT_EQ(FetchUrlParamValue(url, "missing="), "");
    EXPECT_EQ(FetchUrlParamValue(url, "session"), "Id=42");  // a plain substring
    EXPECT_FALSE(Contain(url, "Channel"));
}

TEST(Replace, ReplaceAllDoesNotRescanInsertedText)
{
    std::string s = "aXbXc";
    ReplaceAll(s, "X", "XX");
    ReplaceAll(s, "", "z");
    EXPECT_EQ(s, "aXXbXXc");
    s = "aaa";
    ReplaceAll(s, "aa", "b");
    EXPECT_EQ(s, "ba");
}

TEST(Match, FindsTextBetweenDelimiters)
{
    std::string withStart = "untouched";
    std::string inner = "untouched";
    EXPECT_FALSE(Match("realm=r", "realm=", ",", withStart, inner));
    EXPECT_FALSE(Match("u=carol", "u=", ",", ";", withStart, inner));
    EXPECT_EQ(withStart + inner, "untoucheduntouched");

    EXPECT_TRUE(Match("x realm=\"r\", nonce", "realm=\"", "\"", withStart, inner));
    EXPECT_EQ(withStart, "realm=\"r");
    EXPECT_EQ(inner, "r");
    EXPECT_TRUE(Match("a=1&b=2", "=", "=", withStart, inner));  // the end is searched behind the start
    EXPECT_EQ(inner, "1&b");
    // With two ends, the earlier one behind the start wins.
    EXPECT_TRUE(Match("u=alice\r\nr=x,", "u=", ",", "\r\n", withStart, inner));
    EXPECT_EQ(inner, "alice");
}

TEST(Escape, UriKeepsUnreservedAndOptionallySlashAndAClientAddressCannotCutTheUrl)
{
    EXPECT_EQ(UriEscape("aZ09-._~", false), "aZ09-._~");
    EXPECT_EQ(UriEscape("/a b/c?d=&", true), "/a%20b/c%3Fd%3D%26");
    EXPECT_EQ(UriEscape("/a", false), "%2Fa");
    EXPECT_EQ(UriEscape(std::string("\xff\x01", 2), true), "%FF%01");

    // One address reads as before; nothing else can cut or extend the URL.
    EXPECT_EQ(EscapeClientAddress("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(EscapeClientAddress("2001:db8::1"), "2001:db8::1");
    EXPECT_EQ(EscapeClientAddress("203.0.113.7, 127.0.0.2"), "203.0.113.7,%20127.0.0.2");
    EXPECT_EQ(EscapeClientAddress("a&devIndex=zzz"), "a%26devIndex%3Dzzz");
    EXPECT_EQ(EscapeClientAddress("%26 RTSP/1.0\r\nX: y"), "%2526%20RTSP%2F1.0%0D%0AX:%20y");
}
