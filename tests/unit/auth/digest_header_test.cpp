// The Digest headers as the plug-in reads them: the user name the gateway
// matches requests by, and the fields the raw audio channel takes from its
// clients' Authorization line, quirks included.
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "auth/DigestHeader.h"

using namespace HttpWrapper;

TEST(DigestHeader, TheUserNameComesAfterTheFirstKeyAnywhereAndLosesItsLastCharacter)
{
    const struct {
        const char* authorization;
        DigestUserNameResult result;
        const char* name;
    } rows[] = {
        {"Digest username=\"admin\", realm=\"r\"", USER_NAME_FOUND, "admi"},
        // Any `username="` counts, even inside another field's value.
        {"Digest realm=\"username=\"x\", username=\"admin\"", USER_NAME_FOUND, ""},
        {"Digest nonce=\"n\", username=\"operator\"", USER_NAME_FOUND, "operato"},
        {"Digest username=\"a\"", USER_NAME_FOUND, ""},
        {"Digest username=\"\"", USER_NAME_FOUND, ""},
        {"Digest username=\"open", USER_NAME_ABSENT, ""},
        {"Basic YWRtaW46eA==", USER_NAME_ABSENT, ""},
    };
    for (const auto& row : rows) {
        std::string name = "untouched";
        EXPECT_EQ(CutDigestUserName(row.authorization, "username=\"", name), row.result) << row.authorization;
        if (row.result == USER_NAME_FOUND) {
            EXPECT_EQ(name, row.name) << row.authorization;
        }
    }
    std::string name;
    EXPECT_EQ(CutDigestUserName("Digest username=\"" + std::string(65, 'u') + "\"", "username=\"", name),
              USER_NAME_TOO_LONG);
}

TEST(DigestHeader, TheRawChannelSplitsItsAuthorizationLineOnCommas)
{
    std::string value;
    EXPECT_FALSE(FindAuthorizationLine("GET / HTTP/1.1\r\nauthorization: Digest a=1\r\n\r\n", value));
    // Found anywhere in the head, the tail of another header's name included.
    ASSERT_TRUE(FindAuthorizationLine("GET / HTTP/1.1\r\nX-Authorization: Digest a=1\r\n\r\n", value));
    EXPECT_EQ(value, "Digest a=1");

    std::map<std::string, std::string> fields{{"realm", "kept"}};
    ReadDigestFields("Digest username=\"admin\",\trealm=\"r\" , uri=\"/a?x=1,y=2\", stale, nonce = \"n\"", fields);
    EXPECT_EQ(fields["username"], "admin");
    EXPECT_EQ(fields["realm"], "kept");  // a name already read keeps its value
    EXPECT_EQ(fields["uri"], "/a?x=1");  // a comma inside quotes splits too
    EXPECT_EQ(fields["nonce"], "n");
    EXPECT_EQ(fields.count("stale"), 0u);

    std::map<std::string, std::string> none;
    ReadDigestFields("username=\"admin\"", none);  // nothing before a blank: no fields
    EXPECT_TRUE(none.empty());
}
