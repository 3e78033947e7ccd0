// The job list behind CHttpServerWrapper's request queue: unbounded, in queue
// order, with a counting semaphore posted once per job so that workers wait
// without spinning. Jobs own a zero-terminated copy of their data.
#ifndef HTTPWRAPPER_FRAME_ASYNCREQUESTQUEUE_H
#define HTTPWRAPPER_FRAME_ASYNCREQUESTQUEUE_H

#include <list>

#include <zrt/zrt.h>

#include "frame/AsyncRequest.h"

namespace HttpWrapper {

class CAsyncRequestQueue {
public:
    enum PushResult { PUSHED, NO_JOB_MEMORY, NO_DATA_MEMORY };

    CAsyncRequestQueue() = default;
    ~CAsyncRequestQueue();
    CAsyncRequestQueue(const CAsyncRequestQueue&) = delete;
    CAsyncRequestQueue& operator=(const CAsyncRequestQueue&) = delete;

    // Creates the semaphore; 0 or -1 (system error kept).
    int create();
    bool created() const { return m_iSemCreated != 0; }
    // Deletes the jobs nobody will run any more and the semaphore.
    void destroy();

    // Queues a copy of req stamped with nowMs; the caller keeps req.
    PushResult push(const tagAsyncReq& req, ZRT_UINT64 nowMs);
    // The oldest job, waiting at most waitMs for one; null when none came.
    // Before create() it never waits.
    // The caller owns the job and its data.
    tagAsyncReq* pop(ZRT_UINT32 waitMs);
    int size();

    static void freeJob(tagAsyncReq* job);

private:
    std::list<tagAsyncReq*> m_jobs;
    int m_iCount = 0;
    ZRT_SEM_T m_sem = {};
    int m_iSemCreated = 0;
    ZRT_Mutex m_mutex{1};  // guards m_jobs and m_iCount; the semaphore is posted outside it
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_ASYNCREQUESTQUEUE_H
