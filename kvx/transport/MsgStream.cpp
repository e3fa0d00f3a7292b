#include "kvx/transport/MsgStream.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/transport/MsgCompactInfo.h"

#include <algorithm>
#include <array>
#include <bit>
#include <limits>

namespace
{
constexpr DWORD BACK_REFERENCE = 0x80000000;
constexpr DWORD MAX_TEXT = 0x3FFFFFFF; // characters; more don't fit into a CString of any host
constexpr DWORD PIECE = 32768;         // what a length word is believed before bytes have come
constexpr LONG END_COMPACT = std::numeric_limits<LONG>::min();

static_assert(std::endian::native == std::endian::little, "wide text goes out as it lies in memory, low byte first");

void StoreWord(BYTE * to, DWORD word)
{
    word = __builtin_bswap32(word);
    std::memcpy(to, &word, sizeof(word));
}

DWORD LoadWord(BYTE const * from)
{
    DWORD word = 0;
    std::memcpy(&word, from, sizeof(word));
    return __builtin_bswap32(word);
}

/// Whether all units mean the same in every ANSI code page.
template <class UNIT>
bool IsAscii(UNIT const * units, std::size_t count)
{
    unsigned others = 0;
    for (std::size_t i = 0; i < count; ++i)
    {
        others |= static_cast<unsigned>(units[i] - 1U > 0x7EU);
    }
    return others == 0;
}
} // namespace

CMsgStream::CMsgStream(int unicode) : m_bUnicode(unicode != 0) {}

CMsgStream::CMsgStream(CMsgStream const & other) : m_pCompact(other.m_pCompact.load()), m_bUnicode(other.m_bUnicode) {}

CMsgStream & CMsgStream::operator=(CMsgStream const & other)
{
    m_pCompact = other.m_pCompact.load();
    m_bUnicode = other.m_bUnicode;
    return *this;
}

int CMsgStream::ReadBytes(void * buffer, DWORD count)
{
    if (count <= static_cast<std::size_t>(m_pReadEnd - m_pReadNext))
    {
        std::memcpy(buffer, m_pReadNext, count);
        m_pReadNext += count;
        return 1;
    }
    return ReadData(buffer, count);
}

int CMsgStream::WriteBytes(void const * buffer, DWORD count)
{
    if (count <= static_cast<std::size_t>(m_pWriteEnd - m_pWriteNext))
    {
        std::memcpy(m_pWriteNext, buffer, count);
        m_pWriteNext += count;
        return 1;
    }
    return WriteData(buffer, count);
}

int CMsgStream::Read(DWORD & word)
{
    word = 0;
    std::array<BYTE, sizeof(DWORD)> bytes;
    if (!ReadBytes(bytes.data(), sizeof(bytes)))
    {
        return 0;
    }
    word = LoadWord(bytes.data());
    return 1;
}

int CMsgStream::Read(LONG & word)
{
    DWORD bits = 0;
    int const bDone = Read(bits);
    word = static_cast<LONG>(bits);
    return bDone;
}

int CMsgStream::Write(DWORD word)
{
    if (sizeof(DWORD) <= static_cast<std::size_t>(m_pWriteEnd - m_pWriteNext))
    {
        StoreWord(m_pWriteNext, word);
        m_pWriteNext += sizeof(DWORD);
        return 1;
    }
    std::array<BYTE, sizeof(DWORD)> bytes;
    StoreWord(bytes.data(), word);
    return WriteData(bytes.data(), sizeof(bytes));
}

/// Text of any kind, wherever its bytes are.
int CMsgStream::ReadInParts(CString & text, bool bStays)
{
    DWORD length = 0;
    if (!Read(length))
    {
        return 0;
    }
    CCompactInfo * const compact = m_pCompact.load(std::memory_order_relaxed);
    if (compact && (length & BACK_REFERENCE))
    {
        if (!compact->Share(length & ~BACK_REFERENCE, text))
        {
            SetLastError(ERROR_INVALID_DATA);
            return 0;
        }
        return 1;
    }
    if (length > MAX_TEXT)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    if (length > 0 && !(m_bUnicode ? ReadWideText(text, length) : ReadNarrowText(text, length)))
    {
        return 0;
    }
    if (compact)
    {
        compact->Add(text, bStays);
    }
    return 1;
}

/// The frequent case: wide text or ASCII, or a reference to a text, that lies in the buffer as a whole. False for
/// anything else, and then nothing is read.
inline bool CMsgStream::ReadInPlace(CString & text, kvx::TextPool * pool, bool bStays)
{
    auto const available = static_cast<std::size_t>(m_pReadEnd - m_pReadNext);
    if (available < sizeof(DWORD))
    {
        return false;
    }
    DWORD const length = LoadWord(m_pReadNext);
    CCompactInfo * const compact = m_pCompact.load(std::memory_order_relaxed);
    if (length & BACK_REFERENCE)
    {
        if (!compact || !compact->Share(length & ~BACK_REFERENCE, text))
        {
            return false;
        }
        m_pReadNext += sizeof(DWORD);
        return true;
    }
    std::size_t const bytes = std::size_t{length} * (m_bUnicode ? sizeof(WCHAR) : 1);
    BYTE const * const characters = m_pReadNext + sizeof(DWORD);
    if (length == 0 || bytes > available - sizeof(DWORD) || !(m_bUnicode || IsAscii(characters, length)))
    {
        return false;
    }
    WCHAR * const to = kvx::TextReferences::Make(text, length, pool);
    if (m_bUnicode)
    {
        std::memcpy(to, characters, bytes);
    }
    else
    {
        std::copy_n(characters, length, to);
    }
    if (compact)
    {
        compact->Add(text, bStays);
    }
    m_pReadNext += sizeof(DWORD) + bytes;
    return true;
}

int CMsgStream::ReadText(CString & text, kvx::TextPool * pool)
{
    text.Empty();
    return ReadInPlace(text, pool, false) || ReadInParts(text, false);
}

int CMsgStream::ReadTexts(std::span<CStringValue> texts, kvx::MessageTexts * memory)
{
    return std::ranges::all_of(texts,
                               [this, memory](CStringValue & text)
                               {
                                   text.Empty(); // an empty one may have memory
                                   return ReadInPlace(text, memory, m_bTextsStay) ||
                                          ReadInParts(text, m_bTextsStay) != 0;
                               });
}

int CMsgStream::ReadWideText(CString & text, DWORD length)
{
    for (DWORD have = 0; have < length;)
    {
        DWORD const step = std::min(length - have, std::max(PIECE, have));
        WCHAR * const to = text.GetBufferSetLength(static_cast<int>(have + step)) + have;
        if (!ReadBytes(to, step * sizeof(WCHAR)))
        {
            text.Empty();
            return 0;
        }
        have += step;
    }
    return 1;
}

int CMsgStream::ReadNarrowText(CString & text, DWORD length)
{
    CStringA narrow;
    for (DWORD have = 0; have < length;)
    {
        DWORD const step = std::min(length - have, std::max(PIECE, have));
        if (!ReadBytes(narrow.GetBufferSetLength(static_cast<int>(have + step)) + have, step))
        {
            return 0;
        }
        have += step;
    }
    text = CUtilities::AnsiToString(narrow);
    return 1;
}

int CMsgStream::Write(CString const & text)
{
    return WriteText(text, false);
}

inline int CMsgStream::WriteText(CString const & text, bool bStays)
{
    CCompactInfo * const compact = m_pCompact.load(std::memory_order_relaxed);
    int const known = compact ? compact->FindOrAdd(text, bStays) : -1;
    return known < 0 ? WriteInFull(text) : Write(static_cast<DWORD>(known) | BACK_REFERENCE);
}

int CMsgStream::WriteTexts(std::span<CStringValue const> texts)
{
    // Characters that lie elsewhere each are asked for before they are needed.
    constexpr std::size_t AHEAD = 8;
    for (std::size_t i = 0; i < texts.size(); ++i)
    {
        if (i + AHEAD < texts.size())
        {
            __builtin_prefetch(kvx::TextReferences::GetHead(texts[i + AHEAD]));
        }
        if (!WriteText(texts[i], m_bTextsStay))
        {
            return 0;
        }
    }
    return 1;
}

int CMsgStream::WriteInFull(CString const & text)
{
    auto const length = static_cast<DWORD>(text.GetLength());
    if (m_bUnicode)
    {
        std::size_t const bytes = std::size_t{length} * sizeof(WCHAR);
        if (sizeof(DWORD) + bytes <= static_cast<std::size_t>(m_pWriteEnd - m_pWriteNext))
        {
            StoreWord(m_pWriteNext, length);
            std::memcpy(m_pWriteNext + sizeof(DWORD), text.GetString(), bytes);
            m_pWriteNext += sizeof(DWORD) + bytes;
            return 1;
        }
        return Write(length) && Write(text.GetString(), static_cast<DWORD>(bytes));
    }
    if (sizeof(DWORD) + length <= static_cast<std::size_t>(m_pWriteEnd - m_pWriteNext) &&
        IsAscii(text.GetString(), length))
    {
        StoreWord(m_pWriteNext, length);
        std::transform(text.GetString(), text.GetString() + length, m_pWriteNext + sizeof(DWORD),
                       [](WCHAR c) { return static_cast<BYTE>(c); });
        m_pWriteNext += sizeof(DWORD) + length;
        return 1;
    }
    // As many bytes as the text has characters, by the format; a code page that needs fewer is filled up.
    CStringA narrow = CUtilities::StringToAnsi(text);
    if (narrow.GetLength() < text.GetLength())
    {
        narrow += CStringA(' ', text.GetLength() - narrow.GetLength());
    }
    return Write(length) && Write(narrow.GetString(), length);
}

void CMsgStream::EnableCompact()
{
    if (CCompactInfo * const compact = m_pCompact.load())
    {
        compact->Reset();
        return;
    }
    CCompactInfo * const compact = sm_cacheCompact->Allocate();
    compact->Reset();
    m_pCompact = compact;
}

void CMsgStream::ResetCompact()
{
    if (CCompactInfo * const compact = m_pCompact.load(std::memory_order_relaxed))
    {
        compact->Reset();
    }
}

void CMsgStream::DeleteCompact()
{
    for (LONG state = m_nMessages.load(); !(state & END_COMPACT);)
    {
        // In the middle of a message, which may be another thread's, the table is given back at its end.
        if (m_nMessages.compare_exchange_weak(state, state | END_COMPACT))
        {
            if (state == 0)
            {
                ReleaseCompact();
                m_nMessages = 0;
            }
            return;
        }
    }
}

void CMsgStream::ReleaseCompact()
{
    if (CCompactInfo * const compact = m_pCompact.exchange(nullptr))
    {
        compact->Reset();
        sm_cacheCompact->Return(compact);
    }
}

void CMsgStream::BeginMessage()
{
    for (LONG state = m_nMessages.load();;)
    {
        if (state == END_COMPACT)
        {
            SwitchToThread(); // another thread is just giving the table back
            state = m_nMessages.load();
        }
        else if (m_nMessages.compare_exchange_weak(state, state + 1))
        {
            return;
        }
    }
}

void CMsgStream::EndMessage()
{
    ResetCompact();
    if (m_nMessages.fetch_sub(1) - 1 == END_COMPACT)
    {
        ReleaseCompact();
        m_nMessages = 0;
    }
}

int CMsgFileStream::ReadData(void * buffer, DWORD count)
{
    return kvx::ReadFully(*m_pFile, buffer, count);
}

int CMsgFileStream::WriteData(void const * buffer, DWORD count)
{
    return kvx::WriteFully(*m_pFile, buffer, count, false);
}

namespace kvx
{
int ReadFully(CFile & file, void * buffer, DWORD count)
{
    try
    {
        return file.Read(buffer, count) == count;
    }
    catch (CException * failure)
    {
        failure->Delete();
        return 0;
    }
}

int WriteFully(CFile & file, void const * buffer, DWORD count, bool bFlush)
{
    try
    {
        file.Write(buffer, count);
        if (bFlush)
        {
            file.Flush();
        }
        return 1;
    }
    catch (CException * failure)
    {
        failure->Delete();
        return 0;
    }
}
} // namespace kvx
