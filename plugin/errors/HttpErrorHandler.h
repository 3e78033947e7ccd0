// ResponseStatus documents: the JSON and XML answers that carry a REST error
// number to the HTTP client, replied on a connection of the embedded HTTP
// server or written whole for the raw audio channel. Every error document of
// the plug-in is made here.
//
// The documents are built by the build* functions, which need no connection;
// the Render* operations build and then reply. A reply is always, in this
// order: the Content-Type header, the body, the HTTP status, then the reply
// call itself (a challenge stages its "WWW-Authenticate" header first).
#ifndef HTTPWRAPPER_ERRORS_HTTPERRORHANDLER_H
#define HTTPWRAPPER_ERRORS_HTTPERRORHANDLER_H

#include <string>

#include <json/json.h>
#include <zrt/zrt.h>

namespace HttpWrapper {

// One answer, ready to be replied.
struct tagRESPONSE_STATUS_REPLY {
    const char* pContentType;  // "application/json" or "application/xml"
    std::string strBody;
    ZRT_INT32 iHttpStatus;
};

// Stateless; the sessions hold one as a member. The builders are static so
// that other answers (the session's raw XML reply) can share them.
class CHttpErrorHandler {
public:
    CHttpErrorHandler() {}
    ~CHttpErrorHandler() {}

    // The JSON document of an error number. Numbers without a row, and the
    // success numbers 0 and 1 (whose document has no "errorCode"), answer the
    // "internalError" document with HTTP 500: callers that want to answer
    // success build their own reply.
    void RenderJSONResponseStatus(ZRT_INT32 handle, ZRT_UINT32 errorNo);
    // A JSON document given as text; a text that does not parse answers "internalError".
    void RenderJSONResponseStatus(ZRT_INT32 handle, std::string& json);
    // A JSON document given as a value; without an integer "errorCode" it
    // answers "internalError". The HTTP status comes from
    // getHttpStatusCodeByErrorNo, so "badAuthorization" answers 401.
    void RenderJSONResponseStatus(ZRT_INT32 handle, const Json::Value& status);
    // The JSON document of an error number with one extra member. The HTTP
    // status is the group's ("badAuthorization" answers 403 here). Stops the
    // process on a number without a row: callers pass only numbers of the table.
    void RenderJSONResponseStatus(ZRT_INT32 handle, ZRT_UINT32 errorNo, const std::string& key, Json::Value extra);

    // The JSON text of an error number; the success document for 0 and 1, and
    // "null" for a number without a row.
    std::string getJSONResponseStatus(ZRT_UINT32 errorNo);
    // The text of a given document and its "errorCode"; the "internalError"
    // document and number when it has no integer "errorCode".
    std::string getJSONResponseStatus(ZRT_INT32& errorNo, const Json::Value& status);
    std::string getJSONSuccess();

    // The XML document of an error number, with the connection's request URL.
    // A number without a row still answers, with "statusCode" 0, empty texts
    // and HTTP 200.
    void renderXMLResponseStatus(ZRT_INT32 handle, ZRT_UINT32 errorNo);

    // The answer to a standard request without credentials: the challenge as
    // "WWW-Authenticate", and the 401 document of a Digest challenge (Q4).
    static void renderChallenge(ZRT_INT32 handle, const std::string& challenge);

    // A complete raw HTTP response, for the audio channel, carrying the XML
    // document of errorNo; extraHeaders (without their last line end) stand
    // after the Content-Type line. The status line doubles the code
    // (compatibility.md, Q1).
    static std::string getRawXMLResponse(ZRT_UINT32 errorNo, const std::string& requestURL,
                                         const std::string& extraHeaders);

    // What the Render* operations above reply, built without a connection.
    static tagRESPONSE_STATUS_REPLY buildJSONReply(ZRT_UINT32 errorNo);
    static tagRESPONSE_STATUS_REPLY buildJSONReplyFromText(const std::string& json);
    static tagRESPONSE_STATUS_REPLY buildJSONReplyFromValue(const Json::Value& status);
    static tagRESPONSE_STATUS_REPLY buildJSONReplyWithExtra(ZRT_UINT32 errorNo, const std::string& key,
                                                            const Json::Value& extra);
    static tagRESPONSE_STATUS_REPLY buildXMLReply(ZRT_UINT32 errorNo, const std::string& requestURL);
    static tagRESPONSE_STATUS_REPLY buildChallengeReply();

    // The XML ResponseStatus document of a status object as
    // getResponseStatusByErrorNo fills it (missing members give 0 and empty texts).
    static std::string getXMLResponseStatus(const std::string& requestURL, const Json::Value& status);

private:
    static void sendReply(ZRT_INT32 handle, const tagRESPONSE_STATUS_REPLY& reply);
    static std::string readRequestURL(ZRT_INT32 handle);
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_ERRORS_HTTPERRORHANDLER_H
