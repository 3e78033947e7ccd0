// Cursor-style reading and editing of an XML document. The object is the DOM
// document itself; callers move three positions through the tree instead of
// holding nodes:
//   parent - the node whose children the main position walks (the document at
//            the top level),
//   main   - an element under parent, or null for "before the first child",
//   child  - an element under main, or null.
// Every operation that moves or replaces main clears child. Named saved
// positions let a caller come back to a place; removing or emptying an element
// drops the saved positions that could point into it.
//
// Not thread-safe: one object belongs to one caller at a time.
#ifndef HTTPWRAPPER_XML_MKTINYXMLCONVERTER_H
#define HTTPWRAPPER_XML_MKTINYXMLCONVERTER_H

#include <map>
#include <string>

#include <tinyxml.h>

namespace HttpWrapper {

class CmkTinyXMLConverter : public TiXmlDocument {
public:
    // Where a fragment goes relative to the reference element.
    enum ADD_TYPE {
        ADD_AFTER = 0,   // behind the reference (appended when there is none)
        ADD_BEFORE = 1,  // in front of the reference
    };

    CmkTinyXMLConverter();
    explicit CmkTinyXMLConverter(const char* text);
    ~CmkTinyXMLConverter() override;

    // The positions point into this very object, so it cannot be copied.
    CmkTinyXMLConverter(const CmkTinyXMLConverter&) = delete;
    CmkTinyXMLConverter& operator=(const CmkTinyXMLConverter&) = delete;

    // Document.
    bool SetDoc(const char* text);
    // The whole document without indentation and without an XML declaration.
    // The text stays valid until the next GetDoc or the object's end.
    const char* GetDoc();
    bool Load(const char* path);
    bool Save(const char* path);
    // Parsed without error and exactly one top-level element.
    bool IsWellFormed();

    // Navigation. A null name matches any element.
    bool FindElem(const char* name = nullptr, bool wrap = false);
    bool FindChildElem(const char* name = nullptr, bool wrap = false);
    bool IntoElem();
    bool OutOfElem();
    void ResetPos();
    void ResetMainPos();
    void ResetChildPos();

    // Reading; the empty string when there is nothing to read.
    std::string GetData();
    std::string GetChildData();
    std::string GetAttrib(const char* name);
    std::string GetChildAttrib(const char* name);
    std::string GetSubDoc();
    std::string GetElemContent();

    // Building and changing. The flags arguments are accepted for callers that
    // pass them and have no effect.
    bool AddElem(const char* name, const char* data = nullptr, int flags = 0);
    bool AddElem(const char* name, int value, int flags = 0);
    bool AddChildElem(const char* name, const char* data = nullptr, int flags = 0);
    bool AddChildElem(const char* name, int value, int flags = 0);
    bool AddAttrib(const char* name, const char* value);
    bool AddAttrib(const char* name, int value);
    bool SetAttrib(const char* name, const char* value);
    bool SetAttrib(const char* name, int value);
    bool AddChildAttrib(const char* name, const char* value);
    bool AddChildAttrib(const char* name, int value);
    bool SetData(const char* text, int flags = 0);
    bool SetData(int value);
    bool AddSubDoc(const char* xml);
    bool InsertSubDoc(const char* xml);
    bool SetElemContent(const char* xml);
    bool RemoveElem();

    // Saved positions; a null or empty name means "default".
    bool SavePos(const char* name = nullptr);
    bool RestorePos(const char* name = nullptr);

private:
    struct tagSavedPos {
        TiXmlNode* pParent;
        TiXmlElement* pMain;
        TiXmlElement* pChild;
    };

    // Places the top-level elements of a fragment under container, next to
    // reference, in their order; the first placed copy is returned in first.
    static bool PlaceFragment(const char* xml, ADD_TYPE type, TiXmlNode* container, TiXmlElement* reference,
                              TiXmlElement*& first);
    static TiXmlElement* InsertElement(TiXmlNode* container, TiXmlElement* reference, const TiXmlElement& element);
    void DropSavedPositions(const TiXmlNode* node, bool withChild);
    bool AddSubDocAt(const char* xml, ADD_TYPE type);

    std::string m_docText;  // what GetDoc returned last
    TiXmlNode* m_pParent;
    TiXmlElement* m_pMain;
    TiXmlElement* m_pChild;
    bool m_bWellFormed;
    std::map<std::string, tagSavedPos> m_savedPositions;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_XML_MKTINYXMLCONVERTER_H
