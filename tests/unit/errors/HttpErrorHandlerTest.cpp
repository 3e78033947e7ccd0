#include <gtest/gtest.h>

#include <string>

#include "errors/HttpErrorHandler.h"

using namespace HttpWrapper;

namespace {

const char kBadAuthorizationJSON[] =
    "{\"errorCode\":1073741827,\"errorMsg\":\"Authentication failed.\",\"statusCode\":4,"
    "\"statusString\":\"Invalid Operation\",\"subStatusCode\":\"badAuthorization\"}\n";
const char kInternalErrorJSON[] =
    "{\"errorCode\":805306388,\"errorMsg\":\"Internal error.\",\"statusCode\":3,"
    "\"statusString\":\"Device Error\",\"subStatusCode\":\"internalError\"}\n";
const char kSuccessJSON[] = "{\"statusCode\":1,\"statusString\":\"OK\",\"subStatusCode\":\"ok\"}\n";

// The reply as one line: status, content type, body.
std::string Text(const tagRESPONSE_STATUS_REPLY& reply)
{
    return std::to_string(reply.iHttpStatus) + " " + reply.pContentType + " " + reply.strBody;
}

const std::string kInternalErrorReply = std::string("500 application/json ") + kInternalErrorJSON;

}  // namespace

TEST(ResponseStatusJSON, DocumentTextsAreTheFastWriterForm)
{
    CHttpErrorHandler handler;
    EXPECT_EQ(kSuccessJSON, handler.getJSONResponseStatus(0));
    EXPECT_EQ(kSuccessJSON, handler.getJSONResponseStatus(1));
    EXPECT_EQ(kSuccessJSON, handler.getJSONSuccess());
    // A row published without a message still carries an empty "errorMsg".
    EXPECT_EQ(
        "{\"errorCode\":1073782784,\"errorMsg\":\"\",\"statusCode\":4,\"statusString\":\"Invalid "
        "Operation\",\"subStatusCode\":\"badAuthorization\"}\n",
        handler.getJSONResponseStatus(0x4000A000));
    EXPECT_EQ("null\n", handler.getJSONResponseStatus(0x4FFFFFFF));

    // A given document keeps its text only with an integer "errorCode".
    Json::Value given;
    given["errorCode"] = 0x60000001;
    given["custom"] = "kept";
    int errorNo = 0;
    EXPECT_EQ("{\"custom\":\"kept\",\"errorCode\":1610612737}\n", handler.getJSONResponseStatus(errorNo, given));
    EXPECT_EQ(0x60000001, errorNo);
    Json::Value textCode;
    textCode["errorCode"] = "1073741827";
    for (const Json::Value& bad : {textCode, Json::Value(Json::arrayValue), Json::Value()}) {
        errorNo = 0;
        EXPECT_EQ(kInternalErrorJSON, handler.getJSONResponseStatus(errorNo, bad));
        EXPECT_EQ(0x30000014, errorNo);
    }
}

TEST(ResponseStatusJSON, RepliesTakeTheStatusLookupAndFallBackToInternalError)
{
    EXPECT_EQ(Text(CHttpErrorHandler::buildJSONReply(0x40000003)),
              std::string("401 application/json ") + kBadAuthorizationJSON);

    // The success document has no "errorCode", nor has the "null" of a number without a row.
    for (ZRT_UINT32 errorNo : {1u, 0x4FFFFFFFu, 0x80000001u}) {
        EXPECT_EQ(Text(CHttpErrorHandler::buildJSONReply(errorNo)), kInternalErrorReply) << errorNo;
    }
    // The last text is deeper than the reader's nesting limit: the reader throws, which must not escape.
    for (const std::string& text :
         {std::string("{\"errorCode\":"), std::string(), std::string("[1,2]"), std::string("{\"errorCode\":1.5}"),
          std::string("{\"errorCode\":\"1\"}"), std::string(5000, '[') + std::string(5000, ']')}) {
        EXPECT_EQ(Text(CHttpErrorHandler::buildJSONReplyFromText(text)), kInternalErrorReply) << text.substr(0, 20);
    }
    // Comments are accepted; the reply is the document as the fast writer writes it.
    EXPECT_EQ(Text(CHttpErrorHandler::buildJSONReplyFromText(
                  "// note\n{ \"subStatusCode\" : \"x\", \"errorCode\" : 1342177281 }")),
              "400 application/json {\"errorCode\":1342177281,\"subStatusCode\":\"x\"}\n");
    // An integer code outside the groups keeps the document and answers 500.
    EXPECT_EQ(Text(CHttpErrorHandler::buildJSONReplyFromText("{\"errorCode\":-1}")),
              "500 application/json {\"errorCode\":-1}\n");
}

// Unlike the number form, the extra-member form answers "badAuthorization" with its group's 403.
TEST(ResponseStatusJSON, ExtraMemberFormTakesTheGroupStatus)
{
    EXPECT_EQ(Text(CHttpErrorHandler::buildJSONReplyWithExtra(0x40000003, "sessionId", "12345")),
              "403 application/json {\"errorCode\":1073741827,\"errorMsg\":\"Authentication failed.\","
              "\"sessionId\":\"12345\",\"statusCode\":4,\"statusString\":\"Invalid Operation\","
              "\"subStatusCode\":\"badAuthorization\"}\n");
}

TEST(ResponseStatusJSONDeathTest, ExtraMemberFormStopsOnANumberWithoutRow)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CHttpErrorHandler handler;
    EXPECT_DEATH(handler.RenderJSONResponseStatus(-1, 0x4FFFFFFF, "key", Json::Value(1)),
                 "HttpErrorHandler:69: void HttpWrapper::CHttpErrorHandler::RenderJSONResponseStatus\\(ZRT_INT32, "
                 "ZRT_UINT32, const string&, Json::Value\\): Assertion `0' failed");
    EXPECT_DEATH(handler.RenderJSONResponseStatus(-1, 0, "key", Json::Value(1)), "Assertion `0' failed");
}

// The XML document carries the request URL and the group, but no error number
// and no declaration; a number without a row still answers, with HTTP 200.
TEST(ResponseStatusXML, DocumentCarriesURLAndGroupButNoNumber)
{
    const std::string head = "application/xml <ResponseStatus version=\"2.0\" xmlns=\"urn:qumex:device-api:2.0\">\n";
    EXPECT_EQ(Text(CHttpErrorHandler::buildXMLReply(0x60000001, "/QUMEX/a?format=xml&b=<c>")),
              "400 " + head +
                  "<requestURL>/QUMEX/a?format=xml&amp;b=&lt;c&gt;</requestURL>\n<statusCode>6</statusCode>\n"
                  "<statusString>Content Error</statusString>\n<subStatusCode>badParameters</subStatusCode>\n"
                  "</ResponseStatus>\n");
    EXPECT_EQ(CHttpErrorHandler::buildXMLReply(0x40000003, "/").iHttpStatus, 403);
    EXPECT_EQ(Text(CHttpErrorHandler::buildXMLReply(0x4FFFFFFF, "/x")),
              "200 " + head +
                  "<requestURL>/x</requestURL>\n<statusCode>0</statusCode>\n<statusString></statusString>\n"
                  "<subStatusCode></subStatusCode>\n</ResponseStatus>\n");
}
