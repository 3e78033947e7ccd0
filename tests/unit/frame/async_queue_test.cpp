#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "frame/AsyncRequestQueue.h"
#include "frame/HttpServerWrapper.h"

using HttpWrapper::CAsyncRequestQueue;
using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::tagAsyncReq;

namespace {

tagAsyncReq Request(long handle, char* data, int length)
{
    tagAsyncReq req;
    req.lHttpHandle = handle;
    req.pData = data;
    req.iDataLen = length;
    return req;
}

}  // namespace

TEST(AsyncRequestQueue, JobsCarryAZeroTerminatedCopyInQueueOrder)
{
    CAsyncRequestQueue queue;
    ASSERT_EQ(queue.create(), 0);
    char body[] = {'a', 'b', 'c'};
    tagAsyncReq req = Request(7, body, 3);
    req.iCmdType = 2;
    req.strKey = "/talk";
    req.ullSessionSerial = 0x100000002ull;
    ASSERT_EQ(queue.push(req, 1234), CAsyncRequestQueue::PUSHED);
    body[0] = 'z';  // the caller's buffer may be reused at once
    ASSERT_EQ(queue.push(Request(8, body, 0), 1235), CAsyncRequestQueue::PUSHED);  // no data with length 0
    EXPECT_EQ(queue.size(), 2);

    tagAsyncReq* first = queue.pop(100);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->iCmdType, 2);
    EXPECT_EQ(first->lHttpHandle, 7);
    EXPECT_EQ(first->iDataLen, 3);
    EXPECT_STREQ(first->pData, "abc");
    EXPECT_EQ(first->strKey, "/talk");
    EXPECT_EQ(first->ullEnqueueTime, 1234u);
    EXPECT_EQ(first->ullSessionSerial, 0x100000002ull);
    CAsyncRequestQueue::freeJob(first);

    tagAsyncReq* second = queue.pop(100);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->pData, nullptr);
    EXPECT_EQ(second->iDataLen, 0);
    CAsyncRequestQueue::freeJob(second);
}

// Workers wait on the semaphore: an empty queue makes pop wait its time out, not spin.
TEST(AsyncRequestQueue, PopOnAnEmptyQueueWaitsTheGivenTime)
{
    CAsyncRequestQueue queue;
    ASSERT_EQ(queue.create(), 0);
    const ZRT_UINT64 start = ZRT_GetTimeTick64();
    EXPECT_EQ(queue.pop(100), nullptr);
    EXPECT_GE(ZRT_GetTimeTick64() - start, 95u);
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
                if (tagAsyncReq* job = queue.pop(20)) {
                    sum += job->lHttpHandle;
                    ++consumed;
                    CAsyncRequestQueue::freeJob(job);
                }
            }
        });
    }
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            char data[8] = "payload";
            for (int i = 0; i < perProducer; ++i) {
                queue.push(Request(p * perProducer + i, data, 7), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const long n = producers * perProducer;
    EXPECT_EQ(sum.load(), n * (n - 1) / 2);
    EXPECT_EQ(queue.size(), 0);
}

TEST(AsyncRequestQueue, DestroyDropsWaitingJobs)
{
    CAsyncRequestQueue queue;
    ASSERT_EQ(queue.create(), 0);
    char data[] = "x";
    queue.push(Request(1, data, 1), 0);
    queue.push(Request(2, data, 1), 0);
    queue.destroy();  // LeakSanitizer checks that the copies went too
    EXPECT_EQ(queue.size(), 0);
    EXPECT_FALSE(queue.created());
    EXPECT_EQ(queue.pop(10), nullptr);
}

// Jobs older than a minute are dropped, not run: exactly 60000 ms still runs.
// An unknown command type is logged with its error code and skipped.
TEST(AsyncRequestWorker, StaleJobsAreDroppedPastSixtySecondsAndUnknownTypesSkipped)
{
    LogCapture log;
    CHttpServerWrapper server;
    tagAsyncReq job;
    job.iCmdType = 8;
    job.ullEnqueueTime = 1000;
    EXPECT_TRUE(server.runAsyncReq(&job, 61000));
    EXPECT_TRUE(log.contains("[0x01930f45]") && log.contains("[cmdType=8]Http request type not support!"));

    log.clear();
    job.pData = new char[4];
    EXPECT_FALSE(server.runAsyncReq(&job, 61001));
    EXPECT_EQ(job.pData, nullptr);  // freed even though the job did not run
    EXPECT_TRUE(log.contains("[timeDiff=60001]Throw timeout request"));
    EXPECT_FALSE(log.contains("not support"));
}
