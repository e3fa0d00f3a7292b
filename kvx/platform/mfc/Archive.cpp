#include "kvx/platform/mfc/Archive.h"

#include "kvx/platform/mfc/File.h"

#include <algorithm>
#include <limits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace
{
constexpr WORD NULL_TAG = 0;
constexpr WORD NEW_CLASS_TAG = 0xFFFF;
constexpr WORD CLASS_TAG = 0x8000;
constexpr DWORD BIG_CLASS_TAG = 0x80000000;
constexpr WORD BIG_OBJECT_TAG = 0x7FFF;
constexpr DWORD MAX_MAP_COUNT = 0x3FFFFFFE;

constexpr int MIN_BUFFER = 128;
// An object that holds an object that holds ...: a stream from outside may not decide how deep the stack goes. And what
// was stored can be loaded.
constexpr int MAX_OBJECT_DEPTH = 1000;

/// One object more on the stack, for as long as its content is read or written.
class DepthScope
{
public:
    explicit DepthScope(int & nDepth) : m_nDepth(nDepth) { ++m_nDepth; }
    ~DepthScope() { --m_nDepth; }
    DepthScope(DepthScope const &) = delete;
    DepthScope & operator=(DepthScope const &) = delete;

private:
    int & m_nDepth;
};
// Characters that are read before the length of a text is believed.
constexpr std::size_t FIRST_PIECE = 4096;

template <class XCHAR>
CStringT<XCHAR> ReadCharacters(CArchive & ar, UINT_PTR nLength)
{
    if (nLength > static_cast<UINT_PTR>(std::numeric_limits<int>::max() / 4))
    {
        AfxThrowArchiveException(CArchiveException::badIndex, ar.m_strFileName);
    }
    CStringT<XCHAR> str;
    for (std::size_t nDone = 0; nDone < nLength;)
    {
        auto const nPiece = std::min<std::size_t>(nLength - nDone, std::max(FIRST_PIECE, nDone));
        auto * pBuffer = str.GetBuffer(static_cast<int>(nDone + nPiece));
        ar.EnsureRead(pBuffer + nDone, static_cast<UINT>(nPiece * sizeof(XCHAR)));
        nDone += nPiece;
        str.ReleaseBuffer(static_cast<int>(nDone));
    }
    return str;
}

template <class XCHAR>
void WriteText(CArchive & ar, CStringT<XCHAR> const & str)
{
    AfxWriteStringLength(ar, static_cast<UINT_PTR>(str.GetLength()), sizeof(XCHAR) == 2);
    ar.Write(str.GetString(), static_cast<UINT>(str.GetLength()) * sizeof(XCHAR));
}

template <class XCHAR>
void ReadText(CArchive & ar, CStringT<XCHAR> & str)
{
    int nCharSize;
    auto const nLength = AfxReadStringLength(ar, nCharSize);
    if (nCharSize == 1)
    {
        str = CStringT<XCHAR>(ReadCharacters<char>(ar, nLength));
    }
    else
    {
        str = CStringT<XCHAR>(ReadCharacters<WCHAR>(ar, nLength));
    }
}
} // namespace

/// The numbers of the objects and classes that went through the archive; 0 is null.
struct CArchive::ObjectMap
{
    struct Entry
    {
        CObject * pObject = nullptr;
        CRuntimeClass * pClass = nullptr;
        UINT nSchema = 0;
    };

    std::unordered_map<void const *, DWORD> stored;
    std::vector<Entry> loaded{Entry{}};
    DWORD nStoredCount = 1;
    int nDepth = 0;
};

CArchive::CArchive(CFile * pFile, UINT nMode, int nBufSize, void * lpBuf)
    : m_pFile(pFile), m_nBufSize(static_cast<std::size_t>(std::max(nBufSize, MIN_BUFFER))), m_nMode(nMode)
{
    if (!pFile)
    {
        AfxThrowInvalidArgException();
    }
    pFile->RequireBytes();
    if (!lpBuf || nBufSize < MIN_BUFFER)
    {
        m_pOwnBuffer = std::make_unique_for_overwrite<BYTE[]>(m_nBufSize);
        lpBuf = m_pOwnBuffer.get();
    }
    m_pStart = m_pCursor = static_cast<BYTE *>(lpBuf);
    m_pEnd = IsLoading() ? m_pStart : m_pStart + m_nBufSize;
    m_strFileName = pFile->GetFilePath();
}

CArchive::~CArchive()
{
    if (!m_pFile || (m_nMode & bNoFlushOnDelete))
    {
        return;
    }
    try
    {
        Close();
    }
    catch (CException * pException)
    {
        pException->Delete();
    }
}

void CArchive::Throw(int cause) const
{
    AfxThrowArchiveException(cause, m_strFileName);
}

void CArchive::ThrowDirection() const
{
    Throw(IsLoading() ? CArchiveException::readOnly : CArchiveException::writeOnly);
}

void CArchive::ThrowClosed() const
{
    Throw(CArchiveException::genericException);
}

UINT CArchive::GetObjectSchema()
{
    return std::exchange(m_nObjectSchema, static_cast<UINT>(-1));
}

std::size_t CArchive::ReadFile(BYTE * pTarget, std::size_t nMax)
{
    // A pipe may deliver less than asked for, so only a read of nothing is the end.
    std::size_t nDone = 0;
    while (nDone < nMax)
    {
        auto const nRead = m_pFile->Read(pTarget + nDone, static_cast<UINT>(nMax - nDone));
        if (nRead == 0)
        {
            break;
        }
        nDone += nRead;
    }
    return nDone;
}

void CArchive::FillBuffer(std::size_t nNeeded)
{
    if (!m_pFile)
    {
        ThrowClosed();
    }
    auto const nUnread = static_cast<std::size_t>(m_pEnd - m_pCursor);
    std::memmove(m_pStart, m_pCursor, nUnread);
    m_pCursor = m_pStart;
    m_pEnd = m_pStart + nUnread;
    while (static_cast<std::size_t>(m_pEnd - m_pStart) < nNeeded)
    {
        auto const nRead = m_pFile->Read(m_pEnd, static_cast<UINT>(m_pStart + m_nBufSize - m_pEnd));
        if (nRead == 0)
        {
            Throw(CArchiveException::endOfFile);
        }
        m_pEnd += nRead;
    }
}

UINT CArchive::Read(void * lpBuf, UINT nMax)
{
    if (IsStoring())
    {
        ThrowDirection();
    }
    if (!m_pFile)
    {
        ThrowClosed();
    }
    auto * pTarget = static_cast<BYTE *>(lpBuf);
    std::size_t nLeft = nMax;
    auto const takeBuffered = [&]
    {
        auto const nPart = std::min(nLeft, static_cast<std::size_t>(m_pEnd - m_pCursor));
        if (nPart != 0)
        {
            std::memcpy(pTarget, m_pCursor, nPart);
        }
        m_pCursor += nPart;
        pTarget += nPart;
        nLeft -= nPart;
    };
    takeBuffered();
    if (nLeft >= m_nBufSize)
    {
        nLeft -= ReadFile(pTarget, nLeft);
    }
    else if (nLeft != 0)
    {
        m_pCursor = m_pEnd = m_pStart;
        while (static_cast<std::size_t>(m_pEnd - m_pStart) < nLeft)
        {
            auto const nRead = m_pFile->Read(m_pEnd, static_cast<UINT>(m_pStart + m_nBufSize - m_pEnd));
            if (nRead == 0)
            {
                break;
            }
            m_pEnd += nRead;
        }
        takeBuffered();
    }
    return static_cast<UINT>(nMax - nLeft);
}

void CArchive::SkipUnread(std::size_t nCount)
{
    if (IsStoring())
    {
        ThrowDirection();
    }
    m_pCursor += std::min(nCount, static_cast<std::size_t>(m_pEnd - m_pCursor));
}

BOOL CArchive::Refill()
{
    if (IsStoring())
    {
        ThrowDirection();
    }
    if (!m_pFile)
    {
        ThrowClosed();
    }
    if (m_pCursor == m_pEnd)
    {
        m_pCursor = m_pEnd = m_pStart;
        m_pEnd += m_pFile->Read(m_pStart, static_cast<UINT>(m_nBufSize));
    }
    return m_pCursor != m_pEnd;
}

void CArchive::EnsureRead(void * lpBuf, UINT nCount)
{
    if (Read(lpBuf, nCount) != nCount)
    {
        Throw(CArchiveException::endOfFile);
    }
}

void CArchive::Write(void const * lpBuf, UINT nMax)
{
    if (IsLoading())
    {
        ThrowDirection();
    }
    if (!m_pFile)
    {
        ThrowClosed();
    }
    if (nMax == 0)
    {
        return;
    }
    if (nMax > static_cast<std::size_t>(m_pEnd - m_pCursor))
    {
        Flush();
        if (nMax >= m_nBufSize)
        {
            m_pFile->Write(lpBuf, nMax);
            return;
        }
    }
    std::memcpy(m_pCursor, lpBuf, nMax);
    m_pCursor += nMax;
}

void CArchive::Flush()
{
    if (!m_pFile)
    {
        ThrowClosed();
    }
    if (IsLoading())
    {
        auto const nUnread = m_pEnd - m_pCursor;
        m_pCursor = m_pEnd = m_pStart;
        if (nUnread != 0)
        {
            m_pFile->Seek(-static_cast<LONGLONG>(nUnread), CFile::current);
        }
        return;
    }
    // Emptied first: after a failure the same bytes must not be written once more.
    auto const nPending = static_cast<UINT>(m_pCursor - m_pStart);
    m_pCursor = m_pStart;
    if (nPending != 0)
    {
        m_pFile->Write(m_pStart, nPending);
    }
}

void CArchive::Close()
{
    try
    {
        Flush();
    }
    catch (...)
    {
        Abort();
        throw;
    }
    Abort();
}

void CArchive::Abort()
{
    m_pFile = nullptr;
    m_pCursor = m_pEnd = m_pStart;
}

DWORD_PTR CArchive::ReadCount()
{
    WORD wCount;
    *this >> wCount;
    if (wCount != 0xFFFF)
    {
        return wCount;
    }
    DWORD dwCount;
    *this >> dwCount;
    if (sizeof(DWORD_PTR) == 4 || dwCount != 0xFFFFFFFF)
    {
        return dwCount;
    }
    ULONGLONG qwCount;
    *this >> qwCount;
    return static_cast<DWORD_PTR>(qwCount);
}

void CArchive::WriteCount(DWORD_PTR dwCount)
{
    if (dwCount < 0xFFFF)
    {
        *this << static_cast<WORD>(dwCount);
        return;
    }
    *this << static_cast<WORD>(0xFFFF);
    if (sizeof(DWORD_PTR) == 4 || dwCount < 0xFFFFFFFF)
    {
        *this << static_cast<DWORD>(dwCount);
    }
    else
    {
        *this << static_cast<DWORD>(0xFFFFFFFF) << static_cast<ULONGLONG>(dwCount);
    }
}

CArchive::ObjectMap & CArchive::GetObjects()
{
    if (!m_pObjects)
    {
        m_pObjects = std::make_unique<ObjectMap>();
    }
    auto const nCount = IsLoading() ? m_pObjects->loaded.size() : m_pObjects->nStoredCount;
    if (nCount >= MAX_MAP_COUNT)
    {
        Throw(CArchiveException::badIndex);
    }
    return *m_pObjects;
}

void CArchive::WriteTag(DWORD nTag, bool bClass)
{
    if (nTag < BIG_OBJECT_TAG)
    {
        *this << static_cast<WORD>(bClass ? CLASS_TAG | nTag : nTag);
    }
    else
    {
        *this << BIG_OBJECT_TAG << (bClass ? BIG_CLASS_TAG | nTag : nTag);
    }
}

void CArchive::WriteObject(CObject const * pOb)
{
    if (IsLoading())
    {
        ThrowDirection();
    }
    if (!pOb)
    {
        *this << NULL_TAG;
        return;
    }
    auto & objects = GetObjects();
    if (auto const found = objects.stored.find(pOb); found != objects.stored.end())
    {
        WriteTag(found->second, false);
        return;
    }
    if (objects.nDepth >= MAX_OBJECT_DEPTH)
    {
        Throw(CArchiveException::genericException);
    }
    WriteClass(pOb->GetRuntimeClass());
    // Numbered before its content, which may point back to it.
    objects.stored.emplace(pOb, objects.nStoredCount++);
    DepthScope const scope(objects.nDepth);
    const_cast<CObject *>(pOb)->Serialize(*this);
}

void CArchive::WriteClass(CRuntimeClass const * pClass)
{
    if (IsLoading())
    {
        ThrowDirection();
    }
    if (!pClass)
    {
        AfxThrowInvalidArgException();
    }
    if (pClass->m_wSchema == 0xFFFF)
    {
        AfxThrowNotSupportedException();
    }
    auto & objects = GetObjects();
    if (auto const found = objects.stored.find(pClass); found != objects.stored.end())
    {
        WriteTag(found->second, true);
        return;
    }
    *this << NEW_CLASS_TAG;
    pClass->Store(*this);
    objects.stored.emplace(pClass, objects.nStoredCount++);
}

CObject * CArchive::ReadObject(CRuntimeClass const * pClassRequested)
{
    UINT nSchema;
    DWORD nObTag;
    auto const * pClass = ReadClass(pClassRequested, &nSchema, &nObTag);
    auto & objects = GetObjects();
    if (!pClass)
    {
        if (nObTag == NULL_TAG)
        {
            return nullptr;
        }
        auto * pKnown = nObTag < objects.loaded.size() ? objects.loaded[nObTag].pObject : nullptr;
        if (!pKnown)
        {
            Throw(CArchiveException::badIndex);
        }
        if (pClassRequested && !pKnown->IsKindOf(pClassRequested))
        {
            Throw(CArchiveException::badClass);
        }
        return pKnown;
    }
    if (objects.nDepth >= MAX_OBJECT_DEPTH)
    {
        Throw(CArchiveException::genericException);
    }

    std::unique_ptr<CObject> pOb(pClass->CreateObject());
    if (!pOb)
    {
        Throw(CArchiveException::badClass);
    }
    auto const nIndex = objects.loaded.size();
    objects.loaded.push_back({pOb.get(), nullptr, 0});
    auto const nOuterSchema = std::exchange(m_nObjectSchema, nSchema);
    DepthScope const scope(objects.nDepth);
    try
    {
        pOb->Serialize(*this);
    }
    catch (...)
    {
        // What was read since may go with this object: no later tag may reach it.
        std::fill(objects.loaded.begin() + static_cast<std::ptrdiff_t>(nIndex), objects.loaded.end(),
                  ObjectMap::Entry{});
        m_nObjectSchema = nOuterSchema;
        throw;
    }
    m_nObjectSchema = nOuterSchema;
    return pOb.release();
}

CRuntimeClass * CArchive::ReadClass(CRuntimeClass const * pClassRequested, UINT * pSchema, DWORD * pObTag)
{
    if (IsStoring())
    {
        ThrowDirection();
    }
    if (pClassRequested && pClassRequested->m_wSchema == 0xFFFF && !pObTag)
    {
        AfxThrowNotSupportedException();
    }

    WORD wTag;
    *this >> wTag;
    DWORD nTag;
    if (wTag == BIG_OBJECT_TAG)
    {
        *this >> nTag;
    }
    else
    {
        nTag = (wTag & CLASS_TAG ? BIG_CLASS_TAG : 0) | static_cast<DWORD>(wTag & ~CLASS_TAG);
    }
    if (!(nTag & BIG_CLASS_TAG))
    {
        if (!pObTag)
        {
            Throw(CArchiveException::badIndex);
        }
        *pObTag = nTag;
        return nullptr;
    }

    auto & objects = GetObjects();
    CRuntimeClass * pClass;
    UINT nSchema;
    if (wTag == NEW_CLASS_TAG)
    {
        pClass = CRuntimeClass::Load(*this, &nSchema);
        if (!pClass)
        {
            Throw(CArchiveException::badClass);
        }
        if ((pClass->m_wSchema & ~VERSIONABLE_SCHEMA) != nSchema && !(pClass->m_wSchema & VERSIONABLE_SCHEMA))
        {
            Throw(CArchiveException::badSchema);
        }
        objects.loaded.push_back({nullptr, pClass, nSchema});
    }
    else
    {
        auto const nIndex = nTag & ~BIG_CLASS_TAG;
        if (nIndex >= objects.loaded.size() || !objects.loaded[nIndex].pClass)
        {
            Throw(CArchiveException::badIndex);
        }
        pClass = objects.loaded[nIndex].pClass;
        nSchema = objects.loaded[nIndex].nSchema;
    }
    if (pClassRequested && !pClass->IsDerivedFrom(pClassRequested))
    {
        Throw(CArchiveException::badClass);
    }
    if (pSchema)
    {
        *pSchema = nSchema;
    }
    else
    {
        m_nObjectSchema = nSchema;
    }
    if (pObTag)
    {
        *pObTag = nTag;
    }
    return pClass;
}

void CArchive::SerializeClass(CRuntimeClass const * pClass)
{
    if (IsStoring())
    {
        WriteClass(pClass);
    }
    else
    {
        ReadClass(pClass);
    }
}

void CArchive::MapObject(CObject const * pOb)
{
    if (!pOb)
    {
        return;
    }
    auto & objects = GetObjects();
    if (IsStoring())
    {
        objects.stored.emplace(pOb, objects.nStoredCount++);
    }
    else
    {
        objects.loaded.push_back({const_cast<CObject *>(pOb), nullptr, 0});
    }
}

void AfxWriteStringLength(CArchive & ar, UINT_PTR nLength, BOOL bUnicode)
{
    constexpr BYTE MORE = 0xFF;
    if (bUnicode)
    {
        ar << MORE << static_cast<WORD>(0xFFFE);
    }
    if (nLength < 0xFF)
    {
        ar << static_cast<BYTE>(nLength);
    }
    else if (nLength < 0xFFFE)
    {
        ar << MORE << static_cast<WORD>(nLength);
    }
    else if (nLength < 0xFFFFFFFF)
    {
        ar << MORE << static_cast<WORD>(0xFFFF) << static_cast<DWORD>(nLength);
    }
    else
    {
        ar << MORE << static_cast<WORD>(0xFFFF) << static_cast<DWORD>(0xFFFFFFFF) << static_cast<ULONGLONG>(nLength);
    }
}

UINT_PTR AfxReadStringLength(CArchive & ar, int & nCharSize)
{
    nCharSize = 1;
    BYTE bLength;
    ar >> bLength;
    if (bLength < 0xFF)
    {
        return bLength;
    }
    WORD wLength;
    ar >> wLength;
    if (wLength == 0xFFFE)
    {
        nCharSize = 2;
        ar >> bLength;
        if (bLength < 0xFF)
        {
            return bLength;
        }
        ar >> wLength;
    }
    if (wLength < 0xFFFF)
    {
        return wLength;
    }
    DWORD dwLength;
    ar >> dwLength;
    if (dwLength < 0xFFFFFFFF)
    {
        return dwLength;
    }
    ULONGLONG qwLength;
    ar >> qwLength;
    if (qwLength > std::numeric_limits<UINT_PTR>::max())
    {
        AfxThrowArchiveException(CArchiveException::badIndex, ar.m_strFileName);
    }
    return static_cast<UINT_PTR>(qwLength);
}

CArchive & operator<<(CArchive & ar, CString const & str)
{
    WriteText(ar, str);
    return ar;
}

CArchive & operator>>(CArchive & ar, CString & str)
{
    ReadText(ar, str);
    return ar;
}

CArchive & operator<<(CArchive & ar, CStringA const & str)
{
    WriteText(ar, str);
    return ar;
}

CArchive & operator>>(CArchive & ar, CStringA & str)
{
    ReadText(ar, str);
    return ar;
}
