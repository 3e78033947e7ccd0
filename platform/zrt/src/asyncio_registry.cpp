// Socket-to-handle registry of the completion queue. Every send and receive
// names only its socket, so each post starts with a look-up here: a fixed table
// of buckets under a readers-writer lock, chained through the handles
// themselves, so that neither binding nor looking up allocates.
#include "asyncio_internal.h"

#include <shared_mutex>

namespace zrt_aio {

namespace {

constexpr unsigned kBuckets = 4096;  // sockets are small integers: one per bucket in practice

std::shared_mutex g_registryLock;
AsyncHandle* g_buckets[kBuckets];

AsyncHandle*& bucketOf(int sock)
{
    return g_buckets[static_cast<unsigned>(sock) % kBuckets];
}

}  // namespace

void handleAddRef(AsyncHandle* handle)
{
    handle->refs.fetch_add(1, std::memory_order_relaxed);
}

void handleRelease(AsyncHandle* handle)
{
    if (handle->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        handle->sends.deleteAll();
        handle->recvs.deleteAll();
        handle->completed.deleteAll();
        delete handle;
    }
}

AsyncHandle* registryFind(int sock)
{
    if (sock < 0) {
        return nullptr;
    }
    std::shared_lock<std::shared_mutex> guard(g_registryLock);
    for (AsyncHandle* handle = bucketOf(sock); handle != nullptr; handle = handle->registryNext) {
        if (handle->sock == sock) {
            handleAddRef(handle);
            return handle;
        }
    }
    return nullptr;
}

bool registryInsert(AsyncHandle* handle)
{
    std::unique_lock<std::shared_mutex> guard(g_registryLock);
    AsyncHandle*& head = bucketOf(handle->sock);
    for (AsyncHandle* other = head; other != nullptr; other = other->registryNext) {
        if (other->sock == handle->sock) {
            return false;
        }
    }
    handle->registryNext = head;
    head = handle;
    return true;
}

AsyncHandle* registryRemove(int sock, AsyncQueue* queue)
{
    if (sock < 0) {
        return nullptr;
    }
    std::unique_lock<std::shared_mutex> guard(g_registryLock);
    for (AsyncHandle** link = &bucketOf(sock); *link != nullptr; link = &(*link)->registryNext) {
        AsyncHandle* handle = *link;
        if (handle->sock == sock) {
            if (handle->queue != queue) {
                return nullptr;
            }
            *link = handle->registryNext;
            handle->registryNext = nullptr;
            return handle;
        }
    }
    return nullptr;
}

AsyncHandle* registryRemoveQueue(AsyncQueue* queue)
{
    AsyncHandle* removed = nullptr;
    std::unique_lock<std::shared_mutex> guard(g_registryLock);
    for (AsyncHandle*& bucket : g_buckets) {
        AsyncHandle** link = &bucket;
        while (*link != nullptr) {
            AsyncHandle* handle = *link;
            if (handle->queue == queue) {
                *link = handle->registryNext;
                handle->registryNext = removed;
                removed = handle;
            } else {
                link = &handle->registryNext;
            }
        }
    }
    return removed;
}

}  // namespace zrt_aio
