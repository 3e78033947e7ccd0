// How data travels from the gateway to the HTTP client: the head on the first
// stream information, every media block as one body piece (or one chunk), the
// chunk terminator at the end of the stream; and the one-shot reply paths.
//
// This is the hot path of the product: a media block goes from the gateway's
// buffer to the embedded server's reply without a copy. The server's Reply
// waits for the socket itself within its send time-out, so the 10 ms retry
// sleep below only runs after a reply that made partial progress.
#include <string.h>

#include <ext/DownloadSendCodes.h>
#include <ext/StreamBlockLayout.h>

#include "frame/Clock.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "session/HttpSession.h"

namespace HttpWrapper {

namespace {
const int kReplySendTimeoutMs = 5000;
const ZRT_UINT32 kPartialRetrySleepMs = 10;

bool stageHeader(int handle, const char* name, const std::string& value)
{
    return NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_HEADER, name, static_cast<int>(strlen(name)),
                                   value.c_str(), static_cast<int>(value.size())) == 0;
}

bool stageInt(int handle, int kind, int value)
{
    return NET_HTTPSERVER_SetParam(handle, kind, nullptr, 0, &value, static_cast<int>(sizeof value)) == 0;
}
}  // namespace

int CHttpSession::send(int index, int dataType, void* data, int length)
{
    switch (dataType) {
    case PROTOCOL_WRAPPER::STREAM_INFO: {
        HPW_LOGD("Http download get STREAM_INFO");
        bool validIndex = index >= 0 && index < kStreamInfoSlots;
        // A block is never copied past its record, whatever length the gateway gives.
        size_t copy = StreamBlock::infoCopyLength(data, length);
        if (m_iWaitFirstInfo != 0) {
            if (validIndex && index == m_iStreamInfoCount && m_iStreamInfoCount <= 3) {
                if (copy != 0) {
                    memcpy(m_streamInfo[index], data, copy);
                }
                m_iStreamInfoCount++;
            }
            m_iWaitFirstInfo = 0;
            uint64_t fileLength = validIndex ? StreamBlock::readFileLength(m_streamInfo[index]) : 0;
            m_ullFileLen = CReplyFraming::announcedLength(fileLength);
            HPW_LOGD("[fileLen = %d]Http download get file len", static_cast<int>(m_ullFileLen.load()));
            if (m_strDownloadRange.empty()) {
                sendHead(200);
            } else {
                // The report is read from the block as given, not from a stored record.
                sendRangedHead(static_cast<const char*>(data), copy);
            }
        } else if (validIndex && m_iStreamInfoCount > index && copy != 0) {
            // A later block refreshes a stored record and changes nothing else.
            memcpy(m_streamInfo[index], data, copy);
        }
        return 0;
    }
    case PROTOCOL_WRAPPER::STREAM_HEAD: HPW_LOGD("Http download get STREAM_HEAD"); return sendStream(data, length);
    case PROTOCOL_WRAPPER::STREAM_DATA: return sendStream(data, length);
    case PROTOCOL_WRAPPER::STREAM_END: {
        HPW_LOGI("Http download receive STREAM_END");
        std::string end = m_framing.end();
        int notSent = 0;
        if (!end.empty() && m_iEndSent.compare_exchange_strong(notSent, 1)) {
            m_httpHelper.response(m_iHttpHandle, end.data(), static_cast<int>(end.size()));
        }
        return 0;
    }
    case HPW_STREAM_ABORT:
        if (!singleton<CHttpServerWrapper>::instance()->options().streamAbort) {
            return 0;  // an unknown type to a gateway that did not ask
        }
        // No end is written: the client sees the body cut short, not complete.
        HPW_LOGI("Http download aborted by the gateway, httpHandle[%d]", m_iHttpHandle.load());
        pushDestroyReq();
        return 0;
    default: return 0;
    }
}

int CHttpSession::sendStream(void* data, int length)
{
    const char* bytes = static_cast<const char*>(data);
    int handle = m_iHttpHandle;
    // The framing's bytes go out whole or not at all (the helper's result is
    // not checked: a failure shows in the block's own reply).
    std::string prefix = m_framing.blockPrefix(length);
    if (!prefix.empty()) {
        m_httpHelper.response(handle, prefix.data(), static_cast<int>(prefix.size()));
    }

    // A reply returns short only when the socket took nothing for the send time-out: with
    // strictSendTimeout that ends the download there and then.
    const bool strict = singleton<CHttpServerWrapper>::instance()->options().strictSendTimeout;
    int result = 0;
    int written = 0;
    bool stalled = false;
    ZRT_UINT64 stallStart = 0;
    while (written < length) {
        if (m_bClosing || m_iState == SESSION_CLOSED || m_iDestroyRequested != 0) {
            HPW_LOGI("Http session allready destroyed");  // spelt as operators search for it (Q18)
            result = 0;
            break;
        }
        int remaining = length - written;
        if (NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, bytes + written, remaining) != 0) {
            HPW_LOGE(HPW_ERR_NETUTILS, "[download error], Http SetParam fail! errNum[%d], httpHandle[%d]",
                     NET_UTILS_GetLastError(), handle);
            result = -1;
            break;
        }
        int sent = NET_HTTPSERVER_Reply(handle, 0);
        if (sent < 0) {
            HPW_LOGE(HPW_ERR_NETUTILS,
                     "[download error], Http Reply fail! errNum[%d], httpHandle[%d], replyRet[%d], dataLenCurr[%d]",
                     NET_UTILS_GetLastError(), handle, sent, remaining);
            result = -1;
            break;
        }
        if (sent >= remaining) {
            m_iTimeoutCount.store(0);
            result = 0;
            break;
        }
        if (strict) {
            HPW_LOGE(HPW_ERR_SEND_TIMEOUT, "[download error], send data timeout!httpHandle[%d]", handle);
            result = HPW_SEND_TIMEOUT;
            break;
        }
        if (sent > 0) {
            stalled = false;
            m_iTimeoutCount.store(0);
        } else if (!stalled) {
            stalled = true;
            stallStart = hpwTickMs();
        } else if (hpwTickMs() - stallStart > kSendStallLimitMs) {
            HPW_LOGE(HPW_ERR_SEND_TIMEOUT, "[download error], send data timeout!httpHandle[%d]", handle);
            result = -1;
            break;
        }
        ZRT_Sleep(kPartialRetrySleepMs);
        HPW_LOGD("[download debug], send data partial! replyRet[%d], httpHandle[%d]", sent, handle);
        written += sent;
    }

    if (result != 0) {
        pushDestroyReq();
        return result;
    }
    std::string suffix = m_framing.blockSuffix();
    if (!suffix.empty()) {
        m_httpHelper.response(handle, suffix.data(), static_cast<int>(suffix.size()));
    }
    return result;
}

int CHttpSession::sendHead(int status)
{
    if (status == 200) {
        return sendStreamHead(200, m_framing.head(m_ullFileLen));
    }
    // A bare head: the gateway's error is not described to the client here.
    int handle = m_iHttpHandle;
    bool ok = stageInt(handle, NET_HTTPSERVER_PARAM_STATUS, status) &&
              stageInt(handle, NET_HTTPSERVER_PARAM_SEND_TIMEOUT, kReplySendTimeoutMs) &&
              NET_HTTPSERVER_Reply(handle, 0) != -1;
    if (!ok) {
        pushDestroyReq();
        return -1;
    }
    return 0;
}

int CHttpSession::sendRangedHead(const char* info, size_t length)
{
    CServedRange served;
    switch (ReadServedRange(info, length, m_ullFileLen, served)) {
    case RANGE_RECORD_ABSENT:
        // A gateway that serves whole bodies only: the reply is the one without Range.
        return sendHead(200);
    case RANGE_RECORD_INVALID:
        // Which bytes follow is unknown: no client may take them for a part of the recording.
        HPW_LOGE(HPW_ERR_RANGE_RECORD, "Http download range report of the gateway unreadable, range[%s]",
                 m_strDownloadRange.c_str());
        return sendHead(500);
    default: break;
    }
    HPW_LOGD("Http download range[%s] outcome[%d] bytes[%llu-%llu]", m_strDownloadRange.c_str(), served.outcome,
             served.first, served.last);
    return sendStreamHead(CReplyFraming::rangedStatus(served), CReplyFraming::rangedHead(served, m_ullFileLen));
}

int CHttpSession::sendStreamHead(int status, const CReplyFraming::Headers& headers)
{
    int handle = m_iHttpHandle;
    // The embedded server's default status is 200: it is not staged.
    bool ok = status == 200 || stageInt(handle, NET_HTTPSERVER_PARAM_STATUS, status);
    for (const auto& header : headers) {
        ok = ok && stageHeader(handle, header.first.c_str(), header.second);
    }
    ok = ok && stageInt(handle, NET_HTTPSERVER_PARAM_SEND_TIMEOUT, kReplySendTimeoutMs) &&
         NET_HTTPSERVER_Reply(handle, 0) != -1 &&
         NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_STREAM, nullptr, 0, nullptr, 0) == 0;
    if (!ok) {
        pushDestroyReq();
        return -1;
    }
    return 0;
}

int CHttpSession::sendReply(int status, const char* body, int bodyLength, const std::string& contentSubtype)
{
    int handle = m_iHttpHandle;
    bool ok = stageInt(handle, NET_HTTPSERVER_PARAM_STATUS, status);
    if (ok && body != nullptr && bodyLength >= 1) {
        ok = stageHeader(handle, "Content-Type", "application/" + contentSubtype) &&
             stageInt(handle, NET_HTTPSERVER_PARAM_SEND_TIMEOUT, kReplySendTimeoutMs) &&
             NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, body, bodyLength) == 0 &&
             NET_HTTPSERVER_Reply(handle, 0) != -1;
    }
    // Without a body only the status is staged: the caller's later reply carries it.
    if (!ok) {
        HPW_LOGE(HPW_ERR_NETUTILS, "[error=%d], sendReply fail", NET_UTILS_GetLastError());
        return -1;
    }
    return 0;
}

}  // namespace HttpWrapper
