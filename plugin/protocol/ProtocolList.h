// The ordered, owning list behind a head's attributes and a message's heads.
// Both containers behave the same way towards the gateway, so they share this
// one template:
//  - the list owns its elements and destroys them through their virtual
//    destructor when they are removed or when the list goes;
//  - duplicate names are allowed; the name index keeps only the element
//    inserted last under a name, so a lookup finds the newest one while
//    iteration sees all of them in list order;
//  - removing an element erases the index entry under that element's name,
//    whatever element the entry points to. Removing an older duplicate thus
//    also hides the newer one from lookups (it stays in the list). The filter
//    chain has always seen this behaviour and it is kept on purpose (Q16);
//  - there is one iteration cursor per list, untouched by insertions, so
//    nested iterations over the same list interfere.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLLIST_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLLIST_H

#include <algorithm>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <new>
#include <string>

#include <ProtocolFilter.h>

namespace HttpWrapper {

inline const char* ProtocolItemName(PROTOCOL_FILTER::IProtocolAttr* item)
{
    return item->GetAttrName();
}

inline const char* ProtocolItemName(PROTOCOL_FILTER::IProtocolHead* item)
{
    return item->GetHeadName();
}

// Item: the gateway's interface (IProtocolAttr, IProtocolHead); Impl: the class
// created by the insertions, constructed from (name, value).
template <typename Item, typename Impl>
class CProtocolList {
public:
    CProtocolList() : m_cursor(m_items.end()) {}
    ~CProtocolList() { Clear(); }

    // The cursor is an iterator into this very object.
    CProtocolList(const CProtocolList&) = delete;
    CProtocolList& operator=(const CProtocolList&) = delete;

    Item* GetFirst()
    {
        m_cursor = m_items.begin();
        return m_cursor == m_items.end() ? nullptr : *m_cursor;
    }

    Item* GetNext()
    {
        if (m_cursor == m_items.end()) {
            return nullptr;
        }
        ++m_cursor;
        return m_cursor == m_items.end() ? nullptr : *m_cursor;
    }

    Item* GetByName(const char* name)
    {
        if (name == nullptr) {
            return nullptr;
        }
        const typename Index::iterator entry = m_index.find(name);
        return entry == m_index.end() ? nullptr : entry->second;
    }

    Item* InsertFirst(const char* name, const char* value) { return InsertAt(m_items.begin(), name, value); }

    Item* InsertLast(const char* name, const char* value) { return InsertAt(m_items.end(), name, value); }

    Item* InsertAfter(const char* name, const char* value, Item* ref)
    {
        const typename Items::iterator at = Find(ref);
        return at == m_items.end() ? nullptr : InsertAt(std::next(at), name, value);
    }

    Item* InsertBefore(const char* name, const char* value, Item* ref)
    {
        const typename Items::iterator at = Find(ref);
        return at == m_items.end() ? nullptr : InsertAt(at, name, value);
    }

    void DeleteFirst()
    {
        if (!m_items.empty()) {
            Erase(m_items.begin());
        }
    }

    void DeleteLast()
    {
        if (!m_items.empty()) {
            Erase(std::prev(m_items.end()));
        }
    }

    // Walks the whole list rather than stopping at the first match; an element
    // is only ever listed once, so the walk finds it at most once.
    void Delete(Item* item)
    {
        if (item == nullptr) {
            return;
        }
        for (typename Items::iterator at = m_items.begin(); at != m_items.end();) {
            at = (*at == item) ? Erase(at) : std::next(at);
        }
    }

    void DeleteAfter(Item* ref)
    {
        typename Items::iterator at = Find(ref);
        if (at == m_items.end() || ++at == m_items.end()) {
            return;
        }
        Erase(at);
    }

    void DeleteBefore(Item* ref)
    {
        const typename Items::iterator at = Find(ref);
        if (at == m_items.end() || at == m_items.begin()) {
            return;
        }
        Erase(std::prev(at));
    }

    void Clear()
    {
        for (Item* item : m_items) {
            delete item;
        }
        m_items.clear();
        m_index.clear();
        m_cursor = m_items.end();
    }

private:
    typedef std::list<Item*> Items;
    // Transparent comparison: lookups and erasures by a C string allocate nothing.
    typedef std::map<std::string, Item*, std::less<>> Index;

    typename Items::iterator Find(Item* ref)
    {
        return ref == nullptr ? m_items.end() : std::find(m_items.begin(), m_items.end(), ref);
    }

    Item* InsertAt(typename Items::iterator position, const char* name, const char* value)
    {
        Impl* created = new (std::nothrow) Impl(name, value);
        if (created == nullptr) {
            return nullptr;
        }
        // The containers' own nodes may still fail to allocate; the gateway
        // must see a null result, never an exception.
        typename Items::iterator placed = m_items.end();
        try {
            placed = m_items.insert(position, created);
            m_index[ProtocolItemName(created)] = created;
        } catch (const std::bad_alloc&) {
            if (placed != m_items.end()) {
                m_items.erase(placed);
            }
            delete created;
            return nullptr;
        }
        return created;
    }

    typename Items::iterator Erase(typename Items::iterator at)
    {
        Item* item = *at;
        const typename Index::iterator entry = m_index.find(ProtocolItemName(item));
        if (entry != m_index.end()) {
            m_index.erase(entry);
        }
        // An element renamed after its insertion is still indexed under its
        // old name; that entry must not outlive the element.
        for (typename Index::iterator e = m_index.begin(); e != m_index.end();) {
            e = (e->second == item) ? m_index.erase(e) : std::next(e);
        }
        // The cursor on a removed element would dangle; it moves to the end so
        // that iteration simply stops until GetFirst restarts it.
        if (m_cursor == at) {
            m_cursor = m_items.end();
        }
        const typename Items::iterator next = m_items.erase(at);
        delete item;
        return next;
    }

    Items m_items;
    typename Items::iterator m_cursor;
    Index m_index;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLLIST_H
