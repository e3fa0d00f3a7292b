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
        std::size_t const place = FindPlace(key);
        return place < m_entries.size() ? m_entries[place].pColumn.get() : nullptr;
    }

    /// Gives it the next ordinal's place. One that has the key already keeps its ordinal alone.
    COLUMN & Add(CString const & key, std::unique_ptr<COLUMN> column)
    {
        COLUMN & added = *column;
        MakeRoom(m_ordinals);
        Enter(key, 1, [&] { return std::move(column); });
        m_ordinals.push_back(&added);
        return added;
    }
    /// Finds it under another key from now on: in the place of one that has it, or in the last of a walk. False if
    /// there is none.
    bool Rename(CString const & oldKey, CString const & newKey)
    {
        COLUMN * const column = Find(oldKey);
        if (column && oldKey != newKey)
        {
            Enter(newKey, 0, [&] { return Unname(oldKey); });
        }
        if (column)
        {
            column->SetName(newKey);
        }
        return column != nullptr;
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
    CMapStringToPtr m_index{10}; // while there are more: their places among the entries
    std::vector<COLUMN *> m_ordinals;
    std::vector<std::unique_ptr<COLUMN>> m_displaced; // another has taken their key

    /// Behind the last if there is none.
    std::size_t FindPlace(CString const & key) const
    {
        if (m_entries.size() <= FEW)
        {
            return static_cast<std::size_t>(std::ranges::find(m_entries, key, &Entry::strKey) - m_entries.begin());
        }
        void * place = nullptr;
        return m_index.Lookup(key, place) ? reinterpret_cast<std::size_t>(place) : m_entries.size();
    }
    void IndexPlace(CString const & key, std::size_t place) { m_index.SetAt(key, reinterpret_cast<void *>(place)); }

    /// For one more.
    template <class T>
    static void MakeRoom(std::vector<T> & vector)
    {
        if (vector.size() == vector.capacity())
        {
            MemoryGuarded([&vector] { vector.reserve(2 * vector.size() + 4); });
        }
    }
    /// Enters what `take` gives under a key; `more` says whether that isn't an entry already. All that needs memory
    /// comes first: where it fails nothing has changed.
    template <class TAKE>
    void Enter(CString const & key, std::size_t more, TAKE const & take)
    {
        MakeRoom(m_entries);
        MakeRoom(m_displaced);
        bool const bTaken = FindPlace(key) < m_entries.size();
        if (!bTaken && m_entries.size() + more > FEW)
        {
            if (m_entries.size() <= FEW)
            {
                m_index.RemoveAll();
                for (std::size_t i = 0; i < m_entries.size(); ++i)
                {
                    IndexPlace(m_entries[i].strKey, i);
                }
            }
            IndexPlace(key, 0);
        }
        std::unique_ptr<COLUMN> column = take();
        if (bTaken)
        {
            m_displaced.push_back(std::exchange(m_entries[FindPlace(key)].pColumn, std::move(column)));
            return;
        }
        m_entries.push_back({key, std::move(column)});
        if (m_entries.size() > FEW)
        {
            IndexPlace(key, m_entries.size() - 1);
        }
    }
    std::unique_ptr<COLUMN> Unname(CString const & key)
    {
        std::size_t const place = FindPlace(key);
        if (place == m_entries.size())
        {
            return nullptr;
        }
        if (m_entries.size() > FEW)
        {
            m_index.RemoveKey(key);
            for (std::size_t i = place + 1; i < m_entries.size(); ++i)
            {
                IndexPlace(m_entries[i].strKey, i - 1);
            }
        }
        std::unique_ptr<COLUMN> column = std::move(m_entries[place].pColumn);
        m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(place));
        return column;
    }
};
} // namespace kvx
