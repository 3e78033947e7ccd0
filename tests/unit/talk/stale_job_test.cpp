// A destroy job waits in the queue while its session may already be gone; the
// allocator then gives a new session of the same key the freed address. The
// managers must recognise the job as stale all the same.
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "frame/AsyncRequest.h"
#include "frame/HttpServerWrapper.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/HttpUnstandardSession.h"
#include "talk/HttpUnstandardSessionMgr.h"
#include "talk/QumexAudioTalkSession.h"

using namespace HttpWrapper;

namespace {

// Builds sessions one after another in the same storage, as an allocator may
// after a free; the previous one must be gone first.
template <typename Session>
class SameAddress {
public:
    SameAddress() : m_storage(::operator new(sizeof(Session))) {}
    ~SameAddress() { ::operator delete(m_storage); }
    SameAddress(const SameAddress&) = delete;
    SameAddress& operator=(const SameAddress&) = delete;

    std::shared_ptr<Session> make()
    {
        return std::shared_ptr<Session>(new (m_storage) Session(nullptr, nullptr),
                                        [](Session* session) { session->~Session(); });
    }

private:
    void* m_storage;
};

// Ages the table until it queues a destroy job, and returns the first one.
template <typename Manager>
tagAsyncReq firstDestroyJob(Manager& manager)
{
    CHttpServerWrapper* server = singleton<CHttpServerWrapper>::instance();
    for (int pass = 0; pass < 10; ++pass) {
        manager.timeOutCheck();
        if (tagAsyncReq* job = server->popAsyncReq()) {
            tagAsyncReq copy = *job;
            delete job;
            while ((job = server->popAsyncReq()) != nullptr) {
                delete job;
            }
            return copy;
        }
    }
    ADD_FAILURE() << "no destroy job after 10 passes";
    return tagAsyncReq();
}

}  // namespace

TEST(StaleJob, ATalkBornAtTheFreedAddressOutlivesTheOldTalksJob)
{
    CAudioTalkSessionMgr* talks = singleton<CAudioTalkSessionMgr>::instance();
    std::string url = "/QUMEX/System/TwoWayAudio/channels/3?indexType=httpPort&httpPort=80";
    SameAddress<CQumexAudioTalkSession> storage;
    tagAsyncReq stale;
    {
        std::shared_ptr<CQumexAudioTalkSession> first = storage.make();
        ASSERT_EQ(talks->addSession(url, first), 0);
        stale = firstDestroyJob(*talks);
        tagAsyncReq served = stale;
        ASSERT_EQ(talks->processHttpTalkDestroy(&served), 0);
    }
    std::shared_ptr<CQumexAudioTalkSession> second = storage.make();
    ASSERT_EQ(stale.pSession, second.get());
    ASSERT_EQ(talks->addSession(url, second), 0);

    EXPECT_EQ(talks->processHttpTalkDestroy(&stale), 0x1930F43);
    EXPECT_EQ(talks->getSession(url).get(), second.get());
    talks->removeSession(url);
}

TEST(StaleJob, ARawSessionBornAtTheFreedAddressOutlivesTheOldSessionsJob)
{
    CHttpUnstandardSessionMgr* raw = singleton<CHttpUnstandardSessionMgr>::instance();
    const int socket = 12345;  // never opened: the sessions are not initialised, so fini closes nothing
    SameAddress<CHttpUnstandardSession> storage;
    tagAsyncReq stale;
    {
        std::shared_ptr<CHttpUnstandardSession> first = storage.make();
        ASSERT_EQ(raw->addSession(socket, first), 0);
        stale = firstDestroyJob(*raw);
        tagAsyncReq served = stale;
        ASSERT_EQ(raw->processHttpUnstandardDestroy(&served), 0);
    }
    std::shared_ptr<CHttpUnstandardSession> second = storage.make();
    ASSERT_EQ(stale.pSession, second.get());
    ASSERT_EQ(raw->addSession(socket, second), 0);

    EXPECT_EQ(raw->processHttpUnstandardDestroy(&stale), 0x1930F43);
    EXPECT_EQ(raw->getSession(socket).get(), second.get());
    raw->removeSession(socket);
}
