#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "util/StringUtils.h"

using namespace HttpWrapper;

namespace {

std::vector<std::string> Pieces(const std::string& s, const std::vector<std::string>& delimiters, int maxCuts)
{
    std::vector<std::string> out{"stale"};
    const int count = Split(s, delimiters, out, maxCuts);
    EXPECT_EQ(count, static_cast<int>(out.size()));
    return out;
}

}  // namespace

TEST(Split, KeepsEmptyPiecesAndTheRest)
{
    using V = std::vector<std::string>;
    EXPECT_EQ(Pieces("a,,b,", {","}, -1), (V{"a", "", "b", ""}));
    EXPECT_EQ(Pieces("", {","}, -1), (V{""}));
    EXPECT_EQ(Pieces("abc", {","}, -1), (V{"abc"}));
    EXPECT_EQ(Pieces("k=v=w", {"="}, 1), (V{"k", "v=w"}));
}

TEST(Split, EarliestDelimiterWinsAndFirstListedBreaksTies)
{
    using V = std::vector<std::string>;
    EXPECT_EQ(Pieces("RTSP/1.0 200 OK", {" ", "/"}, -1), (V{"RTSP", "1.0", "200", "OK"}));
    // "\r\n" and "\r" both start at the same position: the one listed first cuts.
    EXPECT_EQ(Pieces("a\r\nb", {"\r\n", "\r"}, -1), (V{"a", "b"}));
    EXPECT_EQ(Pieces("a\r\nb", {"\r", "\r\n"}, -1), (V{"a", "\nb"}));
    std::vector<std::string> out;
    EXPECT_EQ(Split("a;b=c", ";", "=", out, -1), 3);
    EXPECT_EQ(Split("a;b=c&d", ";", "=", "&", out, -1), 4);
    EXPECT_EQ(Split("a,b", std::vector<std::string>{""}, out, -1), 1);  // empty delimiter never cuts
}

// RemoveSpace and the 64-cut limit of Split are pinned by the message parser's tests.
TEST(Trim, RemoveSpaceAndRemoveQuotEdges)
{
    std::string s = "\r ab";
    EXPECT_EQ(RemoveSpace(s), " ab");
    s = "\r\r";
    EXPECT_EQ(RemoveSpace(s), "");
    s = "\"\"a\"b\"";
    EXPECT_EQ(RemoveQuot(s), "a\"b");
    s = "\"\"\"";
    EXPECT_EQ(RemoveQuot(s), "");
}

TEST(Params, ParseParamAndFetch)
{
    std::map<std::string, std::string> params;
    EXPECT_EQ(ParseParam({"a=1", "b=x=y", "flag", "a=2"}, "=", params), 4);
    EXPECT_EQ(params["a"], "2");
    EXPECT_EQ(params["b"], "x=y");
    ASSERT_EQ(params.count("flag"), 1u);
    EXPECT_EQ(params["flag"], "");

    const std::string url = "/path?sessionId=42&channel=1";
    EXPECT_EQ(FetchUrlParamValue(url, "sessionId="), "42");
    EXPECT_EQ(FetchUrlParamValue(url, "channel="), "1");
    EXPECT_EQ(FetchUrlParamValue(url, "missing="), "");
    EXPECT_EQ(FetchUrlParamValue(url, "session"), "Id=42");  // a plain substring
    EXPECT_TRUE(Contain(url, "channel"));
    EXPECT_FALSE(Contain(url, "Channel"));
}

TEST(Replace, ReplaceAllDoesNotRescanInsertedText)
{
    std::string s = "aXbXc";
    ReplaceAll(s, "X", "XX");
    EXPECT_EQ(s, "aXXbXXc");
    s = "aaa";
    ReplaceAll(s, "aa", "b");
    EXPECT_EQ(s, "ba");
    ReplaceAll(s, "", "z");
    EXPECT_EQ(s, "ba");
}

TEST(Match, FindsTextBetweenDelimiters)
{
    std::string withStart = "untouched";
    std::string inner = "untouched";
    EXPECT_TRUE(Match("x realm=\"r\", nonce", "realm=\"", "\"", withStart, inner));
    EXPECT_EQ(withStart, "realm=\"r");
    EXPECT_EQ(inner, "r");

    withStart = inner = "untouched";
    EXPECT_FALSE(Match("realm=r", "realm=", ",", withStart, inner));
    EXPECT_FALSE(Match("abc", "x", "c", withStart, inner));
    EXPECT_EQ(withStart, "untouched");
    EXPECT_EQ(inner, "untouched");

    // The end is searched only behind the start delimiter.
    EXPECT_TRUE(Match("a=1&b=2", "=", "=", withStart, inner));
    EXPECT_EQ(inner, "1&b");

    EXPECT_TRUE(Match("u=alice, r=x", "u=", ",", "\r\n", withStart, inner));
    EXPECT_EQ(inner, "alice");
    EXPECT_TRUE(Match("u=alice\r\nr=x,", "u=", ",", "\r\n", withStart, inner));
    EXPECT_EQ(inner, "alice");
    EXPECT_TRUE(Match("u=bob", "u=", ",", "b", withStart, inner));
    EXPECT_EQ(inner, "");
    EXPECT_FALSE(Match("u=carol", "u=", ",", ";", withStart, inner));
}

TEST(UriEscape, KeepsUnreservedAndOptionallySlash)
{
    EXPECT_EQ(UriEscape("aZ09-._~", false), "aZ09-._~");
    EXPECT_EQ(UriEscape("/a b/c?d=&", true), "/a%20b/c%3Fd%3D%26");
    EXPECT_EQ(UriEscape("/a", false), "%2Fa");
    EXPECT_EQ(UriEscape(std::string("\xff\x01", 2), true), "%FF%01");
}

TEST(EscapeClientAddress, OneAddressReadsAsBeforeAndNothingElseCanCutTheUrl)
{
    EXPECT_EQ(EscapeClientAddress("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(EscapeClientAddress("2001:db8::1"), "2001:db8::1");
    EXPECT_EQ(EscapeClientAddress("203.0.113.7, 127.0.0.2"), "203.0.113.7,%20127.0.0.2");
    EXPECT_EQ(EscapeClientAddress("a&devIndex=zzz"), "a%26devIndex%3Dzzz");
    EXPECT_EQ(EscapeClientAddress("%26 RTSP/1.0\r\nX: y"), "%2526%20RTSP%2F1.0%0D%0AX:%20y");
    const std::string escaped = EscapeClientAddress(std::string(128, '&'));
    EXPECT_EQ(escaped.find_first_of(" &=?#\r\n"), std::string::npos);
}
