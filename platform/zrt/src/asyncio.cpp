// C interface of the asynchronous I/O completion queue: binding sockets,
// posting operations and synthetic completions.
#include "asyncio_internal.h"

#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <new>

using namespace zrt_aio;

namespace {

int fail(int error)
{
    errno = error;
    return -1;
}

// A send the socket could not take at once waits on a copy of its bytes: the
// poster's buffer is free when the post returns, whatever the peer's pace. The
// audio relay depends on it, since the gateway reuses its packet buffer as soon
// as IServer::Send returns. A send that completed at once costs no copy.
// False when memory is short (the send then fails as a whole).
bool keepSendCopy(AsyncOp* op)
{
    if (op->finished || op->length == 0) {
        return true;
    }
    op->ownCopy = new (std::nothrow) char[static_cast<size_t>(op->length)];
    if (op->ownCopy == nullptr) {
        return false;
    }
    memcpy(op->ownCopy, op->buffer, static_cast<size_t>(op->length));
    op->buffer = op->ownCopy;
    return true;
}

// Posts a send (to may be null) or a receive (from may be null) on a bound
// socket, trying it at once when nothing is queued before it.
ZRT_INT32 postOperation(int sock, OpKind kind, char* buffer, int length, void* context, ZRT_ASYNCIO_CALLBACK callback,
                        const ZRT_ADDR_T* to, ZRT_ADDR_T* from)
{
    // A zero-length receive could not be told apart from the peer closing.
    if (length < 0 || (buffer == nullptr && length > 0) || (kind == OpKind::Recv && length == 0)) {
        return fail(EINVAL);
    }
    AsyncHandle* handle = registryFind(sock);
    if (handle == nullptr) {
        return fail(EBADF);
    }
    AsyncOp* op = new (std::nothrow) AsyncOp;
    if (op == nullptr) {
        handleRelease(handle);
        return fail(ENOMEM);
    }
    op->buffer = buffer;
    op->length = length;
    op->context = context;
    op->from = from;
    if (to != nullptr) {
        op->hasTo = true;
        op->to = *to;
    }
    int error = 0;
    {
        std::lock_guard<std::mutex> guard(handle->mutex);
        op->callback = callback != nullptr ? callback : handle->defaultCallback;
        if (handle->unbound) {
            error = EBADF;
        } else if (op->callback == nullptr) {
            error = EINVAL;
        } else {
            OpList& list = kind == OpKind::Send ? handle->sends : handle->recvs;
            bool idle = list.empty();
            if (kind == OpKind::Send && !idle && !keepSendCopy(op)) {
                error = ENOMEM;
            } else {
                list.push(op);
                AsyncOp* posted = op;
                op = nullptr;
                if (idle) {
                    if (kind == OpKind::Send) {
                        driveSends(handle);
                        // Still waiting for the socket: the copy is taken before
                        // the lock goes, so the poller never reads the poster's
                        // buffer after the post returned. Memory short: the send
                        // is completed with ENOMEM from where it stopped.
                        if (!keepSendCopy(posted)) {
                            handle->sends.pop();
                            completeLocked(handle, posted, ENOMEM, static_cast<unsigned long>(posted->transferred));
                        }
                    } else if (handle->mayHaveInput) {
                        driveRecvs(handle);
                    }
                }
            }
        }
    }
    delete op;
    handleRelease(handle);
    return error == 0 ? 0 : fail(error);
}

}  // namespace

extern "C" {

void* ZRT_AsyncIO_CreateQueueEx_New(int threads)
{
    return createQueue(threads);
}

ZRT_INT32 ZRT_AsyncIO_DestroyQueueEx(void* queue)
{
    return destroyQueue(queue);
}

ZRT_INT32 ZRT_AsyncIO_BindIOHandleToQueueEx(int sock, void* queue)
{
    if (!queueIsValid(queue)) {
        return fail(EINVAL);
    }
    if (sock < 0) {
        return fail(EBADF);
    }
    int type = 0;
    socklen_t typeLength = sizeof type;
    if (getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0 || ZRT_SetNonBlock(sock, 1) != 0) {
        return -1;
    }
    AsyncHandle* handle = new (std::nothrow) AsyncHandle;
    if (handle == nullptr) {
        return fail(ENOMEM);
    }
    handle->sock = sock;
    handle->stream = type == SOCK_STREAM;
    handle->queue = static_cast<AsyncQueue*>(queue);
    if (!registryInsert(handle)) {
        delete handle;
        return fail(EEXIST);
    }
    // Registered once for the whole binding, edge-triggered: readiness is acted
    // on only while operations wait for it.
    struct epoll_event interest = {};
    interest.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    interest.data.u64 = static_cast<uint64_t>(sock);
    if (epoll_ctl(queueEpollFd(handle->queue), EPOLL_CTL_ADD, sock, &interest) != 0) {
        int error = errno;
        AsyncHandle* removed = registryRemove(sock, handle->queue);
        if (removed != nullptr) {
            handleRelease(removed);
        }
        return fail(error);
    }
    return 0;
}

ZRT_INT32 ZRT_AsyncIO_BindCallBackToIOHandleEx(int sock, ZRT_ASYNCIO_CALLBACK cb)
{
    AsyncHandle* handle = registryFind(sock);
    if (handle == nullptr) {
        return fail(EBADF);
    }
    {
        std::lock_guard<std::mutex> guard(handle->mutex);
        handle->defaultCallback = cb;
    }
    handleRelease(handle);
    return 0;
}

ZRT_INT32 ZRT_AsyncIO_UnBindIOHandleEx(int sock, void* queue)
{
    if (!queueIsValid(queue)) {
        return fail(EINVAL);
    }
    AsyncHandle* handle = registryRemove(sock, static_cast<AsyncQueue*>(queue));
    if (handle == nullptr) {
        return fail(EBADF);
    }
    OpList dropped;
    {
        std::unique_lock<std::mutex> lock(handle->mutex);
        handle->unbound = true;
        dropped.splice(handle->sends);
        dropped.splice(handle->recvs);
        dropped.splice(handle->completed);
        epoll_ctl(queueEpollFd(handle->queue), EPOLL_CTL_DEL, sock, nullptr);
        // Owners free their contexts once this returns, so a callback of the
        // socket running elsewhere must have ended; one running on this very
        // thread is the caller itself and cannot be waited for.
        if (handle->dispatching && !isDispatchingOnThisThread(handle)) {
            ++handle->idleWaiters;
            handle->idle.wait(lock, [handle] { return !handle->dispatching; });
            --handle->idleWaiters;
        }
    }
    dropped.deleteAll();
    handleRelease(handle);
    return 0;
}

ZRT_INT32 ZRT_AsyncIO_SendEx(int sock, const char* buf, int len, void* context, ZRT_ASYNCIO_CALLBACK cb)
{
    return postOperation(sock, OpKind::Send, const_cast<char*>(buf), len, context, cb, nullptr, nullptr);
}

ZRT_INT32 ZRT_AsyncIO_RecvEx(int sock, char* buf, int len, void* context, ZRT_ASYNCIO_CALLBACK cb)
{
    return postOperation(sock, OpKind::Recv, buf, len, context, cb, nullptr, nullptr);
}

ZRT_INT32 ZRT_AsyncIO_SendToEx(int sock, const char* buf, int len, void* context, const ZRT_ADDR_T* to,
                               ZRT_ASYNCIO_CALLBACK cb)
{
    return postOperation(sock, OpKind::Send, const_cast<char*>(buf), len, context, cb, to, nullptr);
}

ZRT_INT32 ZRT_AsyncIO_RecvFromEx(int sock, char* buf, int len, void* context, ZRT_ADDR_T* from, ZRT_ASYNCIO_CALLBACK cb)
{
    return postOperation(sock, OpKind::Recv, buf, len, context, cb, nullptr, from);
}

ZRT_INT32 ZRT_AsyncIO_PostQueuedCompleteStatusEx(void* queue, int sock, unsigned long error, unsigned long bytes,
                                                 void* context, ZRT_ASYNCIO_CALLBACK cb)
{
    if (!queueIsValid(queue)) {
        return fail(EINVAL);
    }
    AsyncQueue* target = static_cast<AsyncQueue*>(queue);
    AsyncOp* op = new (std::nothrow) AsyncOp;
    if (op == nullptr) {
        return fail(ENOMEM);
    }
    op->context = context;
    op->callback = cb;
    op->error = error;
    op->bytes = bytes;
    if (sock < 0) {
        if (cb == nullptr || !queuePostLoose(target, op)) {
            int reason = cb == nullptr ? EINVAL : ESHUTDOWN;
            delete op;
            return fail(reason);
        }
        return 0;
    }
    // A completion for a socket joins that socket's own: it runs in order with
    // them and is cancelled by unbinding like them.
    AsyncHandle* handle = registryFind(sock);
    int reason = 0;
    if (handle == nullptr || handle->queue != target) {
        reason = EBADF;
    } else {
        std::lock_guard<std::mutex> guard(handle->mutex);
        if (op->callback == nullptr) {
            op->callback = handle->defaultCallback;
        }
        if (handle->unbound) {
            reason = EBADF;
        } else if (op->callback == nullptr) {
            reason = EINVAL;
        } else {
            completeLocked(handle, op, error, bytes);
            op = nullptr;
        }
    }
    if (handle != nullptr) {
        handleRelease(handle);
    }
    delete op;
    return reason == 0 ? 0 : fail(reason);
}

}  // extern "C"
