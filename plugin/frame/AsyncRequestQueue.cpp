#include "frame/AsyncRequestQueue.h"

#include <string.h>

#include <new>

#include "frame/Log.h"

namespace HttpWrapper {

CAsyncRequestQueue::~CAsyncRequestQueue()
{
    destroy();
}

int CAsyncRequestQueue::create()
{
    if (m_iSemCreated != 0) {
        return 0;
    }
    if (ZRT_SemCreate(&m_sem, 0) != 0) {
        return -1;
    }
    m_iSemCreated = 1;
    return 0;
}

void CAsyncRequestQueue::destroy()
{
    {
        // The jobs' data is freed too, so that a stopped server holds nothing.
        ZRT_Guard guard(m_mutex);
        for (tagAsyncReq* job : m_jobs) {
            freeJob(job);
        }
        m_jobs.clear();
        m_iCount = 0;
    }
    if (m_iSemCreated != 0) {
        ZRT_SemDestroy(&m_sem);
        m_iSemCreated = 0;
    }
}

CAsyncRequestQueue::PushResult CAsyncRequestQueue::push(const tagAsyncReq& req, ZRT_UINT64 nowMs)
{
    tagAsyncReq* job = new (std::nothrow) tagAsyncReq;
    if (job == nullptr) {
        return NO_JOB_MEMORY;
    }
    if (req.pData != nullptr && req.iDataLen >= 1) {
        // The copy is always zero-terminated, so handlers may read it as text.
        job->pData = new (std::nothrow) char[req.iDataLen + 1];
        if (job->pData == nullptr) {
            delete job;
            return NO_DATA_MEMORY;
        }
        memcpy(job->pData, req.pData, static_cast<size_t>(req.iDataLen));
        job->pData[req.iDataLen] = '\0';
        job->iDataLen = req.iDataLen;
    }
    job->iCmdType = req.iCmdType;
    job->lHttpHandle = req.lHttpHandle;
    job->pSession = req.pSession;
    job->iSocket = req.iSocket;
    job->strKey = req.strKey;
    job->ullEnqueueTime = nowMs;
    job->ullSessionSerial = req.ullSessionSerial;
    {
        ZRT_Guard guard(m_mutex);
        m_jobs.push_back(job);
        m_iCount++;
    }
    // Before create() no worker waits: the job waits in the list alone.
    if (m_iSemCreated != 0) {
        ZRT_SemPost(&m_sem);
    }
    return PUSHED;
}

tagAsyncReq* CAsyncRequestQueue::pop(ZRT_UINT32 waitMs)
{
    // Before create() there is no semaphore to count on and no worker to race
    // with, so a listed job is taken at once (the server drains this way when
    // it never started its threads).
    if (m_iSemCreated != 0 && ZRT_SemTimedWait(&m_sem, waitMs) != 0) {
        return nullptr;
    }
    ZRT_Guard guard(m_mutex);
    if (m_iCount < 1) {
        return nullptr;
    }
    tagAsyncReq* job = m_jobs.front();
    m_jobs.pop_front();
    m_iCount--;
    HPW_LOGD("[http cmd entype=%d]", job->iCmdType);
    return job;
}

int CAsyncRequestQueue::size()
{
    ZRT_Guard guard(m_mutex);
    return static_cast<int>(m_jobs.size());
}

void CAsyncRequestQueue::freeJob(tagAsyncReq* job)
{
    if (job != nullptr) {
        delete[] job->pData;
        delete job;
    }
}

}  // namespace HttpWrapper
