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

// A file of the given bytes, removed with the object.
class TempFile {
public:
    explicit TempFile(const std::string& bytes)
    {
        const int fd = mkstemp(m_path);
        if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            ADD_FAILURE() << "cannot write " << m_path;
        }
        close(fd);
    }
    ~TempFile() { std::remove(m_path); }
    const char* path() const { return m_path; }

private:
    char m_path[32] = "/tmp/xml_converter_testXXXXXX";
};

}  // namespace

TEST(XmlNavigation, FindIntoAndWrap)
{
    CmkTinyXMLConverter xml("<a><b>1</b><c k=\"v\">x</c><b>2</b></a>");
    ASSERT_TRUE(xml.IsWellFormed());
    EXPECT_FALSE(xml.OutOfElem());  // at the top: nothing changes
    ASSERT_TRUE(xml.FindElem("a") && xml.IntoElem() && xml.FindElem("b"));
    EXPECT_EQ(xml.GetData(), "1");
    ASSERT_TRUE(xml.FindElem("b"));
    EXPECT_FALSE(xml.FindElem("b"));
    EXPECT_EQ(xml.GetData(), "2");  // a failed search keeps main
    ASSERT_TRUE(xml.FindElem("b", true));
    EXPECT_EQ(xml.GetData(), "1");
    ASSERT_TRUE(xml.FindElem());  // any element
    EXPECT_EQ(xml.GetAttrib("k") + "|" + xml.GetAttrib("missing"), "v|");

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
    ASSERT_TRUE(xml.IntoElem() && xml.FindChildElem("q") && xml.FindChildElem("q"));
    EXPECT_FALSE(xml.FindChildElem("q"));
    ASSERT_TRUE(xml.FindChildElem("q", true));
    EXPECT_EQ(xml.GetChildData(), "1");
    EXPECT_EQ(xml.GetElemContent(), "<q>1</q>\n<q>2</q>\n");  // the text "t" is not included
    EXPECT_EQ(xml.GetSubDoc(), "<p>\nt\n<q>1</q>\n<q>2</q>\n</p>\n");
    xml.ResetMainPos();
    EXPECT_EQ(xml.GetSubDoc() + xml.GetData(), "");
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
    ASSERT_TRUE(status.AddElem("statusString", "Forbidden"));
    ASSERT_TRUE(status.AddChildElem("detail", "d"));
    ASSERT_TRUE(status.AddChildAttrib("n", 7));
    // Mixed content is laid out by the DOM printer, one node a line, unindented.
    EXPECT_STREQ(status.GetDoc(),
                 "<ResponseStatus version=\"3.0\">\n<statusCode>403</statusCode>\n"
                 "<statusString>\nForbidden\n<detail n=\"7\">d</detail>\n</statusString>\n</ResponseStatus>\n");
}

// A fragment goes next to main, or without main before the first child or to
// the end; main is then the first element placed, and the fragment keeps its order.
TEST(XmlSubDocuments, InsertAddAndReplaceContent)
{
    const struct {
        bool onM, insert;
        const char* names;
    } cases[] = {{true, true, "<p><q><m><z>"},
                 {true, false, "<m><p><q><z>"},
                 {false, true, "<p><q><m><z>"},
                 {false, false, "<m><z><p><q>"}};
    for (const auto& c : cases) {
        CmkTinyXMLConverter xml("<r><m/><z/></r>");
        ASSERT_TRUE(xml.FindElem() && xml.IntoElem());
        ASSERT_EQ(xml.FindElem(c.onM ? "m" : "none"), c.onM);
        ASSERT_TRUE(c.insert ? xml.InsertSubDoc("<p/><q/>") : xml.AddSubDoc("<p/><q/>"));
        EXPECT_EQ(xml.GetSubDoc(), "<p />\n");
        EXPECT_EQ(NamesUnderParent(xml), c.names);
    }

    CmkTinyXMLConverter xml("<r><m/></r>");
    ASSERT_TRUE(xml.FindElem() && xml.IntoElem() && xml.FindElem("m"));
    EXPECT_FALSE(xml.AddSubDoc("<broken>"));
    EXPECT_FALSE(xml.AddSubDoc(""));
    ASSERT_TRUE(xml.SetElemContent("<c>1</c><d/>"));
    EXPECT_EQ(xml.GetChildData(), "1");  // the child is the first new element
    EXPECT_EQ(xml.GetElemContent(), "<c>1</c>\n<d />\n");
    ASSERT_TRUE(xml.SetElemContent("<e/>"));  // replaces
    EXPECT_EQ(xml.GetElemContent(), "<e />\n");
}

// Removing an element drops every saved position in or under it; emptying one
// drops those inside it but keeps a position whose child it is.
TEST(XmlSavedPositions, RemovingOrEmptyingAnElementDropsTheEntriesInsideIt)
{
    CmkTinyXMLConverter xml("<r><a><b><c/></b></a><s/></r>");
    ASSERT_TRUE(xml.FindElem() && xml.IntoElem() && xml.FindElem("a") && xml.IntoElem() && xml.FindElem("b"));
    ASSERT_TRUE(xml.SavePos("onB"));                  // parent a, main b
    ASSERT_TRUE(xml.IntoElem() && xml.SavePos(""));   // parent b: "" and null name "default"
    ASSERT_TRUE(xml.OutOfElem() && xml.OutOfElem());  // parent r, main a, child b
    ASSERT_TRUE(xml.SavePos("onA") && xml.FindElem("s") && xml.SavePos("onS"));
    EXPECT_FALSE(xml.RestorePos("unknown"));

    ASSERT_TRUE(xml.RestorePos("onB") && xml.SetElemContent("<n/>"));
    EXPECT_FALSE(xml.RestorePos(nullptr));
    EXPECT_FALSE(xml.RestorePos("onB"));
    ASSERT_TRUE(xml.RestorePos("onA"));                                      // b is its child, and b itself survives
    ASSERT_TRUE(xml.IntoElem() && xml.IntoElem() && xml.SavePos("underA"));  // parent b
    ASSERT_TRUE(xml.RestorePos("onA") && xml.RemoveElem());
    EXPECT_EQ(xml.GetSubDoc(), "");  // a was the first child: main is cleared
    EXPECT_FALSE(xml.RestorePos("onA"));
    EXPECT_FALSE(xml.RestorePos("underA"));
    EXPECT_TRUE(xml.RestorePos("onS"));

    // Removing a later element moves main back to its element sibling.
    CmkTinyXMLConverter list("<r><x/><y/></r>");
    ASSERT_TRUE(list.FindElem() && list.IntoElem() && list.FindElem("y") && list.RemoveElem());
    EXPECT_EQ(list.GetSubDoc(), "<x />\n");
    EXPECT_FALSE(list.FindElem("y"));
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

    CmkTinyXMLConverter loaded;
    EXPECT_FALSE(loaded.Load(TempFile(declaration + "<doc>" + std::string(40, 'x') + "\xF0").path()));
}

// A file's line ends read as the DOM library's own loader reads them: CR LF and a
// lone CR become LF (visible in attribute values, whose blanks are kept).
TEST(XmlDocument, LoadNormalisesLineEndsAndDropsThePositions)
{
    TempFile file("<doc>\r\n<v k=\"1\r\n2\r3\"/>\r\n</doc>\r\n");
    CmkTinyXMLConverter xml("<old/>");
    ASSERT_TRUE(xml.FindElem() && xml.SavePos());
    ASSERT_TRUE(xml.Load(file.path()));
    EXPECT_FALSE(xml.RestorePos());  // the positions went with the old tree
    ASSERT_TRUE(xml.FindElem("doc") && xml.FindChildElem("v"));
    EXPECT_EQ(xml.GetChildAttrib("k"), "1\n2\n3");
    EXPECT_FALSE(xml.Load("/nonexistent/dir/file.xml"));

    CmkTinyXMLConverter copy;
    ASSERT_TRUE(xml.Save(file.path()) && copy.Load(file.path()));
    EXPECT_EQ(std::string(copy.GetDoc()), xml.GetDoc());
}
