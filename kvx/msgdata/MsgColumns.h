#pragma once

/// The columns of a row set or a table, by name and by ordinal.

#include "kvx/platform/mfc/Afx.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace kvx
{
/// Owns the columns. COLUMN has a name and an ordinal of its own; the name by which it is found is its key, and both
/// differ where a copy leaves its columns without names. Walks go in the order in which the keys came.
///
/// Errors: CInvalidArgException * for an ordinal without a column. Threads: one at a time; several may use the const
/// operations at once.
template <class COLUMN>
class MsgColumns
{
public:
    struct Entry
    {
        CString strKey;
        std::unique_ptr<COLUMN> pColumn;
    };

    int GetCount() const { return static_cast<int>(m_entries.size()); }
    auto begin() const { return m_entries.begin(); }
    auto end() const { return m_entries.end(); }

    /// The ordinals that were given out, those without a column included.
    int GetOrdinalCount() const { return static_cast<int>(m_ordinals.size()); }
    COLUMN & At(int ordinal) const
    {
        if (ordinal < 0 || static_cast<std::size_t>(ordinal) >= m_ordinals.size() ||
            !m_ordinals[static_cast<std::size_t>(ordinal)])
        {
            AfxThrowInvalidArgException();
        }
        return *m_ordinals[static_cast<std::size_t>(ordinal)];
    }
    /// Null if there is none.
    COLUMN * Find(CString const & key) const
    {
        if (m_entries.size() > FEW)
        {
            void * found = nullptr;
            return m_index.Lookup(key, found) ? static_cast<COLUMN *>(found) : nullptr;
        }
        auto const at = FindEntry(key);
        return at != m_entries.end() ? at->pColumn.get() : nullptr;
    }

    /// Gives it the next ordinal's place. One that has the key already keeps its ordinal alone.
    COLUMN & Add(CString const & key, std::unique_ptr<COLUMN> column)
    {
        MakeRoom(m_ordinals);
        COLUMN & added = Name(key, std::move(column));
        m_ordinals.push_back(&added);
        return added;
    }
    /// Finds it under another key from now on, in the last place of a walk. False if there is none.
    bool Rename(CString const & oldKey, CString const & newKey)
    {
        std::unique_ptr<COLUMN> column = Unname(oldKey);
        if (!column)
        {
            return false;
        }
        column->SetName(newKey);
        Name(newKey, std::move(column));
        return true;
    }
    /// Hands a column over and moves up the ordinals behind it; null if there is none.
    std::unique_ptr<COLUMN> Remove(CString const & key)
    {
        std::unique_ptr<COLUMN> column = Unname(key);
        if (column)
        {
            m_ordinals.erase(m_ordinals.begin() + column->GetOrdinal());
            for (auto i = static_cast<std::size_t>(column->GetOrdinal()); i < m_ordinals.size(); ++i)
            {
                if (m_ordinals[i])
                {
                    m_ordinals[i]->SetOrdinal(static_cast<int>(i));
                }
            }
        }
        return column;
    }
    /// Deletes all columns. Ordinals go on counting from where they were.
    void RemoveColumns()
    {
        m_entries.clear();
        m_displaced.clear();
        m_index.RemoveAll();
        std::ranges::fill(m_ordinals, nullptr);
    }
    /// Deletes all columns, and ordinals begin at 0 again.
    void RemoveAll()
    {
        RemoveColumns();
        m_ordinals.clear();
    }

private:
    static constexpr std::size_t FEW = 8; // are found without an index

    std::vector<Entry> m_entries;
    CMapStringToPtr m_index{10}; // while there are more
    std::vector<COLUMN *> m_ordinals;
    std::vector<std::unique_ptr<COLUMN>> m_displaced; // another has taken their key

    auto FindEntry(CString const & key) const { return std::ranges::find(m_entries, key, &Entry::strKey); }

    /// For one more, so that nothing is half done where memory fails.
    template <class T>
    static void MakeRoom(std::vector<T> & vector)
    {
        if (vector.size() == vector.capacity())
        {
            vector.reserve(2 * vector.size() + 4);
        }
    }
    COLUMN & Name(CString const & key, std::unique_ptr<COLUMN> column)
    {
        COLUMN & named = *column;
        if (Find(key))
        {
            auto const known = m_entries.begin() + (FindEntry(key) - m_entries.begin());
            MakeRoom(m_displaced);
            Index(key, named, m_entries.size());
            m_displaced.push_back(std::exchange(known->pColumn, std::move(column)));
            return named;
        }
        MakeRoom(m_entries);
        Index(key, named, m_entries.size() + 1);
        m_entries.push_back({key, std::move(column)});
        return named;
    }
    /// For so many columns.
    void Index(CString const & key, COLUMN & named, std::size_t count)
    {
        if (count <= FEW)
        {
            return;
        }
        if (m_entries.size() == FEW)
        {
            m_index.RemoveAll();
            for (Entry const & entry : m_entries)
            {
                m_index.SetAt(entry.strKey, entry.pColumn.get());
            }
        }
        m_index.SetAt(key, &named);
    }
    std::unique_ptr<COLUMN> Unname(CString const & key)
    {
        auto const at = m_entries.begin() + (FindEntry(key) - m_entries.begin());
        if (at == m_entries.end())
        {
            return nullptr;
        }
        std::unique_ptr<COLUMN> column = std::move(at->pColumn);
        m_entries.erase(at);
        if (m_entries.size() > FEW)
        {
            m_index.RemoveKey(key);
        }
        return column;
    }
};
} // namespace kvx
