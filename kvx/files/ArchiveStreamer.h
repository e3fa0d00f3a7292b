#pragma once

/// A uniform way to read and write the parts of an object in its `Serialize`, with texts that are stored once.

#include "kvx/foundation/ObLookup.h"
#include "kvx/foundation/RefCounter.h"

class CTime;

/// What the streamers of one thread share, from the first to the last of them.
class KVX_API CArchiveStreamerContext : public CRefObject
{
public:
    explicit CArchiveStreamerContext(CArchive & archive) : m_pArchive(&archive) {}

    int EnablePackedStrings() const { return m_bPackedStrings; }
    void EnablePackedStrings(int enable) { m_bPackedStrings = enable; }

protected:
    CArchive * m_pArchive;

private:
    int m_bPackedStrings = 0;
};

/// The texts that have been read, by their number.
class KVX_API CArchiveLoadContext : public CArchiveStreamerContext
{
public:
    using CArchiveStreamerContext::CArchiveStreamerContext;

    CMap<DWORD, DWORD, CString, CString const &> m_texts{10};
};

/// The numbers of the texts that have been written.
class KVX_API CArchiveStoreContext : public CArchiveStreamerContext
{
public:
    using CArchiveStreamerContext::CArchiveStreamerContext;

    CMapStringToPtr m_indexes{10};
};

/// Lives as long as one `Serialize`. All streamers of a thread between the first and the last share one context,
/// whatever archive they name: so the numbers of texts hold through nested objects, and a nested `Serialize` to another
/// archive joins in too.
///
///     void CThing::Serialize(CArchive & archive)
///     {
///         CArchiveStreamer streamer(archive, 0);
///         streamer.Serialize(m_nSize);
///         streamer.Serialize(m_strName);
///     }
///
/// Words are 4 bytes in the host's order. A text is its length, as a word, and its characters: in UTF-16, or, for a
/// narrow streamer, as bytes of the ANSI code page with the number of those. The empty text is the word 0 alone. With
/// packed strings a text that came before is one word with bit 31 set, and below it the number of the text, where the
/// first has the number 1; the reader of packed strings takes wide text alone, so the two flags don't go together.
///
/// Errors: the archive's exceptions. Missing data raises CArchiveException `endOfFile`, the number of a text that never
/// came `badIndex`. Memory grows with what arrives, not with a length that was read. Threads: a streamer is its
/// thread's.
class KVX_API CArchiveStreamer
{
public:
    /// Makes an object's key.
    using StringKeyProc = CString (*)(CObject * object);
    using IntegerKeyProc = int (*)(CObject * object);
    /// 0 rejects an object that was read. Nothing frees it then: the function keeps or deletes it.
    using FilterProc = int (*)(CObject * object, void * context);

    CArchiveStreamer(CArchive & archive, int bNarrow);
    /// By contract a copy has no share in the context: it must not outlive what it was copied from.
    CArchiveStreamer(CArchiveStreamer const & other);
    CArchiveStreamer & operator=(CArchiveStreamer const &) = delete;
    virtual ~CArchiveStreamer();

    /// For all streamers of the context, from the next text on.
    int EnablePackedStrings() const { return m_pContext->EnablePackedStrings(); }
    void EnablePackedStrings(int enable) { m_pContext->EnablePackedStrings(enable); }

    void Read(unsigned long & value);
    void Write(unsigned long value);
    /// The low 32 bits of the seconds since 1970.
    void Read(CTime & time);
    void Write(CTime const & time);
    void Read(CString & text);
    void Write(CString const & text);

    /// A count and as many objects, each stored under the key that the function gives it; what was stored there is let
    /// go of. A null object has no key and is dropped. What has been read when an exception comes stays stored; an
    /// object whose key or filter function throws stays allocated.
    void Read(CMapStringToOb & map, StringKeyProc key, FilterProc filter, void * context);
    void Read(CObStringLookup & lookup, StringKeyProc key, FilterProc filter, void * context);
    void Read(CObIntegerLookup & lookup, IntegerKeyProc key, FilterProc filter, void * context);
    void Write(CMapStringToOb const & map);
    void Write(CObStringLookup const & lookup);
    void Write(CObIntegerLookup const & lookup);

    // By the archive's direction:
    void Serialize(int & value);
    void Serialize(unsigned long & value);
    void Serialize(CString & text);
    void Serialize(CObject *& object);
    void Serialize(CObList & list);
    /// By contract, without a key function the container's own `Serialize` runs, and then the form above all the same:
    /// the objects stand in the archive twice, the second time as references to the first.
    void Serialize(CMapStringToOb & map, StringKeyProc key, FilterProc filter, void * context);
    void Serialize(CObStringLookup & lookup, StringKeyProc key, FilterProc filter, void * context);
    void Serialize(CObIntegerLookup & lookup, IntegerKeyProc key, FilterProc filter, void * context);

private:
    CArchive * m_pArchive;
    CArchiveStreamerContext * m_pContext;
    int m_bNarrow;
    bool m_bHoldsContext = true;

    template <class STRING>
    void ReadCharacters(STRING & text, DWORD length);
    template <class CONTAINER, class KEY>
    void ReadObjects(CONTAINER & container, KEY key, FilterProc filter, void * context);
    template <class CONTAINER>
    void WriteObjects(CONTAINER const & container);
    template <class CONTAINER, class KEY>
    void SerializeObjects(CONTAINER & container, KEY key, FilterProc filter, void * context);
};
