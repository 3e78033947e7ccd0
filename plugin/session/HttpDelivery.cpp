// Downloads whose gateway hands over the file (ext/DeliveryRequest.h): the
// embedded server's event loop writes it, so no gateway thread is held for a
// slow client. The session keeps only what it needs to end the delivery and
// to tell OnStop apart from the delivery's own end.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <new>

#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "session/HttpSession.h"

namespace HttpWrapper {

// Shared by the session and the server's callback: the gateway's callback is called once, and fini waits
// for it.
struct CHttpSession::DeliveryState {
    PROTOCOL_WRAPPER::DeliveryDoneCallback onDone;
    void* context;
    std::mutex lock;
    std::condition_variable changed;
    bool done = false;
};

namespace {

// A delivery ends within a pass of the server's loop once its connection is aborted; this bounds the wait
// should the loop be gone already (its files then ended before the listener was destroyed).
const auto kDeliveryEndWait = std::chrono::seconds(10);

int deliveryOutcome(int fileOutcome)
{
    switch (fileOutcome) {
    case NET_FILE_COMPLETE: return PROTOCOL_WRAPPER::DELIVERY_COMPLETE;
    case NET_FILE_CLIENT_GONE: return PROTOCOL_WRAPPER::DELIVERY_CLIENT_GONE;
    case NET_FILE_SEND_TIMEOUT: return PROTOCOL_WRAPPER::DELIVERY_SEND_TIMEOUT;
    case NET_FILE_TOO_SLOW: return PROTOCOL_WRAPPER::DELIVERY_TOO_SLOW;
    case NET_FILE_READ_ERROR: return PROTOCOL_WRAPPER::DELIVERY_READ_ERROR;
    default: return PROTOCOL_WRAPPER::DELIVERY_STOPPED;
    }
}

}  // namespace

// The server's callback, on its loop thread. The holder is the server's reference to the state, released here.
static void onFileDone(int handle, int outcome, uint64_t bytes, void* user)
{
    auto* holder = static_cast<std::shared_ptr<CHttpSession::DeliveryState>*>(user);
    std::shared_ptr<CHttpSession::DeliveryState> state = std::move(*holder);
    delete holder;
    HPW_LOGI("Http download delivered by the server, httpHandle[%d] outcome[%d] bytes[%llu]", handle, outcome,
             static_cast<unsigned long long>(bytes));
    state->onDone(state->context, deliveryOutcome(outcome), bytes);
    std::lock_guard<std::mutex> guard(state->lock);
    state->done = true;
    state->changed.notify_all();
}

int CHttpSession::deliverFile(const PROTOCOL_WRAPPER::DeliveryRequest& request)
{
    if (request.fd < 0 || request.onDone == nullptr || request.offset > static_cast<uint64_t>(INT64_MAX) ||
        request.length > static_cast<uint64_t>(INT64_MAX)) {
        return HPW_ERR_PARAM;
    }
    std::lock_guard<std::mutex> guard(m_deliveryLock);
    if (m_delivery || m_bClosing || m_iState == SESSION_CLOSED || m_iDestroyRequested != 0 || m_iEndSent != 0) {
        return HPW_ERR_STATUS;
    }
    auto state = std::make_shared<DeliveryState>();
    state->onDone = request.onDone;
    state->context = request.context;
    auto* holder = new (std::nothrow) std::shared_ptr<DeliveryState>(state);
    const int fd = fcntl(request.fd, F_DUPFD_CLOEXEC, 0);
    if (holder == nullptr || fd < 0) {
        delete holder;
        HPW_LOGE(HPW_ERR_NO_MEMORY, "Http download delivery: no descriptor or memory, httpHandle[%d]",
                 m_iHttpHandle.load());
        return HPW_ERR_NO_MEMORY;
    }
    const CServerOptions& options = singleton<CHttpServerWrapper>::instance()->options();
    NET_HTTPSERVER_FILE_PARAM file{};
    file.iFd = fd;
    file.llOffset = static_cast<int64_t>(request.offset);
    file.llLength = static_cast<int64_t>(request.length);
    file.dwChunkSize = m_framing.isChunked() ? (request.blockSize != 0 ? request.blockSize : 1) : 0;
    // As with send(): without strictSendTimeout a stalled client has the 60 s a stalled reply is retried for.
    file.dwStallTimeoutMs = options.strictSendTimeout ? 0 : static_cast<uint32_t>(kSendStallLimitMs);
    file.dwMinRate = request.minRate;
    file.dwMinRateSeconds = request.minRateSeconds;
    file.dwFlags = options.deliverySendfile ? NET_FILE_FLAG_SENDFILE : 0;
    file.fnDone = &onFileDone;
    file.pUser = holder;
    if (NET_HTTPSERVER_SendFile(m_iHttpHandle, &file) != 0) {
        HPW_LOGE(HPW_ERR_NETUTILS, "Http download delivery refused, errNum[%d], httpHandle[%d]",
                 NET_UTILS_GetLastError(), m_iHttpHandle.load());
        close(fd);
        delete holder;
        return HPW_ERR_NETUTILS;
    }
    // The server writes the chunked body's end itself.
    m_iEndSent = 1;
    m_delivery = std::move(state);
    return 0;
}

bool CHttpSession::isDelivering()
{
    std::lock_guard<std::mutex> guard(m_deliveryLock);
    return static_cast<bool>(m_delivery);
}

void CHttpSession::endDelivery()
{
    std::shared_ptr<DeliveryState> state;
    {
        std::lock_guard<std::mutex> guard(m_deliveryLock);
        m_bClosing = true;  // no hand-over after this
        state = m_delivery;
    }
    if (!state) {
        return;
    }
    NET_HTTPSERVER_Abort(m_iHttpHandle);  // harmless when the delivery has ended already
    std::unique_lock<std::mutex> lock(state->lock);
    if (!state->changed.wait_for(lock, kDeliveryEndWait, [&] { return state->done; })) {
        HPW_LOGE(HPW_ERR_STATUS, "Http download delivery did not end, httpHandle[%d]", m_iHttpHandle.load());
    }
}

}  // namespace HttpWrapper
