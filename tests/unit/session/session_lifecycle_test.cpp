// A standard session's states, its dispatch of methods, its closing and its
// destruction request, with the stand-in reply interface.
#include <gtest/gtest.h>

#include <string.h>

#include "FakeNetServer.h"
#include "TestSession.h"
#include "frame/HttpServerWrapper.h"
#include "session/HttpSessionMgr.h"

using namespace HttpWrapper;

namespace {

class SessionLifecycle : public ::testing::Test {
protected:
    void SetUp() override
    {
        net.reset();
        net.params.iMethod = NET_HTTP_METHOD_DELETE;
        strcpy(net.params.szUrl, "/x");
        strcpy(net.params.szUserName, "admin");
        strcpy(net.params.szRealm, "realm-x");
        strcpy(net.params.szNonce, "n");
        strcpy(net.params.szResponse, "r");
        net.headers["Authorization"] = "Digest username=\"admin\", realm=\"realm-x\"";
    }
    void TearDown() override
    {
        CHttpServerWrapper* server = singleton<CHttpServerWrapper>::instance();
        while (server->getAsyncQueueSize() > 0) {
            CAsyncRequestQueue::freeJob(server->popAsyncReq());
        }
    }

    FakeNetServer& net = FakeNetServer::instance();
};

}  // namespace

TEST_F(SessionLifecycle, RequestsOutOfOrderOrOfUnknownMethodsAreRefused)
{
    TestSession session(nullptr, nullptr);
    EXPECT_EQ(session.processRecvData(nullptr, 0), 0x1930F44);
    EXPECT_TRUE(net.replies.empty());
    ASSERT_EQ(session.init(3), 0);
    EXPECT_EQ(session.init(3), 0x1930F44);
    EXPECT_EQ(session.processRecvData(nullptr, 0), 0);
    EXPECT_EQ(session.getState(), SESSION_PROCESSED);
    EXPECT_EQ(session.processRecvData(nullptr, 0), 0x1930F44);

    net.params.iMethod = 9;
    TestSession unknown(nullptr, nullptr);
    ASSERT_EQ(unknown.init(5), 0);
    EXPECT_EQ(unknown.processRecvData(nullptr, 0), 0x1930F45);
    EXPECT_EQ(unknown.getState(), SESSION_PROCESSED);

    // A failed parameter query keeps a session new; a handle of -1 is
    // initialised without asking the server.
    net.paramsFail = true;
    TestSession failed(nullptr, nullptr);
    EXPECT_EQ(failed.init(3), 0x1930836);
    EXPECT_EQ(failed.getState(), SESSION_CREATED);
    EXPECT_EQ(failed.init(-1), 0);
    EXPECT_EQ(failed.getState(), SESSION_INITIALISED);
}

TEST_F(SessionLifecycle, FiniClosesTheGatewayStreamOnceAndReleasesTheHandle)
{
    MockSink sink;
    TestSession session(nullptr, &sink);
    // The gateway's delivery thread, still sending while OnStop waits for it,
    // must find the session closing and not write any more.
    int lateSend = -1;
    EXPECT_CALL(sink, OnStop(&sink, 0)).WillOnce(::testing::Invoke([&](void*, int) {
        std::string block = "late block";
        lateSend = session.send(0, PROTOCOL_WRAPPER::STREAM_DATA, &block[0], static_cast<int>(block.size()));
        return 0;
    }));
    EXPECT_CALL(sink, OnClose(&sink)).Times(1);
    ASSERT_EQ(session.init(8), 0);
    session.processRecvData(nullptr, 0);
    session.m_pSessionHandle = &sink;  // as if OnOpen had opened a stream
    size_t replies = net.replies.size();
    EXPECT_EQ(session.fini(), 0);
    EXPECT_EQ(session.fini(), 0);
    EXPECT_EQ(lateSend, 0);
    EXPECT_EQ(net.replies.size(), replies);
    EXPECT_EQ(session.getHttpHandle(), -1);
    EXPECT_EQ(session.getState(), SESSION_CLOSED);
    // The handle waits for the release thread.
    std::deque<long> released;
    singleton<CHttpSessionMgr>::instance()->getInvalidHandleQueue(released);
    EXPECT_EQ(released, std::deque<long>{8});
}

// The time-out passes and a failing delivery may both ask for it.
TEST_F(SessionLifecycle, DestroyIsQueuedOnlyOnce)
{
    TestSession session(nullptr, nullptr);
    ASSERT_EQ(session.init(11), 0);
    EXPECT_EQ(session.pushDestroyReq(), 0);
    EXPECT_EQ(session.pushDestroyReq(), 0);
    CHttpServerWrapper* server = singleton<CHttpServerWrapper>::instance();
    ASSERT_EQ(server->getAsyncQueueSize(), 1);
    tagAsyncReq* job = server->popAsyncReq();
    EXPECT_EQ(job->iCmdType, ASYNC_HTTP_DESTROY);
    EXPECT_EQ(job->lHttpHandle, 11);
    EXPECT_EQ(job->pSession, &session);
    CAsyncRequestQueue::freeJob(job);
}
