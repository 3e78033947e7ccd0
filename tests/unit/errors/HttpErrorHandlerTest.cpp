#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <tinyxml.h>

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

void expectInternalError(const tagRESPONSE_STATUS_REPLY& reply)
{
    EXPECT_STREQ("application/json", reply.pContentType);
    EXPECT_EQ(kInternalErrorJSON, reply.strBody);
    EXPECT_EQ(500, reply.iHttpStatus);
}

// The root's attributes "version" and "xmlns", then "name=text" of each child in order.
std::vector<std::string> xmlStatusItems(const std::string& text)
{
    std::vector<std::string> items;
    TiXmlDocument doc;
    doc.Parse(text.c_str());
    const TiXmlElement* root = doc.RootElement();
    if (doc.Error() || root == nullptr || root->NextSiblingElement() != nullptr) {
        ADD_FAILURE() << "not one ResponseStatus document: " << text;
        return items;
    }
    items.push_back(root->ValueStr() + " version=" + (root->Attribute("version") ? root->Attribute("version") : ""));
    items.push_back(std::string("xmlns=") + (root->Attribute("xmlns") ? root->Attribute("xmlns") : ""));
    for (const TiXmlElement* child = root->FirstChildElement(); child; child = child->NextSiblingElement()) {
        items.push_back(child->ValueStr() + "=" + (child->GetText() ? child->GetText() : ""));
    }
    return items;
}

}  // namespace

TEST(ResponseStatusJSON, DocumentTextsAreTheFastWriterForm)
{
    CHttpErrorHandler handler;
    EXPECT_EQ(kBadAuthorizationJSON, handler.getJSONResponseStatus(0x40000003));
    EXPECT_EQ(kSuccessJSON, handler.getJSONResponseStatus(0));
    EXPECT_EQ(kSuccessJSON, handler.getJSONResponseStatus(1));
    EXPECT_EQ(kSuccessJSON, handler.getJSONSuccess());
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
    tagRESPONSE_STATUS_REPLY reply = CHttpErrorHandler::buildJSONReply(0x40000003);
    EXPECT_STREQ("application/json", reply.pContentType);
    EXPECT_EQ(kBadAuthorizationJSON, reply.strBody);
    EXPECT_EQ(401, reply.iHttpStatus);
    EXPECT_EQ(503, CHttpErrorHandler::buildJSONReply(0x20000004).iHttpStatus);

    // The success document has no "errorCode", nor has the "null" of a number without a row.
    expectInternalError(CHttpErrorHandler::buildJSONReply(1));
    expectInternalError(CHttpErrorHandler::buildJSONReply(0x4FFFFFFF));
    expectInternalError(CHttpErrorHandler::buildJSONReply(0x80000001));
    for (const char* text : {"{\"errorCode\":", "", "[1,2]", "{\"errorCode\":1.5}", "{\"errorCode\":\"1\"}"}) {
        SCOPED_TRACE(text);
        expectInternalError(CHttpErrorHandler::buildJSONReplyFromText(text));
    }
    // Deeper than the reader's nesting limit: the reader throws, which must not escape.
    expectInternalError(CHttpErrorHandler::buildJSONReplyFromText(std::string(5000, '[') + std::string(5000, ']')));

    // Comments are accepted; the reply is the document as the fast writer writes it.
    reply =
        CHttpErrorHandler::buildJSONReplyFromText("// note\n{ \"subStatusCode\" : \"x\", \"errorCode\" : 1342177281 }");
    EXPECT_EQ("{\"errorCode\":1342177281,\"subStatusCode\":\"x\"}\n", reply.strBody);
    EXPECT_EQ(400, reply.iHttpStatus);
    // An integer code outside the groups keeps the document and answers 500.
    reply = CHttpErrorHandler::buildJSONReplyFromText("{\"errorCode\":-1}");
    EXPECT_EQ("{\"errorCode\":-1}\n", reply.strBody);
    EXPECT_EQ(500, reply.iHttpStatus);
}

TEST(ResponseStatusJSON, ExtraMemberFormTakesTheGroupStatus)
{
    tagRESPONSE_STATUS_REPLY reply = CHttpErrorHandler::buildJSONReplyWithExtra(0x40000003, "sessionId", "12345");
    EXPECT_STREQ("application/json", reply.pContentType);
    EXPECT_EQ(
        "{\"errorCode\":1073741827,\"errorMsg\":\"Authentication failed.\",\"sessionId\":\"12345\","
        "\"statusCode\":4,\"statusString\":\"Invalid Operation\",\"subStatusCode\":\"badAuthorization\"}\n",
        reply.strBody);
    EXPECT_EQ(403, reply.iHttpStatus);
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

TEST(ResponseStatusXML, DocumentCarriesURLAndGroupButNoNumber)
{
    tagRESPONSE_STATUS_REPLY reply = CHttpErrorHandler::buildXMLReply(0x60000001, "/QUMEX/a?format=xml&b=<c>");
    EXPECT_STREQ("application/xml", reply.pContentType);
    EXPECT_EQ(400, reply.iHttpStatus);
    EXPECT_EQ((std::vector<std::string>{"ResponseStatus version=2.0", "xmlns=urn:qumex:device-api:2.0",
                                        "requestURL=/QUMEX/a?format=xml&b=<c>", "statusCode=6",
                                        "statusString=Content Error", "subStatusCode=badParameters"}),
              xmlStatusItems(reply.strBody));
    EXPECT_EQ(std::string::npos, reply.strBody.find("<?xml"));
    EXPECT_EQ(403, CHttpErrorHandler::buildXMLReply(0x40000003, "/").iHttpStatus);

    // A number without a row is answered all the same, with an empty status.
    reply = CHttpErrorHandler::buildXMLReply(0x4FFFFFFF, "/x");
    EXPECT_EQ(200, reply.iHttpStatus);
    EXPECT_EQ((std::vector<std::string>{"ResponseStatus version=2.0", "xmlns=urn:qumex:device-api:2.0", "requestURL=/x",
                                        "statusCode=0", "statusString=", "subStatusCode="}),
              xmlStatusItems(reply.strBody));
}
