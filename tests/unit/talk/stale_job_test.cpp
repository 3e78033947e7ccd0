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
#include "session/HttpSession.h"
#include "session/HttpSessionMgr.h"
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

// Serves the destroy job of a first session under the key, registers a second
// one under the same key at the same address, and runs the job again.
template <typename Session, typename Manager, typename Key>
void expectTheStaleJobSparesTheSecondSession(Manager& manager, Key key, int (Manager::*destroy)(tagAsyncReq*))
{
    SameAddress<Session> storage;
    tagAsyncReq stale;
    {
        std::shared_ptr<Session> first = storage.make();
        ASSERT_NE(manager.addSession(key, first), -1);
        stale = firstDestroyJob(manager);
        tagAsyncReq served = stale;
        ASSERT_EQ((manager.*destroy)(&served), 0);
    }
    std::shared_ptr<Session> second = storage.make();
    ASSERT_EQ(stale.pSession, second.get());
    ASSERT_NE(manager.addSession(key, second), -1);

    EXPECT_EQ((manager.*destroy)(&stale), 0x1930F43);
    EXPECT_EQ(manager.getSession(key).get(), second.get());
    manager.removeSession(key);
}

}  // namespace

TEST(StaleJob, ATalkBornAtTheFreedAddressOutlivesTheOldTalksJob)
{
    expectTheStaleJobSparesTheSecondSession<CQumexAudioTalkSession>(
        *singleton<CAudioTalkSessionMgr>::instance(),
        std::string("/QUMEX/System/TwoWayAudio/channels/3?indexType=httpPort&httpPort=80"),
        &CAudioTalkSessionMgr::processHttpTalkDestroy);
}

TEST(StaleJob, ARawSessionBornAtTheFreedAddressOutlivesTheOldSessionsJob)
{
    // Never opened: the sessions are not initialised, so fini closes nothing.
    expectTheStaleJobSparesTheSecondSession<CHttpUnstandardSession>(
        *singleton<CHttpUnstandardSessionMgr>::instance(), 12345,
        &CHttpUnstandardSessionMgr::processHttpUnstandardDestroy);
}

TEST(StaleJob, AnHttpSessionBornAtTheFreedAddressOutlivesTheOldSessionsJob)
{
    expectTheStaleJobSparesTheSecondSession<CHttpSession>(*singleton<CHttpSessionMgr>::instance(), 54321L,
                                                          &CHttpSessionMgr::processHttpDestroy);
}
