#include "xml/mkTinyXMLConverter.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "util/NestingLimit.h"

namespace HttpWrapper {

namespace {

const char kDefaultPosName[] = "default";
const int kIntTextSize = 24;

// The DOM library steps over a multi-byte UTF-8 sequence by the length its lead
// byte announces, even when the text ends inside it, so a truncated sequence at
// the very end would make it read past the terminator. Parsing a copy followed by
// this many more terminators keeps every such step inside the copy.
const size_t kParsePadding = 4;  // the longest UTF-8 sequence

// The text as the parser gets it: a line break at the end, added unless the text
// already ends in one, then the padding.
std::string ParseableText(const char* text)
{
    std::string parseable(text);
    const char last = parseable.empty() ? '\0' : parseable.back();
    if (last != '\n' && last != '\r') {
        parseable.push_back('\n');
    }
    parseable.append(kParsePadding, '\0');
    return parseable;
}

// Reads a file as the DOM library's own loader would, CR LF and a lone CR both
// becoming LF; false when it cannot be read.
bool ReadTextFile(const char* path, std::string& text)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    const std::string raw((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) {
        return false;
    }
    text.clear();
    text.reserve(raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\r') {
            text.push_back(raw[i]);
            continue;
        }
        text.push_back('\n');
        if (i + 1 < raw.size() && raw[i + 1] == '\n') {
            ++i;
        }
    }
    return true;
}

// TinyXML parses recursively and has no depth limit of its own: a text with
// more openings than the bound is refused before it can exhaust the stack.
// The parser stops at the first NUL, so that is where the count stops too.
bool WithinOpenings(const char* text)
{
    return CountXmlOpenings(text, strlen(text)) <= kMaxRequestOpenings;
}

std::string IntText(int value)
{
    char text[kIntTextSize] = {0};
    std::snprintf(text, sizeof(text), "%d", value);
    return text;
}

std::string PrintNode(const TiXmlNode& node)
{
    TiXmlPrinter printer;
    printer.SetIndent("");
    node.Accept(&printer);
    return printer.Str();
}

// "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>" as TinyXML prints it, each value escaped.
std::string EscapedDeclaration(const TiXmlDeclaration& declaration)
{
    std::string line = "<?xml ";
    const std::pair<const char*, const char*> values[] = {{"version", declaration.Version()},
                                                          {"encoding", declaration.Encoding()},
                                                          {"standalone", declaration.Standalone()}};
    for (const auto& value : values) {
        if (value.second != nullptr && value.second[0] != '\0') {
            TIXML_STRING escaped;
            TiXmlBase::EncodeString(value.second, &escaped);
            line += std::string(value.first) + "=\"" + escaped.c_str() + "\" ";
        }
    }
    return line + "?>";
}

std::string TextOf(const TiXmlElement* element)
{
    const char* text = element == nullptr ? nullptr : element->GetText();
    return text == nullptr ? std::string() : std::string(text);
}

std::string AttributeOf(const TiXmlElement* element, const char* name)
{
    const char* value = (element == nullptr || name == nullptr) ? nullptr : element->Attribute(name);
    return value == nullptr ? std::string() : std::string(value);
}

bool SetAttributeOf(TiXmlElement* element, const char* name, const char* value)
{
    if (element == nullptr || name == nullptr || value == nullptr) {
        return false;
    }
    element->SetAttribute(name, value);
    return true;
}

// A new element with one text child when data is given.
TiXmlElement MakeElement(const char* name, const char* data)
{
    TiXmlElement element(name);
    if (data != nullptr) {
        element.InsertEndChild(TiXmlText(data));
    }
    return element;
}

bool IsAncestorOf(const TiXmlNode* ancestor, const TiXmlNode* node)
{
    for (const TiXmlNode* up = node == nullptr ? nullptr : node->Parent(); up != nullptr; up = up->Parent()) {
        if (up == ancestor) {
            return true;
        }
    }
    return false;
}

const char* SavedPosName(const char* name)
{
    return (name == nullptr || name[0] == '\0') ? kDefaultPosName : name;
}

}  // namespace

CmkTinyXMLConverter::CmkTinyXMLConverter() : m_pParent(this), m_pMain(nullptr), m_pChild(nullptr), m_bWellFormed(false)
{
}

CmkTinyXMLConverter::CmkTinyXMLConverter(const char* text) : CmkTinyXMLConverter()
{
    SetDoc(text);
}

CmkTinyXMLConverter::~CmkTinyXMLConverter()
{
}

bool CmkTinyXMLConverter::SetDoc(const char* text)
{
    Clear();
    ResetPos();
    m_savedPositions.clear();
    m_bWellFormed = false;
    if (text == nullptr || text[0] == '\0' || !WithinOpenings(text)) {
        return false;
    }
    Parse(ParseableText(text).c_str());
    m_bWellFormed = !Error();
    return IsWellFormed();
}

const char* CmkTinyXMLConverter::GetDoc()
{
    // Node by node, as the document's printer would, except that a declaration's values
    // are escaped: TinyXML prints them as read, so version="&#" would make the printed
    // text swallow the elements after it when read again.
    m_docText.clear();
    for (const TiXmlNode* node = FirstChild(); node != nullptr; node = node->NextSibling()) {
        const TiXmlDeclaration* declaration = node->ToDeclaration();
        m_docText += declaration != nullptr ? EscapedDeclaration(*declaration) + "\n" : PrintNode(*node);
    }
    return m_docText.c_str();
}

bool CmkTinyXMLConverter::Load(const char* path)
{
    m_savedPositions.clear();
    // Loading replaces the tree the positions point into, so they go back to
    // the top as well; callers that still call ResetPos afterwards lose nothing.
    ResetPos();
    // The file is read here rather than by the DOM library's loader so that it
    // is parsed with the same padding as a text.
    std::string text;
    m_bWellFormed = false;
    if (path == nullptr || !ReadTextFile(path, text) || !WithinOpenings(text.c_str())) {
        return false;
    }
    Clear();
    SetValue(path);
    Parse(ParseableText(text.c_str()).c_str());  // up to the first NUL, as the loader reads
    m_bWellFormed = !Error();
    return IsWellFormed();
}

bool CmkTinyXMLConverter::Save(const char* path)
{
    return path != nullptr && SaveFile(path);
}

bool CmkTinyXMLConverter::IsWellFormed()
{
    const TiXmlElement* root = RootElement();
    return m_bWellFormed && root != nullptr && root->NextSiblingElement() == nullptr;
}

bool CmkTinyXMLConverter::FindElem(const char* name, bool wrap)
{
    TiXmlElement* found = nullptr;
    if (m_pMain != nullptr) {
        found = name == nullptr ? m_pMain->NextSiblingElement() : m_pMain->NextSiblingElement(name);
    } else {
        found = name == nullptr ? m_pParent->FirstChildElement() : m_pParent->FirstChildElement(name);
    }
    if (found == nullptr && wrap) {
        found = name == nullptr ? m_pParent->FirstChildElement() : m_pParent->FirstChildElement(name);
    }
    if (found == nullptr) {
        return false;
    }
    m_pMain = found;
    m_pChild = nullptr;
    return true;
}

bool CmkTinyXMLConverter::FindChildElem(const char* name, bool wrap)
{
    if (m_pMain == nullptr && !FindElem(nullptr, false)) {
        return false;
    }
    TiXmlElement* found = nullptr;
    if (m_pChild != nullptr) {
        found = name == nullptr ? m_pChild->NextSiblingElement() : m_pChild->NextSiblingElement(name);
    } else {
        found = name == nullptr ? m_pMain->FirstChildElement() : m_pMain->FirstChildElement(name);
    }
    if (found == nullptr && wrap) {
        found = name == nullptr ? m_pMain->FirstChildElement() : m_pMain->FirstChildElement(name);
    }
    if (found == nullptr) {
        return false;
    }
    m_pChild = found;
    return true;
}

bool CmkTinyXMLConverter::IntoElem()
{
    if (m_pMain == nullptr) {
        return false;
    }
    m_pParent = m_pMain;
    m_pMain = m_pChild;
    m_pChild = nullptr;
    return true;
}

bool CmkTinyXMLConverter::OutOfElem()
{
    if (m_pParent == this) {
        return false;
    }
    // Below the document every parent position is an element (IntoElem only
    // ever moves into one).
    m_pChild = m_pMain;
    m_pMain = m_pParent->ToElement();
    m_pParent = m_pParent->Parent();
    return true;
}

void CmkTinyXMLConverter::ResetPos()
{
    m_pParent = this;
    m_pMain = nullptr;
    m_pChild = nullptr;
}

void CmkTinyXMLConverter::ResetMainPos()
{
    m_pMain = nullptr;
    m_pChild = nullptr;
}

void CmkTinyXMLConverter::ResetChildPos()
{
    m_pChild = nullptr;
}

std::string CmkTinyXMLConverter::GetData()
{
    return TextOf(m_pMain);
}

std::string CmkTinyXMLConverter::GetChildData()
{
    return TextOf(m_pChild);
}

std::string CmkTinyXMLConverter::GetAttrib(const char* name)
{
    return AttributeOf(m_pMain, name);
}

std::string CmkTinyXMLConverter::GetChildAttrib(const char* name)
{
    return AttributeOf(m_pChild, name);
}

std::string CmkTinyXMLConverter::GetSubDoc()
{
    return m_pMain == nullptr ? std::string() : PrintNode(*m_pMain);
}

std::string CmkTinyXMLConverter::GetElemContent()
{
    std::string content;
    if (m_pMain == nullptr) {
        return content;
    }
    for (const TiXmlElement* child = m_pMain->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        content += PrintNode(*child);
    }
    return content;
}

TiXmlElement* CmkTinyXMLConverter::InsertElement(TiXmlNode* container, TiXmlElement* reference,
                                                 const TiXmlElement& element)
{
    TiXmlNode* inserted =
        reference != nullptr ? container->InsertAfterChild(reference, element) : container->InsertEndChild(element);
    return inserted == nullptr ? nullptr : inserted->ToElement();
}

bool CmkTinyXMLConverter::AddElem(const char* name, const char* data, int flags)
{
    if (name == nullptr) {
        return false;
    }
    TiXmlElement* added = InsertElement(m_pParent, m_pMain, MakeElement(name, data));
    if (added == nullptr) {
        return false;
    }
    m_pMain = added;
    m_pChild = nullptr;
    return true;
}

bool CmkTinyXMLConverter::AddElem(const char* name, int value, int flags)
{
    return AddElem(name, IntText(value).c_str(), flags);
}

bool CmkTinyXMLConverter::AddChildElem(const char* name, const char* data, int flags)
{
    if (name == nullptr || m_pMain == nullptr) {
        return false;
    }
    TiXmlElement* added = InsertElement(m_pMain, m_pChild, MakeElement(name, data));
    if (added == nullptr) {
        return false;
    }
    m_pChild = added;
    return true;
}

bool CmkTinyXMLConverter::AddChildElem(const char* name, int value, int flags)
{
    return AddChildElem(name, IntText(value).c_str(), flags);
}

bool CmkTinyXMLConverter::AddAttrib(const char* name, const char* value)
{
    return SetAttributeOf(m_pMain, name, value);
}

bool CmkTinyXMLConverter::AddAttrib(const char* name, int value)
{
    return SetAttributeOf(m_pMain, name, IntText(value).c_str());
}

bool CmkTinyXMLConverter::SetAttrib(const char* name, const char* value)
{
    return SetAttributeOf(m_pMain, name, value);
}

bool CmkTinyXMLConverter::SetAttrib(const char* name, int value)
{
    return SetAttributeOf(m_pMain, name, IntText(value).c_str());
}

bool CmkTinyXMLConverter::AddChildAttrib(const char* name, const char* value)
{
    return SetAttributeOf(m_pChild, name, value);
}

bool CmkTinyXMLConverter::AddChildAttrib(const char* name, int value)
{
    return SetAttributeOf(m_pChild, name, IntText(value).c_str());
}

bool CmkTinyXMLConverter::SetData(const char* text, int flags)
{
    // Intended: only the value of an existing first child node (its text) is
    // replaced, so an empty element cannot be given text this way; documents
    // are built by passing the data to AddElem.
    TiXmlNode* first = m_pMain == nullptr ? nullptr : m_pMain->FirstChild();
    if (first == nullptr || text == nullptr) {
        return false;
    }
    first->SetValue(text);
    return true;
}

bool CmkTinyXMLConverter::SetData(int value)
{
    return SetData(IntText(value).c_str(), 0);
}

bool CmkTinyXMLConverter::PlaceFragment(const char* xml, ADD_TYPE type, TiXmlNode* container, TiXmlElement* reference,
                                        TiXmlElement*& first)
{
    first = nullptr;
    if (xml == nullptr || xml[0] == '\0' || !WithinOpenings(xml)) {
        return false;
    }
    TiXmlDocument fragment;
    fragment.Parse(ParseableText(xml).c_str());
    if (fragment.Error()) {
        return false;
    }
    for (const TiXmlElement* element = fragment.FirstChildElement(); element != nullptr;
         element = element->NextSiblingElement()) {
        TiXmlElement* placed = nullptr;
        if (type == ADD_BEFORE && first == nullptr) {
            // Only the first element goes in front; the others follow it, so
            // the fragment keeps its order.
            TiXmlElement* before = reference != nullptr ? reference : container->FirstChildElement();
            TiXmlNode* inserted = before != nullptr ? container->InsertBeforeChild(before, *element)
                                                    : container->InsertEndChild(*element);
            placed = inserted == nullptr ? nullptr : inserted->ToElement();
        } else {
            placed = InsertElement(container, reference, *element);
        }
        if (placed == nullptr) {
            return false;
        }
        if (first == nullptr) {
            first = placed;
        }
        reference = placed;
    }
    return true;
}

bool CmkTinyXMLConverter::AddSubDocAt(const char* xml, ADD_TYPE type)
{
    TiXmlElement* first = nullptr;
    const bool placed = PlaceFragment(xml, type, m_pParent, m_pMain, first);
    // Even a fragment that failed half-way leaves main on what it placed.
    if (first != nullptr) {
        m_pMain = first;
        m_pChild = nullptr;
    }
    return placed;
}

bool CmkTinyXMLConverter::AddSubDoc(const char* xml)
{
    return AddSubDocAt(xml, ADD_AFTER);
}

bool CmkTinyXMLConverter::InsertSubDoc(const char* xml)
{
    return AddSubDocAt(xml, ADD_BEFORE);
}

bool CmkTinyXMLConverter::SetElemContent(const char* xml)
{
    if (m_pMain == nullptr || xml == nullptr) {
        return false;
    }
    DropSavedPositions(m_pMain, false);
    m_pMain->Clear();
    m_pChild = nullptr;
    TiXmlElement* first = nullptr;
    const bool placed = PlaceFragment(xml, ADD_AFTER, m_pMain, nullptr, first);
    m_pChild = first;
    return placed;
}

bool CmkTinyXMLConverter::RemoveElem()
{
    if (m_pMain == nullptr) {
        return false;
    }
    DropSavedPositions(m_pMain, true);
    TiXmlNode* previous = m_pMain->PreviousSibling();
    TiXmlElement* previousElement = previous == nullptr ? nullptr : previous->ToElement();
    m_pParent->RemoveChild(m_pMain);
    m_pMain = previousElement;
    m_pChild = nullptr;
    return true;
}

bool CmkTinyXMLConverter::SavePos(const char* name)
{
    const tagSavedPos saved = {m_pParent, m_pMain, m_pChild};
    m_savedPositions[SavedPosName(name)] = saved;
    return true;
}

bool CmkTinyXMLConverter::RestorePos(const char* name)
{
    const std::map<std::string, tagSavedPos>::const_iterator found = m_savedPositions.find(SavedPosName(name));
    if (found == m_savedPositions.end()) {
        return false;
    }
    m_pParent = found->second.pParent;
    m_pMain = found->second.pMain;
    m_pChild = found->second.pChild;
    return true;
}

void CmkTinyXMLConverter::DropSavedPositions(const TiXmlNode* node, bool withChild)
{
    for (std::map<std::string, tagSavedPos>::iterator entry = m_savedPositions.begin();
         entry != m_savedPositions.end();) {
        const tagSavedPos& saved = entry->second;
        const bool affected = saved.pParent == node || saved.pMain == node || (withChild && saved.pChild == node) ||
                              IsAncestorOf(node, saved.pParent);
        entry = affected ? m_savedPositions.erase(entry) : std::next(entry);
    }
}

}  // namespace HttpWrapper
