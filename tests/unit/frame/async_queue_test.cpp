#include <gtest/gtest.h>

#include <string.h>

#include <thread>
#include <vector>

#include "LogCapture.h"
#include "frame/AsyncRequestQueue.h"
#include "frame/HttpServerWrapper.h"

using HttpWrapper::CAsyncRequestQueue;
using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::tagAsyncReq;

TEST(AsyncRequestQueue, JobsCarryAZeroTerminatedCopyInQueueOrder)
{
    CAsyncRequestQueue queue;
    ASSERT_EQ(queue.create(), 0);
    char body[] = {'a', 'b', 'c'};
    tagAsyncReq req;
    req.iCmdType = 2;
    req.lHttpHandle = 7;
    req.pData = body;
    req.iDataLen = 3;
    req.strKey = "/talk";
    ASSERT_EQ(queue.push(req, 1234), CAsyncRequestQueue::PUSHED);
    body[0] = 'z';  // the caller's buffer may be reused at once

    tagAsyncReq empty;
    empty.iCmdType = 3;
    empty.pData = body;  // a pointer with length 0 is queued without data
    empty.iDataLen = 0;
    ASSERT_EQ(queue.push(empty, 1235), CAsyncRequestQueue::PUSHED);
    EXPECT_EQ(queue.size(), 2);

    tagAsyncReq* first = queue.pop(100);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->iCmdType, 2);
    EXPECT_EQ(first->lHttpHandle, 7);
    EXPECT_EQ(first->iDataLen, 3);
    EXPECT_STREQ(first->pData, "abc");
    EXPECT_EQ(first->strKey, "/talk");
    EXPECT_EQ(first->ullEnqueueTime, 1234u);
    CAsyncRequestQueue::freeJob(first);

    tagAsyncReq* second = queue.pop(100);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->pData, nullptr);
    EXPECT_EQ(second->iDataLen, 0);
    CAsyncRequestQueue::freeJob(second);
    EXPECT_EQ(queue.size(), 0);
}

TEST(AsyncRequestQueue, PopOnAnEmptyQueueWaitsAboutTheGivenTime)
{
    CAsyncRequestQueue queue;
    ASSERT_EQ(queue.create(), 0);
    ZRT_UINT64 start = ZRT_GetTimeTick64();
    EXPECT_EQ(queue.pop(100), nullptr);
    ZRT_UINT64 waited = ZRT_GetTimeTick64() - start;
    EXPECT_GE(waited, 95u);
    EXPECT_LT(waited, 1000u);
}

TEST(AsyncRequestQueue, ConcurrentProducersAndConsumersLoseNothing)
{
    CAsyncRequestQueue queue;
    ASSERT_EQ(queue.create(), 0);
    const int producers = 4;
    const int perProducer = 2000;
    std::atomic<int> consumed{0};
    std::atomic<long> sum{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < 3; ++c) {
        threads.emplace_back([&] {
            while (consumed < producers * perProducer) {
                tagAsyncReq* job = queue.pop(20);
                if (job != nullptr) {
                    sum += job->lHttpHandle;
                    ++consumed;
                    CAsyncRequestQueue::freeJob(job);
                }
            }
        });
    }
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < perProducer; ++i) {
                tagAsyncReq req;
                req.lHttpHandle = p * perProducer + i;
                char data[8] = "payload";
                req.pData = data;
                req.iDataLen = 7;
                queue.push(req, 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    long n = producers * perProducer;
    EXPECT_EQ(sum.load(), n * (n - 1) / 2);
    EXPECT_EQ(queue.size(), 0);
}

TEST(AsyncRequestQueue, DestroyDropsWaitingJobs)
{
    CAsyncRequestQueue queue;
    ASSERT_EQ(queue.create(), 0);
    char data[] = "x";
    tagAsyncReq req;
    req.pData = data;
    req.iDataLen = 1;
    queue.push(req, 0);
    queue.push(req, 0);
    queue.destroy();  // LeakSanitizer checks that the copies went too
    EXPECT_EQ(queue.size(), 0);
    EXPECT_FALSE(queue.created());
    EXPECT_EQ(queue.pop(10), nullptr);
}

// Jobs older than a minute are dropped, not run: exactly 60000 ms still runs.
TEST(AsyncRequestWorker, StaleJobsAreDroppedPastSixtySeconds)
{
    LogCapture log;
    CHttpServerWrapper server;
    tagAsyncReq* job = new tagAsyncReq;
    job->iCmdType = 8;  // unknown: running it only logs
    job->ullEnqueueTime = 1000;
    EXPECT_TRUE(server.runAsyncReq(job, 61000));
    EXPECT_TRUE(log.contains("[cmdType=8]Http request type not support!"));
    EXPECT_TRUE(log.contains("[0x01930f45]"));

    log.clear();
    job->pData = new char[4];
    EXPECT_FALSE(server.runAsyncReq(job, 61001));
    EXPECT_EQ(job->pData, nullptr);  // freed even though the job did not run
    EXPECT_TRUE(log.contains("[timeDiff=60001]Throw timeout request"));
    EXPECT_FALSE(log.contains("not support"));
    delete job;
}

TEST(AsyncRequestWorker, UnknownCommandTypesAreLoggedAndSkipped)
{
    LogCapture log;
    CHttpServerWrapper server;
    for (int type : {0, 8}) {
        tagAsyncReq job;
        job.iCmdType = type;
        job.ullEnqueueTime = 5;
        EXPECT_TRUE(server.runAsyncReq(&job, 5));
    }
    EXPECT_TRUE(log.contains("[cmdType=0]Http request type not support!"));
    EXPECT_TRUE(log.contains("[cmdType=8]Http request type not support!"));
}
