// The XML cursor the plug-in reads request bodies with: load a document, then walk
// every element with the main and child positions, reading text and attributes.
//
// The converter is a DOM document itself, so each position is checked against a
// plain walk of the same tree: the cursor must visit the same elements in the same
// order and read the same text and attributes. A well-formed document of valid
// UTF-8 printed by GetDoc must load again: callers send that text. (It need not
// print the same twice: TinyXML prints declaration values unescaped, so
// <?xml version=&> prints as version="&", which reads back as no version.)
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "OnWorkerStack.h"
#include "xml/mkTinyXMLConverter.h"

using HttpWrapper::CmkTinyXMLConverter;

namespace {

std::string TextOf(const TiXmlElement* element)
{
    const char* text = element->GetText();
    return text == nullptr ? std::string() : std::string(text);
}

// The cursor's main position is on `element`: compare what it reads.
void CheckMain(CmkTinyXMLConverter& xml, const TiXmlElement* element)
{
    FUZZ_CHECK(xml.GetData() == TextOf(element));
    for (const TiXmlAttribute* attribute = element->FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
        // TinyXML refuses duplicate names, so the lookup finds this very attribute.
        FUZZ_CHECK(xml.GetAttrib(attribute->Name()) == attribute->Value());
    }
}

void CheckChild(CmkTinyXMLConverter& xml, const TiXmlElement* element)
{
    FUZZ_CHECK(xml.GetChildData() == TextOf(element));
    for (const TiXmlAttribute* attribute = element->FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
        FUZZ_CHECK(xml.GetChildAttrib(attribute->Name()) == attribute->Value());
    }
}

// Walks the elements under `parent`, where the cursor's parent position is, and
// everything below them.
void Walk(CmkTinyXMLConverter& xml, const TiXmlNode* parent)
{
    for (const TiXmlElement* element = parent->FirstChildElement(); element != nullptr;
         element = element->NextSiblingElement()) {
        FUZZ_CHECK(xml.FindElem());
        CheckMain(xml, element);
        xml.SavePos("walk");
        for (const TiXmlElement* child = element->FirstChildElement(); child != nullptr;
             child = child->NextSiblingElement()) {
            FUZZ_CHECK(xml.FindChildElem());
            CheckChild(xml, child);
        }
        FUZZ_CHECK(!xml.FindChildElem());
        FUZZ_CHECK(xml.RestorePos("walk"));
        FUZZ_CHECK(xml.IntoElem());
        Walk(xml, element);
        FUZZ_CHECK(xml.OutOfElem());
        CheckMain(xml, element);
    }
    FUZZ_CHECK(!xml.FindElem());

    // A search by name visits the elements of that name, and wraps to the first.
    const TiXmlElement* first = parent->FirstChildElement();
    if (first == nullptr) {
        return;
    }
    int expected = 0;
    for (const TiXmlElement* element = first; element != nullptr; element = element->NextSiblingElement()) {
        expected += std::string(element->Value()) == first->Value() ? 1 : 0;
    }
    xml.ResetMainPos();
    int found = 0;
    while (xml.FindElem(first->Value())) {
        ++found;
    }
    FUZZ_CHECK(found == expected);
    FUZZ_CHECK(xml.FindElem(first->Value(), true));
    CheckMain(xml, first);
}

// TinyXML reads a malformed UTF-8 sequence by its lead byte and swallows the bytes
// that follow, so such text may not load again once printed: an unquoted attribute
// value is read byte by byte, but in the quotes the printer adds a lone lead byte
// swallows the closing quote.
bool IsUtf8(const std::string& text)
{
    size_t following = 0;  // continuation bytes still expected
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (following > 0) {
            if ((byte & 0xC0) != 0x80) {
                return false;
            }
            --following;
        } else if (byte >= 0xC2 && byte <= 0xDF) {
            following = 1;
        } else if (byte >= 0xE0 && byte <= 0xEF) {
            following = 2;
        } else if (byte >= 0xF0 && byte <= 0xF4) {
            following = 3;
        } else if (byte >= 0x80) {
            return false;
        }
    }
    return following == 0;
}

}  // namespace

static int FuzzOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    CmkTinyXMLConverter xml;
    const bool wellFormed = xml.SetDoc(text.c_str());
    FUZZ_CHECK(wellFormed == xml.IsWellFormed());
    Walk(xml, &xml);
    xml.GetElemContent();
    if (!wellFormed || !IsUtf8(text)) {
        return 0;
    }
    CmkTinyXMLConverter again;
    FUZZ_CHECK(again.SetDoc(xml.GetDoc()));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    OnWorkerStack::run([&] { FuzzOneInput(data, size); });
    return 0;
}
