#pragma once

/// What lists of row sets and lists of tables have in common.

#include "kvx/foundation/RefCounter.h"
#include "kvx/transport/MsgStream.h"

#include <memory>

/// An ordered list of T, each held by one reference; L is the derived list. A POSITION is one of the list.
/// Threads: one at a time; the reference count may be used by several.
template <class L, class T>
class AFX_TEMPLATE_API CMsgMultiple : public CRefObject
{
public:
    CMsgMultiple() = default;
    CMsgMultiple(CMsgMultiple const & other) : CMsgMultiple() { Copy(static_cast<L const &>(other)); }
    ~CMsgMultiple() override { RemoveAll(); }
    /// Adds copies to what is there, as Copy does.
    CMsgMultiple & operator=(CMsgMultiple const & other)
    {
        Copy(static_cast<L const &>(other));
        return *this;
    }

    /// Appends a deep copy of each of the other's; what is there stays.
    void Copy(L const & other)
    {
        // The other list may be this one, which grows.
        INT_PTR left = other.m_list.GetCount();
        for (POSITION pos = other.m_list.GetHeadPosition(); left > 0; --left)
        {
            Append(new T(*other.Item(other.m_list.GetNext(pos))));
        }
    }

    /// Adds at the tail, and takes a reference.
    POSITION Append(T * item)
    {
        kvx::RefPtr<T> const keep(item); // a new one goes where the list has no memory for it
        POSITION const pos = m_list.AddTail(item);
        item->AddRef();
        return pos;
    }
    /// Makes a new one of that name.
    POSITION Append(LPCTSTR name) { return Append(new T(name)); }
    /// Shares each of the other's.
    void Append(L * other)
    {
        INT_PTR left = other->m_list.GetCount();
        for (POSITION pos = other->m_list.GetHeadPosition(); left > 0; --left)
        {
            Append(Item(other->m_list.GetNext(pos)));
        }
    }

    /// The first of that name, ignoring case; null if there is none.
    POSITION Find(LPCTSTR name) const
    {
        for (POSITION pos = m_list.GetHeadPosition(); pos;)
        {
            POSITION const here = pos;
            if (Item(m_list.GetNext(pos))->GetName().CompareNoCase(name) == 0)
            {
                return here;
            }
        }
        return nullptr;
    }
    /// Never null: an empty list gets a first item without a name.
    POSITION GetFirstPosition() const
    {
        if (m_list.IsEmpty())
        {
            const_cast<CMsgMultiple *>(this)->Append(LPCTSTR{});
        }
        return m_list.GetHeadPosition();
    }
    /// The next one; the first from null, null behind the last.
    void GetNextPosition(POSITION & pos) const
    {
        if (pos)
        {
            m_list.GetNext(pos);
        }
        else
        {
            pos = GetFirstPosition();
        }
    }
    /// A null position becomes the first one.
    T * GetAt(POSITION & pos) const
    {
        if (!pos)
        {
            pos = GetFirstPosition();
        }
        return Item(m_list.GetAt(pos));
    }
    int GetCount() const { return static_cast<int>(m_list.GetCount()); }
    int IsEmpty() const { return m_list.IsEmpty(); }

    /// Releases and removes; 0 if absent. The pointer receives the position it had, or null.
    int Remove(T * item, POSITION * where) { return RemoveAt(m_list.Find(item), where); }
    int Remove(LPCTSTR name, POSITION * where) { return RemoveAt(Find(name), where); }
    void RemoveAll()
    {
        while (!m_list.IsEmpty())
        {
            Item(m_list.RemoveHead())->Release(1);
        }
    }

    /// The wire form: docs/wire-protocol.md. A failed read leaves what was read before.
    int Read(CMsgStream & stream)
    {
        RemoveAll();
        DWORD count = 0;
        if (!stream.Read(count))
        {
            return 0;
        }
        for (; count > 0; --count)
        {
            auto item = std::make_unique<T>(nullptr);
            if (!item->Read(stream))
            {
                return 0;
            }
            Append(item.release());
        }
        return 1;
    }
    int Write(CMsgStream & stream) const
    {
        if (!stream.Write(static_cast<DWORD>(m_list.GetCount())))
        {
            return 0;
        }
        for (POSITION pos = m_list.GetHeadPosition(); pos;)
        {
            if (!Item(m_list.GetNext(pos))->Write(stream))
            {
                return 0;
            }
        }
        return 1;
    }

private:
    CObList m_list{10};

    static T * Item(CObject * object) { return static_cast<T *>(object); }

    int RemoveAt(POSITION pos, POSITION * where)
    {
        if (where)
        {
            *where = pos;
        }
        if (!pos)
        {
            return 0;
        }
        T * const item = Item(m_list.GetAt(pos));
        m_list.RemoveAt(pos);
        item->Release(1);
        return 1;
    }
};
