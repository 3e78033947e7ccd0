#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

#include "xml/mkTinyXMLConverter.h"

using HttpWrapper::CmkTinyXMLConverter;

// Under AddressSanitizer, fresh heap memory is filled with "&": a parser that
// reads past the end of its text then meets entity starts, which it compares
// with strncmp, whose checked reads report the overrun.
extern "C" const char* __asan_default_options()
{
    return "malloc_fill_byte=38";
}

namespace {

// The names under the parent position, in order (the tests use one-letter
// names, so the name is the character behind "<" of the printed element).
std::string NamesUnderParent(CmkTinyXMLConverter& xml)
{
    std::string names;
    xml.ResetMainPos();
    while (xml.FindElem()) {
        names += "<" + xml.GetSubDoc().substr(1, 1) + ">";
    }
    return names;
}

}  // namespace

TEST(XmlNavigation, FindIntoAndWrap)
{
    CmkTinyXMLConverter xml("<a><b>1</b><c k=\"v\">x</c><b>2</b></a>");
    ASSERT_TRUE(xml.IsWellFormed());
    EXPECT_FALSE(xml.OutOfElem());  // at the top: nothing changes
    ASSERT_TRUE(xml.FindElem("a"));
    ASSERT_TRUE(xml.IntoElem());
    ASSERT_TRUE(xml.FindElem("b"));
    EXPECT_EQ(xml.GetData(), "1");
    ASSERT_TRUE(xml.FindElem("b"));
    EXPECT_EQ(xml.GetData(), "2");
    EXPECT_FALSE(xml.FindElem("b"));
    EXPECT_EQ(xml.GetData(), "2");  // a failed search keeps main
    ASSERT_TRUE(xml.FindElem("b", true));
    EXPECT_EQ(xml.GetData(), "1");
    ASSERT_TRUE(xml.FindElem());  // any element
    EXPECT_EQ(xml.GetAttrib("k"), "v");
    EXPECT_EQ(xml.GetAttrib("missing"), "");

    ASSERT_TRUE(xml.OutOfElem());
    EXPECT_EQ(xml.GetChildData(), "x");  // the old main became the child
    EXPECT_EQ(xml.GetChildAttrib("k"), "v");
    EXPECT_FALSE(xml.OutOfElem());
    EXPECT_FALSE(xml.FindElem("zzz"));
}

TEST(XmlNavigation, ChildPositionAndReading)
{
    CmkTinyXMLConverter xml("<r><p>t<q>1</q><q>2</q></p></r>\n");
    ASSERT_TRUE(xml.FindChildElem("p"));  // finds the root first
    EXPECT_EQ(xml.GetChildData(), "t");
    ASSERT_TRUE(xml.IntoElem());
    ASSERT_TRUE(xml.FindChildElem("q"));
    ASSERT_TRUE(xml.FindChildElem("q"));
    EXPECT_EQ(xml.GetChildData(), "2");
    EXPECT_FALSE(xml.FindChildElem("q"));
    ASSERT_TRUE(xml.FindChildElem("q", true));
    EXPECT_EQ(xml.GetChildData(), "1");
    EXPECT_EQ(xml.GetElemContent(), "<q>1</q>\n<q>2</q>\n");  // the text "t" is not included
    // Mixed content is laid out by the DOM printer, one node a line, unindented.
    EXPECT_EQ(xml.GetSubDoc(), "<p>\nt\n<q>1</q>\n<q>2</q>\n</p>\n");
    xml.ResetMainPos();
    EXPECT_EQ(xml.GetSubDoc(), "");
    EXPECT_EQ(xml.GetData(), "");
    EXPECT_FALSE(xml.IntoElem());
}

TEST(XmlDocument, WellFormednessAndReset)
{
    CmkTinyXMLConverter xml;
    EXPECT_FALSE(xml.IsWellFormed());
    EXPECT_FALSE(xml.SetDoc("<a/><b/>"));  // parses, but two top-level elements
    EXPECT_FALSE(xml.SetDoc("<a>"));
    EXPECT_FALSE(xml.SetDoc(""));
    EXPECT_FALSE(xml.SetDoc(nullptr));
    EXPECT_FALSE(xml.FindElem());  // the document was cleared
    ASSERT_TRUE(xml.SetDoc("<a><b/></a>"));
    ASSERT_TRUE(xml.FindElem("a"));
    ASSERT_TRUE(xml.SavePos("x"));
    ASSERT_TRUE(xml.SetDoc("<c/>"));  // drops the saved positions
    EXPECT_FALSE(xml.RestorePos("x"));
    EXPECT_STREQ(xml.GetDoc(), "<c />\n");
}

TEST(XmlBuilding, AddElementsAttributesAndData)
{
    CmkTinyXMLConverter xml;
    ASSERT_TRUE(xml.AddElem("x"));
    EXPECT_FALSE(xml.SetData("text"));  // no child node to rewrite
    ASSERT_TRUE(xml.AddElem("y", 5));
    EXPECT_STREQ(xml.GetDoc(), "<x />\n<y>5</y>\n");
    EXPECT_FALSE(xml.IsWellFormed());
    EXPECT_FALSE(xml.AddElem(nullptr));

    CmkTinyXMLConverter status;
    ASSERT_TRUE(status.AddElem("ResponseStatus"));
    ASSERT_TRUE(status.SetAttrib("version", "2.0"));
    ASSERT_TRUE(status.AddAttrib("version", "3.0"));  // replaces
    ASSERT_TRUE(status.IntoElem());
    EXPECT_FALSE(status.AddAttrib("a", 1));  // no main inside the empty element
    ASSERT_TRUE(status.AddElem("statusCode", 401));
    ASSERT_TRUE(status.SetData(403));
    ASSERT_TRUE(status.AddElem("statusString", "Forbidden & <gone>"));
    ASSERT_TRUE(status.AddChildElem("detail", "d"));
    ASSERT_TRUE(status.AddChildAttrib("n", 7));
    ASSERT_TRUE(status.AddChildElem("more", 1));
    EXPECT_STREQ(status.GetDoc(),
                 "<ResponseStatus version=\"3.0\">\n<statusCode>403</statusCode>\n"
                 "<statusString>\nForbidden &amp; &lt;gone&gt;\n<detail n=\"7\">d</detail>\n<more>1</more>\n"
                 "</statusString>\n</ResponseStatus>\n");

    CmkTinyXMLConverter reparsed(status.GetDoc());
    EXPECT_TRUE(reparsed.IsWellFormed());
    ASSERT_TRUE(reparsed.FindElem() && reparsed.IntoElem() && reparsed.FindElem("statusString"));
    EXPECT_EQ(reparsed.GetData(), "Forbidden & <gone>");
}

TEST(XmlSubDocuments, InsertAddAndReplaceContent)
{
    CmkTinyXMLConverter xml("<r><m/></r>");
    ASSERT_TRUE(xml.FindElem() && xml.IntoElem() && xml.FindElem("m"));
    ASSERT_TRUE(xml.InsertSubDoc("<p/><q/>"));
    EXPECT_EQ(xml.GetSubDoc(), "<p />\n");
    EXPECT_EQ(NamesUnderParent(xml), "<p><q><m>");

    CmkTinyXMLConverter after("<r><m/></r>");
    ASSERT_TRUE(after.FindElem() && after.IntoElem() && after.FindElem("m"));
    ASSERT_TRUE(after.AddSubDoc("<p/><q/>"));
    EXPECT_EQ(after.GetSubDoc(), "<p />\n");
    EXPECT_EQ(NamesUnderParent(after), "<m><p><q>");

    // With no main the fragment goes before the first child, or to the end.
    after.ResetMainPos();
    ASSERT_TRUE(after.InsertSubDoc("<a/>"));
    EXPECT_EQ(NamesUnderParent(after), "<a><m><p><q>");
    after.ResetMainPos();
    ASSERT_TRUE(after.AddSubDoc("<z/>"));
    EXPECT_EQ(NamesUnderParent(after), "<a><m><p><q><z>");
    EXPECT_FALSE(after.AddSubDoc("<broken>"));
    EXPECT_FALSE(after.AddSubDoc(""));

    ASSERT_TRUE(after.FindElem("m", true));
    ASSERT_TRUE(after.SetElemContent("<c>1</c><d/>"));
    EXPECT_EQ(after.GetChildData(), "1");  // the child is the first new element
    EXPECT_EQ(after.GetElemContent(), "<c>1</c>\n<d />\n");
    ASSERT_TRUE(after.SetElemContent("<e/>"));
    EXPECT_EQ(after.GetElemContent(), "<e />\n");
}

TEST(XmlSavedPositions, RemoveElemDropsAffectedEntries)
{
    CmkTinyXMLConverter xml("<r><a><b><c/></b></a><s/></r>");
    ASSERT_TRUE(xml.FindElem() && xml.IntoElem() && xml.FindElem("a") && xml.IntoElem() && xml.FindElem("b") &&
                xml.IntoElem());
    ASSERT_TRUE(xml.SavePos(""));  // parent b, inside a
    ASSERT_TRUE(xml.OutOfElem() && xml.OutOfElem());
    ASSERT_TRUE(xml.SavePos("onA"));  // main a
    ASSERT_TRUE(xml.FindElem("s"));
    ASSERT_TRUE(xml.SavePos("onS"));

    ASSERT_TRUE(xml.RestorePos(nullptr));  // "" and null are the same entry
    EXPECT_FALSE(xml.RestorePos("unknown"));

    ASSERT_TRUE(xml.RestorePos("onA"));
    ASSERT_TRUE(xml.RemoveElem());  // a was the first child: main is cleared
    EXPECT_EQ(xml.GetSubDoc(), "");
    EXPECT_FALSE(xml.RestorePos("default"));  // its parent b lay under a
    EXPECT_FALSE(xml.RestorePos("onA"));
    ASSERT_TRUE(xml.FindElem());  // starts from the first child again
    EXPECT_EQ(xml.GetSubDoc(), "<s />\n");
    ASSERT_TRUE(xml.RestorePos("onS"));

    // Removing a later element moves main back to its element sibling.
    CmkTinyXMLConverter list("<r><x/><y/></r>");
    ASSERT_TRUE(list.FindElem() && list.IntoElem() && list.FindElem("y"));
    ASSERT_TRUE(list.RemoveElem());
    EXPECT_EQ(list.GetSubDoc(), "<x />\n");
    EXPECT_FALSE(list.FindElem("y"));
}

TEST(XmlSavedPositions, SetElemContentDropsEntriesInsideMain)
{
    CmkTinyXMLConverter xml("<r><a><b/></a></r>");
    ASSERT_TRUE(xml.FindElem() && xml.IntoElem() && xml.FindElem("a") && xml.FindChildElem("b"));
    ASSERT_TRUE(xml.SavePos("childB"));
    ASSERT_TRUE(xml.OutOfElem());  // main r, child a
    ASSERT_TRUE(xml.SavePos("childA"));
    ASSERT_TRUE(xml.FindChildElem("a", true) && xml.IntoElem());
    ASSERT_TRUE(xml.SetElemContent("<n/>"));  // main is a
    EXPECT_FALSE(xml.RestorePos("childB"));
    EXPECT_TRUE(xml.RestorePos("childA"));  // a itself survives
}

TEST(XmlDocument, LoadAndSave)
{
    char path[] = "/tmp/xml_converter_testXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    CmkTinyXMLConverter out("<doc><v>1</v></doc>");
    ASSERT_TRUE(out.Save(path));

    CmkTinyXMLConverter in("<old/>");
    ASSERT_TRUE(in.FindElem());
    ASSERT_TRUE(in.SavePos());
    ASSERT_TRUE(in.Load(path));
    EXPECT_FALSE(in.RestorePos());
    in.ResetPos();
    ASSERT_TRUE(in.FindElem("doc") && in.FindChildElem("v"));
    EXPECT_EQ(in.GetChildData(), "1");
    EXPECT_FALSE(in.Load("/nonexistent/dir/file.xml"));
    std::remove(path);
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
            EXPECT_FALSE(xml.AddSubDoc(text.c_str())) << text;
        }
    }

    char path[] = "/tmp/xml_converter_testXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string file = declaration + "<doc>" + std::string(40, 'x') + "\xF0";
    ASSERT_EQ(write(fd, file.data(), file.size()), static_cast<ssize_t>(file.size()));
    close(fd);
    CmkTinyXMLConverter loaded;
    EXPECT_FALSE(loaded.Load(path));
    std::remove(path);
}

// A file's line ends read as the DOM library's own loader reads them: CR LF and a
// lone CR become LF (visible in attribute values, whose blanks are kept).
TEST(XmlDocument, LoadNormalisesLineEnds)
{
    char path[] = "/tmp/xml_converter_testXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string file = "<doc>\r\n<v k=\"1\r\n2\r3\"/>\r\n</doc>\r\n";
    ASSERT_EQ(write(fd, file.data(), file.size()), static_cast<ssize_t>(file.size()));
    close(fd);
    CmkTinyXMLConverter xml;
    ASSERT_TRUE(xml.Load(path));
    xml.ResetPos();
    ASSERT_TRUE(xml.FindElem("doc") && xml.FindChildElem("v"));
    EXPECT_EQ(xml.GetChildAttrib("k"), "1\n2\n3");
    std::remove(path);
}
