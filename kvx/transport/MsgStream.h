#pragma once

/// The serialiser under all transports: 32-bit words, most significant byte first, and length-prefixed texts.
/// docs/wire-protocol.md shows what goes over the wire.

#include "kvx/foundation/Immortal.h"
#include "kvx/foundation/ObCache.h"
#include "kvx/foundation/StringValue.h"
#include "kvx/platform/mfc/Afx.h"
#include "kvx/platform/mfc/TextReferences.h"

#include <atomic>
#include <span>
#include <utility>

namespace kvx
{
/// Memory for the short texts of a message that is read: one that somebody keeps keeps little with it.
class MessageTexts : public TextPool
{
public:
    MessageTexts() : TextPool(512, 4096) {}
};
} // namespace kvx

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
    int Read(CString & text) { return ReadText(text, nullptr); }
    /// The same with memory for it, if it is short.
    int Read(CString & text, kvx::MessageTexts & texts) { return ReadText(text, &texts); }
    int Read(void * buffer, DWORD count) { return count == 0 ? 1 : ReadBytes(buffer, count); }
    int Write(DWORD word);
    int Write(CString const & text);
    int Write(void const * buffer, DWORD count) { return count == 0 ? 1 : WriteBytes(buffer, count); }
    /// A run of texts, each as above, in one go. Short ones that are read take their memory from there, if it is given.
    /// A CMsgStreamCompactor may have said that all of them stay where they are.
    int ReadTexts(std::span<CStringValue> texts, kvx::MessageTexts * memory = nullptr);
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
    bool m_bTextsStay = false; // see CMsgStreamCompactor

    void BeginMessage();
    void EndMessage();
    void ReleaseCompact();

    int ReadBytes(void * buffer, DWORD count);
    int ReadText(CString & text, kvx::TextPool * pool);
    bool ReadInPlace(CString & text, kvx::TextPool * pool, bool bStays);
    int ReadInParts(CString & text, bool bStays);
    int WriteBytes(void const * buffer, DWORD count);
    int ReadWideText(CString & text, DWORD length);
    int ReadNarrowText(CString & text, DWORD length);
    int WriteText(CString const & text, bool bStays);
    int WriteInFull(CString const & text);
};

/// Bounds one message on a stream: the compaction table is emptied at its end.
class KVX_API CMsgStreamCompactor
{
public:
    /// With `bTextsStay` the caller vouches for all texts of WriteTexts and ReadTexts: nobody changes them, or lets
    /// them go, before the message's end, and the compaction table needs no references of its own.
    explicit CMsgStreamCompactor(CMsgStream & stream, bool bTextsStay = false)
        : m_stream(stream), m_bTextsStayed(std::exchange(stream.m_bTextsStay, bTextsStay))
    {
        m_stream.BeginMessage();
    }
    CMsgStreamCompactor(CMsgStreamCompactor const &) = delete;
    CMsgStreamCompactor & operator=(CMsgStreamCompactor const &) = delete;
    ~CMsgStreamCompactor()
    {
        m_stream.EndMessage();
        m_stream.m_bTextsStay = m_bTextsStayed;
    }

private:
    CMsgStream & m_stream;
    bool m_bTextsStayed;
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
