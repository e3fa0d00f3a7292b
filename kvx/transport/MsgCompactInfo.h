#pragma once

/// The compaction table of a stream.

#include "kvx/platform/mfc/TextReferences.h"
#include "kvx/transport/MsgStream.h"

#include <array>
#include <vector>

/// The texts of one message, numbered from 0 in order of first appearance, the empty text included. The writer's side
/// finds numbers by text, the reader's side texts by number; a stream uses one of them at a time.
///
/// A text that `bStays` is known by its address until Reset, and nothing more; of any other the table holds a
/// reference. Where a message breaks off, such texts may go before the table does; nobody asks for them any more.
class KVX_API CMsgStream::CCompactInfo : public CObject
{
public:
    CCompactInfo() = default;
    ~CCompactInfo() override { Reset(); }

    /// The number of a text that is known, or -1 when it has now got the next number.
    int FindOrAdd(CString const & text, bool bStays)
    {
        // Tables repeat their texts by sharing characters: those are known by their address, without a look at them.
        kvx::TextHead * const head = kvx::TextReferences::GetHead(text);
        Recent & recent = m_recent[RecentIndex(head)];
        if (recent.pHead == head && recent.nNumber > m_index.nBase)
        {
            return static_cast<int>(recent.nNumber - m_index.nBase - 1);
        }
        return FindOrAddByContent(text, bStays, recent);
    }
    /// Fills an empty text with that of a number; false for a number that was never given out.
    bool Share(DWORD number, CString & text)
    {
        if (number >= m_texts.size())
        {
            return false;
        }
        Stock & stock = m_stocks[number % STOCKS];
        if (stock.nNumber != number || stock.nLeft == 0)
        {
            Restock(stock, number);
        }
        --stock.nLeft;
        kvx::TextReferences::HandOver(m_texts[number], text);
        return true;
    }
    /// Gives a text that has been read the next number.
    void Add(CString const & text, bool bStays)
    {
        if (!bStays)
        {
            m_held.push_back(text);
        }
        m_texts.push_back(kvx::TextReferences::GetHead(text));
    }
    void Reset();

private:
    // An open-addressing table over the texts. A slot holds a text's number plus 1 plus the base, and the hash. What
    // is not above the base is of earlier messages: a new one begins without a look at the table.
    struct Slot
    {
        DWORD nHash = 0;
        DWORD nNumber = 0;
    };
    struct Index
    {
        std::vector<Slot> slots; // a power of two
        DWORD nBase = 0;
    };
    // The text that was last found or added at some address; the number is that of a slot.
    struct Recent
    {
        kvx::TextHead const * pHead = nullptr;
        DWORD nNumber = 0;
    };
    // References to a text that is asked for again and again are taken in advance, ever more at a time.
    struct Stock
    {
        DWORD nNumber = 0;
        int nLeft = 0;
        int nTaken = 0;
    };
    static constexpr std::size_t RECENT = 64;
    static constexpr std::size_t STOCKS = 32;

    std::vector<kvx::TextHead *> m_texts;
    std::vector<CString> m_held; // those of the texts that nobody else vouches for
    Index m_index;
    std::array<Recent, RECENT> m_recent{};
    std::array<Stock, STOCKS> m_stocks{};
    bool m_bStocks = false; // some are in use

    class SpareIndices;
    static SpareIndices & GetSpareIndices();

    static std::size_t RecentIndex(kvx::TextHead const * head)
    {
        auto const address = reinterpret_cast<UINT_PTR>(head);
        return (address >> 4 ^ address >> 10) % RECENT;
    }
    std::size_t FindFree(DWORD hash) const;
    int FindOrAddByContent(CString const & text, bool bStays, Recent & recent);
    void Grow();
    void Restock(Stock & stock, DWORD number);
    void ReturnStocks();
};
