#pragma once

/// Strings made and given up many at a time, as those of a table or a document are.

#include "kvx/platform/mfc/Text.h"

#include <span>

namespace kvx
{
/// Memory for many short wide texts: see BlockPool.
class KVX_API TextPool
{
public:
    /// Characters; longer ones have memory of their own.
    static constexpr std::size_t LONGEST = 256;

    TextPool() = default;
    /// Bytes, as BlockPool takes them: few where a text that outlives the others is to keep little.
    TextPool(std::size_t firstBlock, std::size_t largestBlock);

    /// As AllocateText.
    TextHead * Allocate(std::size_t capacity);

private:
    SmallPieces m_pieces;
    std::size_t m_nLongest = LONGEST;
};

/// References to shared characters, many at a time: a change of a count that other threads may change too is dear, and
/// tables repeat few texts in many cells. The functions on heads take the empty text's, too.
class TextReferences
{
public:
    static TextHead * GetHead(CString const & text) noexcept { return text.Head(); }
    static CString::View GetView(TextHead const * head) noexcept
    {
        return {reinterpret_cast<WCHAR const *>(head + 1), static_cast<std::size_t>(head->nLength)};
    }
    static void Add(TextHead * head, int count) noexcept
    {
        if (head->nCapacity != 0)
        {
            __gnu_cxx::__atomic_add_dispatch(&head->nRefs, count);
        }
    }
    /// The last reference takes the characters with it.
    static void Remove(TextHead * head, int count) noexcept
    {
        if (head->nCapacity != 0 && __gnu_cxx::__exchange_and_add_dispatch(&head->nRefs, -count) == count)
        {
            FreeText(head);
        }
    }
    /// Makes an empty string share characters by a reference that Add has taken.
    static void HandOver(TextHead * head, CString & to) noexcept { to.m_pText = CString::Characters(head); }
    /// Gives an empty string `length` > 0 characters for the caller to write at once, in memory of its own or from a
    /// pool.
    static WCHAR * Make(CString & text, std::size_t length, TextPool * pool)
    {
        if (!pool)
        {
            return text.InitLength(length);
        }
        TextHead * const head = pool->Allocate(length);
        head->nLength = static_cast<std::int32_t>(length);
        text.m_pText = CString::Characters(head);
        text.m_pText[length] = 0;
        return text.m_pText;
    }

    TextReferences() = default;
    TextReferences(TextReferences const &) = delete;
    TextReferences & operator=(TextReferences const &) = delete;
    ~TextReferences()
    {
        for (Pending & pending : m_pending)
        {
            Release(pending);
        }
    }
    /// Empties a string. Its reference is given back along with others to the same characters, and its memory along
    /// with that of its neighbours, at the latest when this object goes.
    void Collect(CString & text) noexcept
    {
        if (text.IsNil())
        {
            return;
        }
        TextHead * const head = text.Head();
        bool const bShared = text.IsShared();
        text.m_pText = CString::Nil();
        if (!bShared)
        {
            Free(head);
            return;
        }
        Pending & pending = m_pending[reinterpret_cast<std::uintptr_t>(head) / 16 % PENDING];
        if (pending.pHead != head)
        {
            Release(pending);
            pending = {head, 0};
        }
        ++pending.nCount;
    }
    /// The same for strings of any kind that stand in a row.
    template <class TEXT>
    void Collect(std::span<TEXT> texts) noexcept
    {
        // Characters that lie elsewhere each are asked for before they are needed.
        constexpr std::size_t AHEAD = 8;
        for (std::size_t i = 0; i < texts.size(); ++i)
        {
            if (i + AHEAD < texts.size())
            {
                __builtin_prefetch(texts[i + AHEAD].Head(), 1);
            }
            Collect(texts[i]);
        }
    }

private:
    struct Pending
    {
        TextHead * pHead;
        std::int32_t nCount;
    };
    static constexpr std::size_t PENDING = 8;

    Pending m_pending[PENDING]{};
    SmallPieces::Frees m_frees;

    void Free(TextHead * head) noexcept
    {
        if (!m_frees.Free(head))
        {
            FreeText(head);
        }
    }
    void Release(Pending const & pending) noexcept
    {
        if (pending.nCount > 0 &&
            __gnu_cxx::__exchange_and_add_dispatch(&pending.pHead->nRefs, -pending.nCount) == pending.nCount)
        {
            Free(pending.pHead);
        }
    }
};
} // namespace kvx
