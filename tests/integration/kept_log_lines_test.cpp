// Log lines operators know by their wording, misspellings and another
// module's name included (docs/compatibility.md, Q18, Q19 and Q21): searches and
// alerts are written against these texts, so a "fixed" spelling breaks them.
#include <gtest/gtest.h>

#include <string>

#include "LogCapture.h"
#include "PluginFixture.h"
#include "talk/HttpParser.h"

namespace {

class KeptLogLines : public PluginFixture {
protected:
    void TearDown() override
    {
        PluginFixture::TearDown();
        // The workers say so as they end, in their own spelling.
        EXPECT_TRUE(log.contains("] - Aysn http process thread exit!"));
        EXPECT_TRUE(log.contains("] - Http timeout check thread eixt!"));
    }

    LogCapture log;
};

}  // namespace

TEST_F(KeptLogLines, RefusalsClosedConnectionsAndStoppedWorkersLogInTheirOwnWords)
{
    filter.result = 0x40000003;
    filter.statusOnRefusal = 10;
    EXPECT_EQ(exchange(jsonDownload("&name=a")).status, 401);
    filter.result = 0;
    EXPECT_TRUE(log.contains("] [0x40000003] - CovertToRtspProcess fail, m_pProtocolFilterChainSink Request fail"));
    // The gateway accepts a talk request with a code, which is logged as the
    // filter chain's failure (Q21): here the close of a channel without a talk.
    RawResponse close = exchange(request("PUT", "/QUMEX/System/TwoWayAudio/channels/1/close"));
    EXPECT_EQ(close.status, 400) << close.raw;
    EXPECT_TRUE(log.contains("] [0x01930844] - CovertToRtspProcess fail, m_pProtocolFilterChainSink Request fail"));
    ASSERT_TRUE(waitIdle());
    // Every connection the client closes is logged as an "exception" of the server.
    EXPECT_TRUE(log.contains("] - [hanele="));
    EXPECT_TRUE(log.contains("]vqnetutils callback exception"));

    // The raw channel's parser names the standard session in its refusal.
    HttpWrapper::CHttpParser parser;
    std::string name;
    EXPECT_FALSE(parser.getAuthName(name, "Digest username=\"" + std::string(65, 'u') + "\""));
    EXPECT_TRUE(log.contains("] [0x01930f40] - [Authorization =Digest username=\""));
    EXPECT_TRUE(log.contains("\"]CHttpSession Request fail, userName too long."));
}
