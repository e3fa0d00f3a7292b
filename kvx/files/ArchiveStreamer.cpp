#include "kvx/files/ArchiveStreamer.h"

#include "kvx/foundation/ObIterator.h"

#include <algorithm>

namespace
{
constexpr DWORD PACKED = 0x80000000;

// The context of this thread's streamers. The last of them takes it away.
constinit thread_local CArchiveStreamerContext * g_pContext = nullptr;

template <class KEY>
KEY Checked(KEY key)
{
    if (!key)
    {
        AfxThrowInvalidArgException();
    }
    return key;
}
} // namespace

CArchiveStreamer::CArchiveStreamer(CArchive & archive, int bNarrow)
    : m_pArchive(&archive), m_pContext(g_pContext), m_bNarrow(bNarrow)
{
    if (!m_pContext)
    {
        if (archive.IsLoading())
        {
            m_pContext = new CArchiveLoadContext(archive);
        }
        else
        {
            m_pContext = new CArchiveStoreContext(archive);
        }
        g_pContext = m_pContext;
    }
    m_pContext->AddRef();
}

CArchiveStreamer::CArchiveStreamer(CArchiveStreamer const & other)
    : m_pArchive(other.m_pArchive), m_pContext(other.m_pContext), m_bNarrow(other.m_bNarrow), m_bHoldsContext(false)
{
}

CArchiveStreamer::~CArchiveStreamer()
{
    if (m_bHoldsContext && m_pContext->Release(1) == 0)
    {
        g_pContext = nullptr;
    }
}

void CArchiveStreamer::Read(unsigned long & value)
{
    DWORD word = 0;
    m_pArchive->EnsureRead(&word, sizeof(word));
    value = word;
}

void CArchiveStreamer::Write(unsigned long value)
{
    auto const word = static_cast<DWORD>(value);
    m_pArchive->Write(&word, sizeof(word));
}

void CArchiveStreamer::Read(CTime & time)
{
    unsigned long seconds = 0;
    Read(seconds);
    time = CTime(static_cast<LONGLONG>(seconds));
}

void CArchiveStreamer::Write(CTime const & time)
{
    Write(static_cast<DWORD>(time.GetTime()));
}

template <class STRING>
void CArchiveStreamer::ReadCharacters(STRING & text, DWORD length)
{
    constexpr DWORD PIECE = 65536;
    constexpr auto SIZE = static_cast<DWORD>(sizeof(*text.GetString()));
    STRING read;
    while (length > 0)
    {
        int const before = read.GetLength();
        DWORD const step = std::min(length, PIECE);
        if (before > 0x7FFFFFFF - static_cast<int>(PIECE))
        {
            AfxThrowArchiveException(CArchiveException::endOfFile, m_pArchive->m_strFileName);
        }
        auto * const target = read.GetBuffer(before + static_cast<int>(step)) + before;
        UINT const got = m_pArchive->Read(target, step * SIZE);
        read.ReleaseBufferSetLength(before + static_cast<int>(got / SIZE));
        if (got < step * SIZE)
        {
            AfxThrowArchiveException(CArchiveException::endOfFile, m_pArchive->m_strFileName);
        }
        length -= step;
    }
    text = read;
}

void CArchiveStreamer::Read(CString & text)
{
    unsigned long length = 0;
    Read(length);
    auto * const packed = EnablePackedStrings() ? dynamic_cast<CArchiveLoadContext *>(m_pContext) : nullptr;
    if (length == 0)
    {
        text.Empty();
    }
    else if (packed && (length & PACKED) != 0)
    {
        if (!packed->m_texts.Lookup(static_cast<DWORD>(length & ~PACKED), text))
        {
            AfxThrowArchiveException(CArchiveException::badIndex, m_pArchive->m_strFileName);
        }
    }
    else if (packed)
    {
        ReadCharacters(text, static_cast<DWORD>(length));
        packed->m_texts.SetAt(static_cast<DWORD>(packed->m_texts.GetCount()) + 1, text);
    }
    else if (m_bNarrow)
    {
        CStringA narrow;
        ReadCharacters(narrow, static_cast<DWORD>(length));
        text = CString(narrow);
    }
    else
    {
        ReadCharacters(text, static_cast<DWORD>(length));
    }
}

void CArchiveStreamer::Write(CString const & text)
{
    if (text.IsEmpty())
    {
        Write(0UL);
        return;
    }
    if (auto * const packed = EnablePackedStrings() ? dynamic_cast<CArchiveStoreContext *>(m_pContext) : nullptr)
    {
        void * index = nullptr;
        if (packed->m_indexes.Lookup(text, index))
        {
            Write(static_cast<DWORD>(reinterpret_cast<UINT_PTR>(index)) | PACKED);
            return;
        }
        index = reinterpret_cast<void *>(static_cast<UINT_PTR>(packed->m_indexes.GetCount()) + 1);
        packed->m_indexes.SetAt(text, index);
    }
    if (m_bNarrow)
    {
        CStringA const narrow(text);
        Write(static_cast<DWORD>(narrow.GetLength()));
        m_pArchive->Write(narrow.GetString(), static_cast<UINT>(narrow.GetLength()));
        return;
    }
    Write(static_cast<DWORD>(text.GetLength()));
    m_pArchive->Write(text.GetString(), static_cast<UINT>(text.GetLength()) * sizeof(WCHAR));
}

template <class CONTAINER, class KEY>
void CArchiveStreamer::ReadObjects(CONTAINER & container, KEY key, FilterProc filter, void * context)
{
    unsigned long count = 0;
    for (Read(count); count > 0; --count)
    {
        CObject * const object = m_pArchive->ReadObject(nullptr);
        // Without a key function the container has read the objects itself, and these are references to them.
        if (object && key && (!filter || filter(object, context)))
        {
            container.SetAt(key(object), object);
        }
    }
}

template <class CONTAINER>
void CArchiveStreamer::WriteObjects(CONTAINER const & container)
{
    Write(static_cast<DWORD>(container.GetCount()));
    CIterator<CObject> walk(container);
    for (auto left = container.GetCount(); left > 0; --left)
    {
        m_pArchive->WriteObject(walk.Next());
    }
}

template <class CONTAINER, class KEY>
void CArchiveStreamer::SerializeObjects(CONTAINER & container, KEY key, FilterProc filter, void * context)
{
    if (!key)
    {
        container.Serialize(*m_pArchive);
    }
    if (m_pArchive->IsLoading())
    {
        ReadObjects(container, key, filter, context);
    }
    else
    {
        Write(container);
    }
}

void CArchiveStreamer::Read(CMapStringToOb & map, StringKeyProc key, FilterProc filter, void * context)
{
    ReadObjects(map, Checked(key), filter, context);
}

void CArchiveStreamer::Read(CObStringLookup & lookup, StringKeyProc key, FilterProc filter, void * context)
{
    ReadObjects(lookup, Checked(key), filter, context);
}

void CArchiveStreamer::Read(CObIntegerLookup & lookup, IntegerKeyProc key, FilterProc filter, void * context)
{
    ReadObjects(lookup, Checked(key), filter, context);
}

void CArchiveStreamer::Write(CMapStringToOb const & map)
{
    WriteObjects(map);
}

void CArchiveStreamer::Write(CObStringLookup const & lookup)
{
    CSingleLock const guard(const_cast<CObStringLookup &>(lookup), TRUE);
    WriteObjects(lookup);
}

void CArchiveStreamer::Write(CObIntegerLookup const & lookup)
{
    CSingleLock const guard(const_cast<CObIntegerLookup &>(lookup), TRUE);
    WriteObjects(lookup);
}

void CArchiveStreamer::Serialize(int & value)
{
    if (m_pArchive->IsLoading())
    {
        m_pArchive->EnsureRead(&value, sizeof(value));
    }
    else
    {
        m_pArchive->Write(&value, sizeof(value));
    }
}

void CArchiveStreamer::Serialize(unsigned long & value)
{
    if (m_pArchive->IsLoading())
    {
        Read(value);
    }
    else
    {
        Write(value);
    }
}

void CArchiveStreamer::Serialize(CString & text)
{
    if (m_pArchive->IsLoading())
    {
        Read(text);
    }
    else
    {
        Write(text);
    }
}

void CArchiveStreamer::Serialize(CObject *& object)
{
    if (m_pArchive->IsLoading())
    {
        object = m_pArchive->ReadObject(nullptr);
    }
    else
    {
        m_pArchive->WriteObject(object);
    }
}

void CArchiveStreamer::Serialize(CObList & list)
{
    list.Serialize(*m_pArchive);
}

void CArchiveStreamer::Serialize(CMapStringToOb & map, StringKeyProc key, FilterProc filter, void * context)
{
    SerializeObjects(map, key, filter, context);
}

void CArchiveStreamer::Serialize(CObStringLookup & lookup, StringKeyProc key, FilterProc filter, void * context)
{
    SerializeObjects(lookup, key, filter, context);
}

void CArchiveStreamer::Serialize(CObIntegerLookup & lookup, IntegerKeyProc key, FilterProc filter, void * context)
{
    SerializeObjects(lookup, key, filter, context);
}
