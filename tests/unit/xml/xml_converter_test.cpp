#include <gtest/gtest.h>

#include <string>

#include "xml/mkTinyXMLConverter.h"

using HttpWrapper::CmkTinyXMLConverter;

// Under AddressSanitizer, fresh heap memory is filled with "&": a parser that
// reads past the end of its text then meets entity starts, which it compares
// with strncmp, whose checked reads report the overrun.
extern "C" const char* __asan_default_options()
{
    return "malloc_fill_byte=38";
}

// The plug-in reads a request body with SetDoc, FindElem, IntoElem and GetData,
// and builds its documents with AddElem, AddAttrib, SetAttrib and GetDoc.
TEST(XmlDocument, ReadingFindsIntoElementsAndAFailedSearchKeepsMain)
{
    CmkTinyXMLConverter xml;
    EXPECT_FALSE(xml.SetDoc("<a/><b/>"));  // parses, but two top-level elements
    EXPECT_FALSE(xml.SetDoc("<a>"));
    EXPECT_FALSE(xml.SetDoc(""));
    EXPECT_FALSE(xml.SetDoc(nullptr));
    EXPECT_FALSE(xml.FindElem("a"));  // the document was cleared
    ASSERT_TRUE(xml.SetDoc("<a><b>1</b><c k=\"v\">x</c><b>2</b></a>"));
    EXPECT_FALSE(xml.IntoElem());  // no main yet
    ASSERT_TRUE(xml.FindElem("a") && xml.IntoElem() && xml.FindElem("b"));
    EXPECT_EQ(xml.GetData(), "1");
    ASSERT_TRUE(xml.FindElem("b"));
    EXPECT_FALSE(xml.FindElem("b"));
    EXPECT_EQ(xml.GetData(), "2");
    EXPECT_FALSE(xml.FindElem("zzz"));
}

TEST(XmlDocument, BuildingAddsElementsAndAttributes)
{
    CmkTinyXMLConverter xml;
    ASSERT_TRUE(xml.AddElem("x"));
    ASSERT_TRUE(xml.AddElem("y", 5));
    EXPECT_STREQ(xml.GetDoc(), "<x />\n<y>5</y>\n");
    EXPECT_FALSE(xml.AddElem(nullptr));

    CmkTinyXMLConverter status;
    ASSERT_TRUE(status.AddElem("ResponseStatus"));
    ASSERT_TRUE(status.SetAttrib("version", "2.0"));
    ASSERT_TRUE(status.AddAttrib("version", "3.0"));  // replaces
    ASSERT_TRUE(status.IntoElem());
    EXPECT_FALSE(status.AddAttrib("a", 1));  // no main inside the empty element
    ASSERT_TRUE(status.AddElem("statusCode", 403));
    EXPECT_STREQ(status.GetDoc(),
                 "<ResponseStatus version=\"3.0\">\n<statusCode>403</statusCode>\n</ResponseStatus>\n");
}

// What GetDoc prints loads again with the same elements, even when a client's
// declaration holds markup characters (TinyXML prints declaration values as read).
TEST(XmlDocument, APrintedDocumentLoadsAgainWhateverItsDeclarationHolds)
{
    for (const char* text : {"<?xmlversion=&#><s/>", "<?xml version='a\"b'?><s><t/></s>",
                             "<?xml version=\"1.0\" encoding=\"UTF-8\"?><s>x</s>"}) {
        CmkTinyXMLConverter xml;
        ASSERT_TRUE(xml.SetDoc(text)) << text;
        const std::string printed = xml.GetDoc();
        CmkTinyXMLConverter again;
        ASSERT_TRUE(again.SetDoc(printed.c_str())) << text << " printed as " << printed;
        EXPECT_STREQ(again.RootElement()->Value(), "s");
        EXPECT_STREQ(again.GetDoc(), printed.c_str()) << text;
    }
    CmkTinyXMLConverter plain;
    ASSERT_TRUE(plain.SetDoc("<?xml version=\"1.0\" encoding=\"UTF-8\"?><s>x</s>"));
    EXPECT_STREQ(plain.GetDoc(), "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<s>x</s>\n");
}

// A text that ends inside a multi-byte UTF-8 sequence must not make the parser
// step past its end (see __asan_default_options above).
// The declaration makes the parser read the text as UTF-8.
TEST(XmlDocument, TruncatedUtf8AtTheEndStaysInsideTheText)
{
    const std::string declaration = "<?xml version=\"1.0\"?>";
    // Each announces at least two bytes more than the text still holds with the
    // line break the converter appends.
    const std::string leads[] = {"\xE2", "\xF0", "\xF0\x9F"};
    for (const std::string& lead : leads) {
        const std::string padding(40, 'x');  // long enough to live on the heap
        for (const std::string& body : {"<doc>" + padding + lead, "<doc a=\"" + padding + lead, "<doc" + lead}) {
            const std::string text = declaration + body;
            CmkTinyXMLConverter xml;
            EXPECT_FALSE(xml.SetDoc(text.c_str())) << text;
        }
    }
}
