#include "errors/HttpErrorHandler.h"

#include <string.h>

#include <netutils/VQNetUtils.h>

#include "errors/RestErrorCodes.h"
#include "errors/RestErrorTable.h"
#include "errors/XmlNamespaces.h"
#include "frame/FatalAssert.h"
#include "util/HttpHelper.h"
#include "xml/mkTinyXMLConverter.h"

namespace HttpWrapper {

namespace {

const char kContentTypeJSON[] = "application/json";
const char kContentTypeXML[] = "application/xml";
const char kContentTypeHeader[] = "Content-Type";
const char kChallengeHeader[] = "WWW-Authenticate";

// The request parameter block of the embedded HTTP server starts with the URL.
static_assert(sizeof(NET_HTTPSERVER_REQUEST_PARAM) == 5054, "request parameter block of the HTTP server");

// The documents are defined by the fast writer's output: members in ascending
// key order, no blanks, one trailing newline.
std::string fastWrite(const Json::Value& value)
{
    Json::FastWriter writer;
    return writer.write(value);
}

// A document of the three status members only, as the success and the
// challenge answers carry it.
std::string shortStatusText(int statusCode, const char* statusString, const char* subStatusCode)
{
    Json::Value status;
    status["statusCode"] = statusCode;
    status["statusString"] = statusString;
    status["subStatusCode"] = subStatusCode;
    return fastWrite(status);
}

std::string successText()
{
    return shortStatusText(1, "OK", "ok");
}

std::string statusText(ZRT_UINT32 errorNo)
{
    if (errorNo == 0 || errorNo == 1) {
        return successText();
    }
    // A number without a row leaves the value null, whose text is "null\n";
    // the value form turns that into "internalError" (intended, Q9).
    Json::Value status;
    ZRT_UINT32 httpStatus = 0;
    getResponseStatusByErrorNo(errorNo, status, httpStatus);
    return fastWrite(status);
}

// The integer "errorCode" of a document, or false. A text may parse into any
// JSON value, and member access on an array or a scalar would throw.
bool integerErrorCode(const Json::Value& status, ZRT_INT32& errorCode)
{
    if (!status.isObject() || !status.isMember("errorCode") || !status["errorCode"].isInt()) {
        return false;
    }
    errorCode = status["errorCode"].asInt();
    return true;
}

// Callers of the four-argument form pass only numbers of the table, so any
// other number is a programming error. It stops the process with the assertion
// message operators know from this form: "0", "HttpErrorHandler", line 69 (Q12).
[[noreturn]] void stopOnUnknownErrorNo()
{
    HPW_FATAL_ASSERT("0", "HttpErrorHandler", 69,
                     "void HttpWrapper::CHttpErrorHandler::RenderJSONResponseStatus(ZRT_INT32, ZRT_UINT32, const "
                     "string&, Json::Value)");
}

}  // namespace

void CHttpErrorHandler::RenderJSONResponseStatus(ZRT_INT32 handle, ZRT_UINT32 errorNo)
{
    sendReply(handle, buildJSONReply(errorNo));
}

void CHttpErrorHandler::RenderJSONResponseStatus(ZRT_INT32 handle, std::string& json)
{
    sendReply(handle, buildJSONReplyFromText(json));
}

void CHttpErrorHandler::RenderJSONResponseStatus(ZRT_INT32 handle, const Json::Value& status)
{
    sendReply(handle, buildJSONReplyFromValue(status));
}

void CHttpErrorHandler::RenderJSONResponseStatus(ZRT_INT32 handle, ZRT_UINT32 errorNo, const std::string& key,
                                                 Json::Value extra)
{
    sendReply(handle, buildJSONReplyWithExtra(errorNo, key, extra));
}

std::string CHttpErrorHandler::getJSONResponseStatus(ZRT_UINT32 errorNo)
{
    return statusText(errorNo);
}

std::string CHttpErrorHandler::getJSONResponseStatus(ZRT_INT32& errorNo, const Json::Value& status)
{
    if (integerErrorCode(status, errorNo)) {
        return fastWrite(status);
    }
    errorNo = static_cast<ZRT_INT32>(kRestInternalError);
    return statusText(kRestInternalError);
}

std::string CHttpErrorHandler::getJSONSuccess()
{
    return successText();
}

void CHttpErrorHandler::renderXMLResponseStatus(ZRT_INT32 handle, ZRT_UINT32 errorNo)
{
    sendReply(handle, buildXMLReply(errorNo, readRequestURL(handle)));
}

void CHttpErrorHandler::renderChallenge(ZRT_INT32 handle, const std::string& challenge)
{
    // Not checked, like every reply here: the manager releases the session either way.
    NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_HEADER, kChallengeHeader,
                            static_cast<int>(strlen(kChallengeHeader)), challenge.c_str(),
                            static_cast<int>(challenge.size()));
    sendReply(handle, buildChallengeReply());
}

std::string CHttpErrorHandler::getRawXMLResponse(ZRT_UINT32 errorNo, const std::string& requestURL,
                                                 const std::string& extraHeaders)
{
    Json::Value status;
    ZRT_UINT32 groupStatus = 200;
    getResponseStatusByErrorNo(errorNo, status, groupStatus);
    // The status line takes the HTTP status with the 401 exception for
    // "badAuthorization", so the challenge of the raw channel reads 401.
    ZRT_UINT32 httpStatus = 200;
    getHttpStatusCodeByErrorNo(errorNo, httpStatus);
    std::string document = getXMLResponseStatus(requestURL, status);

    // Q1: the phrase text starts with the code itself, so the status line
    // reads "HTTP/1.1 401 401 Unauthorized".
    std::string response =
        "HTTP/1.1 " + std::to_string(httpStatus) + " " + CHttpHelper().getHTTPStatsStringByCode(httpStatus) + "\r\n";
    response += "Content-Length: " + std::to_string(document.size()) + "\r\n";
    response += std::string(kContentTypeHeader) + ": " + kContentTypeXML + "\r\n";
    if (!extraHeaders.empty()) {
        response += extraHeaders + "\r\n";
    }
    response += "\r\n";
    response += document;
    return response;
}

tagRESPONSE_STATUS_REPLY CHttpErrorHandler::buildChallengeReply()
{
    return tagRESPONSE_STATUS_REPLY{kContentTypeJSON, shortStatusText(401, "Unauthorized", "badAuthorization"), 401};
}

tagRESPONSE_STATUS_REPLY CHttpErrorHandler::buildJSONReply(ZRT_UINT32 errorNo)
{
    // The number goes through its text, so 0, 1 and unknown numbers take the
    // value form's fallback like any other document without an "errorCode".
    return buildJSONReplyFromText(statusText(errorNo));
}

tagRESPONSE_STATUS_REPLY CHttpErrorHandler::buildJSONReplyFromText(const std::string& json)
{
    Json::Value status;
    bool parsed = false;
    try {
        Json::Reader reader;
        parsed = reader.parse(json, status, true);
    } catch (const std::exception&) {
        // The reader throws on nesting deeper than its limit; such a text is
        // as unusable as one that does not parse.
        parsed = false;
    }
    if (!parsed) {
        return buildJSONReply(kRestInternalError);
    }
    return buildJSONReplyFromValue(status);
}

tagRESPONSE_STATUS_REPLY CHttpErrorHandler::buildJSONReplyFromValue(const Json::Value& status)
{
    ZRT_INT32 errorCode = 0;
    if (!integerErrorCode(status, errorCode)) {
        return buildJSONReply(kRestInternalError);
    }
    ZRT_UINT32 httpStatus = 500;
    getHttpStatusCodeByErrorNo(static_cast<ZRT_UINT32>(errorCode), httpStatus);
    return tagRESPONSE_STATUS_REPLY{kContentTypeJSON, fastWrite(status), static_cast<ZRT_INT32>(httpStatus)};
}

tagRESPONSE_STATUS_REPLY CHttpErrorHandler::buildJSONReplyWithExtra(ZRT_UINT32 errorNo, const std::string& key,
                                                                    const Json::Value& extra)
{
    ZRT_UINT32 httpStatus = 500;
    Json::Value status;
    if (!getResponseStatusByErrorNo(errorNo, status, httpStatus)) {
        stopOnUnknownErrorNo();
    }
    status[key] = extra;
    // The group's HTTP status, without the 401 of getHttpStatusCodeByErrorNo:
    // this form has always answered 403 for "badAuthorization" (intended, Q10).
    return tagRESPONSE_STATUS_REPLY{kContentTypeJSON, fastWrite(status), static_cast<ZRT_INT32>(httpStatus)};
}

tagRESPONSE_STATUS_REPLY CHttpErrorHandler::buildXMLReply(ZRT_UINT32 errorNo, const std::string& requestURL)
{
    // The lookup's result is not checked: an unknown number still answers,
    // with HTTP 200 and an empty status (intended, Q11).
    ZRT_UINT32 httpStatus = 200;
    Json::Value status;
    getResponseStatusByErrorNo(errorNo, status, httpStatus);
    return tagRESPONSE_STATUS_REPLY{kContentTypeXML, getXMLResponseStatus(requestURL, status),
                                    static_cast<ZRT_INT32>(httpStatus)};
}

std::string CHttpErrorHandler::getXMLResponseStatus(const std::string& requestURL, const Json::Value& status)
{
    const Json::Value none;
    const Json::Value& fields = status.isObject() ? status : none;
    const Json::Value& statusCode = fields["statusCode"];
    const Json::Value& statusString = fields["statusString"];
    const Json::Value& subStatusCode = fields["subStatusCode"];

    CmkTinyXMLConverter xml;
    xml.AddElem("ResponseStatus");
    xml.SetAttrib("version", "2.0");
    xml.SetAttrib("xmlns", XMLNS_DEVICE_API_2_0);
    xml.IntoElem();
    xml.AddElem("requestURL", requestURL.c_str());
    xml.AddElem("statusCode", statusCode.isInt() ? statusCode.asInt() : 0);
    xml.AddElem("statusString", statusString.isString() ? statusString.asCString() : "");
    xml.AddElem("subStatusCode", subStatusCode.isString() ? subStatusCode.asCString() : "");
    return xml.GetDoc();
}

void CHttpErrorHandler::sendReply(ZRT_INT32 handle, const tagRESPONSE_STATUS_REPLY& reply)
{
    // The HTTP server's results are not checked: there is no one left to tell
    // when the answer to the client cannot be sent.
    NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_HEADER, kContentTypeHeader,
                            static_cast<int>(strlen(kContentTypeHeader)), reply.pContentType,
                            static_cast<int>(strlen(reply.pContentType)));
    NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, reply.strBody.data(),
                            static_cast<int>(reply.strBody.size()));
    ZRT_INT32 httpStatus = reply.iHttpStatus;
    NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_STATUS, nullptr, 0, &httpStatus,
                            static_cast<int>(sizeof(httpStatus)));
    NET_HTTPSERVER_Reply(handle, 0);
}

std::string CHttpErrorHandler::readRequestURL(ZRT_INT32 handle)
{
    NET_HTTPSERVER_REQUEST_PARAM request;
    memset(&request, 0, sizeof(request));
    NET_HTTPSERVER_GetParamV2(handle, NET_HTTPSERVER_GET_REQUEST, NET_HTTPSERVER_SUB_PARAMS, nullptr, 0, &request,
                              static_cast<int>(sizeof(request)));
    // Bounded: the server terminates the URL, but a failed call leaves zeros only.
    return std::string(request.szUrl, strnlen(request.szUrl, sizeof(request.szUrl)));
}

}  // namespace HttpWrapper
