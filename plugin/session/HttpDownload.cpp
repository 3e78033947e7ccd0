// Download requests: a client names a recording by its playback URI (an RTSP
// URL), either in a JSON body (POST ...?format=json) or in an XML body (GET).
// The URI is rewritten into the gateway's download URI and opened through the
// RTSP conversion; the file then streams back through send().
#include <string.h>

#include "errors/RestErrorCodes.h"
#include "frame/ErrorCodes.h"
#include "frame/Log.h"
#include "session/ByteRange.h"
#include "session/DownloadUri.h"
#include "session/HttpSession.h"
#include "session/HttpSessionMgr.h"
#include "util/StringUtils.h"
#include "xml/mkTinyXMLConverter.h"

namespace HttpWrapper {

namespace {
const size_t kDevIndexLength = 36;
// Longer Range values are lists of ranges, which are not served; a longer
// If-Range is no tag the gateway issued, so it matches nothing.
const size_t kMaxRangeHeader = 128;
}  // namespace

void CHttpSession::readDownloadRange()
{
    // A chunked reply has no length a client could count a range in.
    std::string value;
    if (m_framing.isChunked() ||
        m_httpHelper.getRequestHeader(m_iHttpHandle, "Range", kMaxRangeHeader, value) != CHttpHelper::HEADER_READ) {
        return;
    }
    CByteRangeRequest range;
    if (!ParseRangeHeader(value, range)) {
        HPW_LOGD("Download request range ignored, Range[%s]", value.c_str());
        return;
    }
    // A validator too long to keep is still a validator: it cannot match, and
    // the whole body must come (ifRange stays empty, which matches nothing).
    std::string ifRange;
    const bool hasIfRange = m_httpHelper.getRequestHeader(m_iHttpHandle, "If-Range", kMaxRangeHeader, ifRange) !=
                            CHttpHelper::HEADER_ABSENT;
    m_strDownloadRange = DownloadRangeHead(range, hasIfRange, ifRange);
}

int CHttpSession::processDownloadRequest(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    char devIndex[kDevIndexLength + 1];
    memset(devIndex, 0, sizeof devIndex);
    if (!m_httpHelper.GetDevIndexFromURL(requestUrl(), devIndex)) {
        HPW_LOGE(HPW_ERR_DOWNLOAD_URL, "Download request url error, url=%s", requestUrl());
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadUrlFormat);
        return -1;
    }
    if (body == nullptr || length <= 0) {
        HPW_LOGE(HPW_ERR_PARAM, "Download request invalid parameter");
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadParameters);
        return -1;
    }

    if (!ReadJsonDownloadUri(body, length, m_strPlaybackURI)) {
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadParameters);
        return -1;
    }
    if (!IsCompleteDownloadUri(m_strPlaybackURI, devIndex)) {
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadParameters);
        return -1;
    }
    // Without a name or a size the length is not known up front: stream chunked.
    if (!Contain(m_strPlaybackURI, "name") && !Contain(m_strPlaybackURI, "size")) {
        m_framing.setChunked(true);
    }
    readDownloadRange();

    if (convertToRtspProcess(true) != 0) {
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, static_cast<unsigned int>(GetErrorCode()));
        return -1;
    }
    m_iDownloadCounted = 1;
    singleton<CHttpSessionMgr>::instance()->increaseDownloadNum();
    return 0;  // the head follows the first STREAM_INFO
}

int CHttpSession::processQumexDownloadRequest(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    // Parse failures and a missing body answer in JSON, the rest in XML: clients
    // of this form have always seen that mix (Q13).
    if (body == nullptr || length <= 0) {
        HPW_LOGE(HPW_ERR_PARAM, "Download request invalid parameter");
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadParameters);
        return -1;
    }
    CmkTinyXMLConverter xml;
    if (!xml.SetDoc(body)) {
        HPW_LOGE(HPW_ERR_XML_PARSE, "Download request xml parse fail, content=%s", body);
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadParameters);
        return -1;
    }
    if (!xml.FindElem("downloadRequest", false) || !xml.IntoElem() || !xml.FindElem("playbackURI", false)) {
        HPW_LOGE(HPW_ERR_PARAM, "Download request invalid parameter");
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestBadParameters);
        return -1;
    }
    m_strPlaybackURI = xml.GetData();

    // A camera identifier with a "-" names a device: camera/<id>/ becomes
    // device/<id>/ and needs no port parameter.
    bool deviceRewrite = false;
    size_t camera = m_strPlaybackURI.find("camera");
    if (camera != std::string::npos && camera + 7 <= m_strPlaybackURI.size()) {
        size_t idStart = camera + 7;
        size_t idEnd = m_strPlaybackURI.find('/', idStart);
        std::string id =
            m_strPlaybackURI.substr(idStart, idEnd == std::string::npos ? std::string::npos : idEnd - idStart);
        if (id.find('-') != std::string::npos) {
            m_strPlaybackURI.replace(camera, 6, "device");
            deviceRewrite = true;
        }
    }
    if (!deviceRewrite) {
        // The RTSP port of the URI ("rtsp://host:port/...") becomes a parameter.
        size_t colon = m_strPlaybackURI.find(':', 7);
        if (!Contain(m_strPlaybackURI, "rtsp") || colon == std::string::npos) {
            HPW_LOGE(HPW_ERR_PARAM, "Download request invalid URL[%s]", m_strPlaybackURI.c_str());
            m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestBadParameters);
            return -1;
        }
        size_t portEnd = m_strPlaybackURI.find('/', colon + 1);
        std::string port =
            m_strPlaybackURI.substr(colon + 1, portEnd == std::string::npos ? std::string::npos : portEnd - colon - 1);
        m_strPlaybackURI +=
            Contain(m_strPlaybackURI, "?") ? "&indexType=rtspPort&rtspPort=" : "?indexType=rtspPort&rtspPort=";
        m_strPlaybackURI += port;
    }
    RewritePlaybackToDownload(m_strPlaybackURI);

    // This form always announces a Content-Length: it never streams chunked.
    readDownloadRange();
    if (convertToRtspProcess(true) != 0) {
        sendHead(GetStatusCode());
        return -1;
    }
    m_iDownloadCounted = 1;
    singleton<CHttpSessionMgr>::instance()->increaseDownloadNum();
    return 0;
}

}  // namespace HttpWrapper
