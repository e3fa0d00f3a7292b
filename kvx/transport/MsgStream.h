#pragma once

/// The serialiser under all transports: 32-bit words, most significant byte first, and length-prefixed texts.
/// docs/wire-protocol.md shows what goes over the wire.

#include "kvx/foundation/Immortal.h"
#include "kvx/foundation/ObCache.h"
#include "kvx/foundation/StringValue.h"
#include "kvx/platform/mfc/Afx.h"

#include <array>
#include <atomic>
#include <span>
#include <vector>

/// Words and texts over two operations of a subclass that move raw bytes.
///
/// All operations give 0 at the first failure and leave the reason as the thread's last error; nothing resynchronises a
/// stream after that. Memory for a text is taken as its bytes arrive, whatever its length word says.
///
/// With compaction a text that has been sent in the same message before is replaced by a 4-byte back reference. The
/// table lives for one message: CMsgStreamCompactor bounds it.
///
/// Threads: one at a time; DeleteCompact alone may come from another thread during a message, and then takes effect at
/// the message's end.
class KVX_API CMsgStream
{
public:
    class CCompactInfo;

    /// Text goes as UTF-16 units, low byte first, or with `unicode` 0 as bytes of the ANSI code page.
    explicit CMsgStream(int unicode);
    /// A copy shares the compaction table.
    CMsgStream(CMsgStream const & other);
    CMsgStream & operator=(CMsgStream const & other);
    /// Doesn't give back the compaction table: see DeleteCompact.
    virtual ~CMsgStream() = default;

    /// Move all `count` bytes or fail.
    virtual int ReadData(void * buffer, DWORD count) = 0;
    virtual int WriteData(void const * buffer, DWORD count) = 0;
    /// Hands over what WriteData has gathered. Called at the end of each message and handshake step.
    virtual int FlushData() { return 1; }

    int Read(DWORD & word);
    int Read(LONG & word);
    int Read(CString & text);
    int Read(void * buffer, DWORD count) { return count == 0 ? 1 : ReadBytes(buffer, count); }
    int Write(DWORD word);
    int Write(CString const & text);
    int Write(void const * buffer, DWORD count) { return count == 0 ? 1 : WriteBytes(buffer, count); }
    /// A run of texts, each as above, in one go. Those that are read into must be empty.
    int ReadTexts(std::span<CStringValue> texts);
    int WriteTexts(std::span<CStringValue const> texts);

    /// Turns compaction on, or empties the table.
    void EnableCompact();
    /// Empties the table if compaction is on.
    void ResetCompact();
    /// Turns compaction off.
    void DeleteCompact();
    bool IsUnicode() const { return m_bUnicode; }
    bool IsCompact() const { return m_pCompact.load(std::memory_order_relaxed) != nullptr; }

protected:
    /// Windows on a subclass's buffers, for words and texts to be read and written in place. A subclass without buffers
    /// leaves them empty; one that has them keeps them in step with ReadData, WriteData and FlushData.
    BYTE const * m_pReadNext = nullptr;
    BYTE const * m_pReadEnd = nullptr;
    BYTE * m_pWriteNext = nullptr;
    BYTE * m_pWriteEnd = nullptr;

    static kvx::Immortal<CCache<CCompactInfo>> sm_cacheCompact;

private:
    friend class CLibraryEntry;
    friend class CMsgStreamCompactor;

    std::atomic<CCompactInfo *> m_pCompact{nullptr};
    std::atomic<LONG> m_nMessages{
        0}; // messages under way, nested; the sign bit says that compaction is to end with them
    bool m_bUnicode;

    void BeginMessage();
    void EndMessage();
    void ReleaseCompact();

    int ReadBytes(void * buffer, DWORD count);
    int ReadText(CString & text);
    bool ReadInPlace(CString & text);
    int ReadInParts(CString & text);
    int WriteBytes(void const * buffer, DWORD count);
    int ReadWideText(CString & text, DWORD length);
    int ReadNarrowText(CString & text, DWORD length);
    int WriteText(CString const & text);
    int WriteInFull(CString const & text);
};

/// Bounds one message on a stream: the compaction table is emptied at its end.
class KVX_API CMsgStreamCompactor
{
public:
    explicit CMsgStreamCompactor(CMsgStream & stream) : m_stream(stream) { m_stream.BeginMessage(); }
    CMsgStreamCompactor(CMsgStreamCompactor const &) = delete;
    CMsgStreamCompactor & operator=(CMsgStreamCompactor const &) = delete;
    ~CMsgStreamCompactor() { m_stream.EndMessage(); }

private:
    CMsgStream & m_stream;
};

/// The texts of one message, numbered from 0 in order of first appearance, the empty text included. The writer's side
/// finds numbers by text, the reader's side texts by number; a stream uses one of them at a time.
class KVX_API CMsgStream::CCompactInfo : public CObject
{
public:
    /// The number of a text that is known, or -1 when it has now got the next number.
    int FindOrAdd(CString const & text)
    {
        if (!m_bIndexed)
        {
            return FindOrAddAmongFew(text);
        }
        Recent & recent = m_recent[RecentIndex(text)];
        if (recent.pCharacters == text.GetString())
        {
            return static_cast<int>(recent.nNumber);
        }
        return FindOrAddByContent(text, recent);
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
    void Add(CString const & text) { m_texts.push_back(text); }
    /// Adds a text of that many characters, which may lie at any address, and fills an empty one with it.
    void AddAndShare(void const * characters, std::size_t length, CString & text)
    {
        kvx::TextReferences::Fill(m_texts.emplace_back(), text, characters, length);
    }
    void Reset();
    ~CCompactInfo() override { Reset(); }

private:
    // An open-addressing table over the texts; a slot holds the number plus 1, and the upper bits of the hash.
    struct Slot
    {
        DWORD nHash = 0;
        DWORD nNumber = 0;
    };
    // Tables repeat their texts by sharing characters: those are known by their address, without a look at them. The
    // texts above hold on to it until Reset.
    struct Recent
    {
        LPCTSTR pCharacters = nullptr;
        DWORD nNumber = 0;
    };
    static constexpr std::size_t RECENT = 64;

    // References to a text that is asked for again and again are taken in advance, ever more at a time.
    struct Stock
    {
        DWORD nNumber = 0;
        int nLeft = 0;
        int nTaken = 0;
    };
    static constexpr std::size_t STOCKS = 32;

    std::vector<CString> m_texts;
    std::vector<Slot> m_slots;
    std::array<Stock, STOCKS> m_stocks{};
    bool m_bStocks = false; // some are in use
    std::array<Recent, RECENT> m_recent{};
    bool m_bIndexed = false; // slots and addresses are in use; a few texts are told apart without

    static std::size_t RecentIndex(LPCTSTR characters)
    {
        auto const address = reinterpret_cast<UINT_PTR>(characters);
        return (address >> 4 ^ address >> 10) % RECENT;
    }
    void Restock(Stock & stock, DWORD number);
    void ReturnStocks();
    int FindOrAddAmongFew(CString const & text);
    int FindOrAddByContent(CString const & text, Recent & recent);
    void Grow();
};

/// A stream on a file, which it doesn't own. Any exception of the file becomes a failure.
class KVX_API CMsgFileStream : public CMsgStream
{
public:
    CMsgFileStream(CFile * file, int unicode) : CMsgStream(unicode), m_pFile(file)
    {
        if (file)
        {
            file->RequireBytes();
        }
    }
    ~CMsgFileStream() override { DeleteCompact(); }

    int ReadData(void * buffer, DWORD count) override;
    int WriteData(void const * buffer, DWORD count) override;

private:
    CFile * m_pFile;
};

namespace kvx
{
/// Reads or writes all of it; 0 for a short read or an exception of the file, which is deleted.
KVX_API int ReadFully(CFile & file, void * buffer, DWORD count);
KVX_API int WriteFully(CFile & file, void const * buffer, DWORD count, bool bFlush);
} // namespace kvx
