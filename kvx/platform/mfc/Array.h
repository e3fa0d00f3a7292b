#pragma once

#include "kvx/platform/mfc/Elements.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

/// An array that grows. Elements that are pointers are not owned; new elements are zero or made by default.
///
/// Errors: an index outside the array and a negative size raise CInvalidArgException, a size that can't be had
/// CMemoryException. Threads: the caller locks.
template <class TYPE, class ARG_TYPE = TYPE const &>
class AFX_TEMPLATE_API CArray : public CObject
{
public:
    constexpr CArray() = default;
    ~CArray() override { Release(); }
    CArray(CArray const &) = delete;
    CArray & operator=(CArray const &) = delete;

    INT_PTR GetSize() const { return m_nSize; }
    INT_PTR GetCount() const { return m_nSize; }
    BOOL IsEmpty() const { return m_nSize == 0; }
    INT_PTR GetUpperBound() const { return m_nSize - 1; }

    /// Grows or cuts the array. Memory is given back at size 0. `nGrowBy`, if not negative, is the least
    /// number of elements to grow by from now on; growth is by half in any case.
    void SetSize(INT_PTR nNewSize, INT_PTR nGrowBy = -1)
    {
        if (nNewSize < 0)
        {
            AfxThrowInvalidArgException();
        }
        if (nGrowBy >= 0)
        {
            m_nGrowBy = nGrowBy;
        }
        if (nNewSize == 0)
        {
            Release();
            m_pData = nullptr;
            m_nSize = m_nMaxSize = 0;
            return;
        }
        if (nNewSize > m_nMaxSize)
        {
            Reallocate(m_nMaxSize == 0 ? std::max(nNewSize, m_nGrowBy) : GrownSize(nNewSize));
        }
        if (nNewSize > m_nSize)
        {
            std::uninitialized_value_construct(m_pData + m_nSize, m_pData + nNewSize);
        }
        else
        {
            std::destroy(m_pData + nNewSize, m_pData + m_nSize);
        }
        m_nSize = nNewSize;
    }
    void FreeExtra()
    {
        if (m_nSize == 0)
        {
            SetSize(0);
        }
        else if (m_nSize != m_nMaxSize)
        {
            Reallocate(m_nSize);
        }
    }
    void RemoveAll() { SetSize(0); }

    TYPE & GetAt(INT_PTR nIndex) { return m_pData[Checked(nIndex)]; }
    TYPE const & GetAt(INT_PTR nIndex) const { return m_pData[Checked(nIndex)]; }
    TYPE & ElementAt(INT_PTR nIndex) { return m_pData[Checked(nIndex)]; }
    TYPE const & ElementAt(INT_PTR nIndex) const { return m_pData[Checked(nIndex)]; }
    TYPE & operator[](INT_PTR nIndex) { return m_pData[Checked(nIndex)]; }
    TYPE const & operator[](INT_PTR nIndex) const { return m_pData[Checked(nIndex)]; }
    void SetAt(INT_PTR nIndex, ARG_TYPE newElement) { m_pData[Checked(nIndex)] = newElement; }

    /// The elements; null for an empty array that never held any. Good until the array grows.
    TYPE * GetData() { return m_pData; }
    TYPE const * GetData() const { return m_pData; }

    void SetAtGrow(INT_PTR nIndex, ARG_TYPE newElement)
    {
        if (nIndex < 0 || nIndex == std::numeric_limits<INT_PTR>::max())
        {
            AfxThrowInvalidArgException();
        }
        if (nIndex < m_nSize)
        {
            m_pData[nIndex] = newElement;
            return;
        }
        TYPE element(newElement); // may be one of ours, which is about to move
        SetSize(nIndex + 1);
        m_pData[nIndex] = std::move(element);
    }
    /// The index of the new element.
    INT_PTR Add(ARG_TYPE newElement)
    {
        if (m_nSize == m_nMaxSize)
        {
            TYPE element(newElement);
            Reallocate(GrownSize(m_nSize + 1));
            std::construct_at(m_pData + m_nSize, std::move(element));
        }
        else
        {
            std::construct_at(m_pData + m_nSize, newElement);
        }
        return m_nSize++;
    }
    /// The former size.
    INT_PTR Append(CArray const & src)
    {
        auto const nOldSize = m_nSize;
        auto const nAdded = src.m_nSize;
        SetSizeIfNeeded(nOldSize + nAdded);
        std::copy_n(src.m_pData, nAdded, m_pData + nOldSize);
        return nOldSize;
    }
    void Copy(CArray const & src)
    {
        if (this == &src)
        {
            return;
        }
        SetSize(src.m_nSize);
        std::copy_n(src.m_pData, m_nSize, m_pData);
    }

    /// Behind the end, the gap is filled with new elements.
    void InsertAt(INT_PTR nIndex, ARG_TYPE newElement, INT_PTR nCount = 1)
    {
        if (nIndex < 0 || nCount <= 0)
        {
            AfxThrowInvalidArgException();
        }
        TYPE const element(newElement);
        OpenGap(nIndex, nCount);
        std::fill_n(m_pData + nIndex, nCount, element);
    }
    void InsertAt(INT_PTR nStartIndex, CArray const * pNewArray)
    {
        if (nStartIndex < 0 || !pNewArray || pNewArray == this)
        {
            AfxThrowInvalidArgException();
        }
        if (pNewArray->m_nSize == 0)
        {
            return;
        }
        OpenGap(nStartIndex, pNewArray->m_nSize);
        std::copy_n(pNewArray->m_pData, pNewArray->m_nSize, m_pData + nStartIndex);
    }
    void RemoveAt(INT_PTR nIndex, INT_PTR nCount = 1)
    {
        if (nIndex < 0 || nCount < 0 || nIndex > m_nSize || nCount > m_nSize - nIndex)
        {
            AfxThrowInvalidArgException();
        }
        std::move(m_pData + nIndex + nCount, m_pData + m_nSize, m_pData + nIndex);
        std::destroy(m_pData + m_nSize - nCount, m_pData + m_nSize);
        m_nSize -= nCount;
    }

    /// A count, then the elements. Reading replaces what the array holds.
    void Serialize(CArchive & ar) override
    {
        if (ar.IsStoring())
        {
            ar.WriteCount(static_cast<DWORD_PTR>(m_nSize));
            SerializeElements<TYPE>(ar, m_pData, m_nSize);
            return;
        }
        constexpr DWORD_PTR FIRST_PIECE = sizeof(TYPE) < 0x1000 ? 0x1000 / sizeof(TYPE) : 1;
        auto nLeft = ar.ReadCount();
        RemoveAll();
        while (nLeft > 0)
        {
            auto const nDone = m_nSize;
            auto const nPiece = std::min(nLeft, std::max(FIRST_PIECE, static_cast<DWORD_PTR>(nDone)));
            SetSize(nDone + static_cast<INT_PTR>(nPiece));
            SerializeElements<TYPE>(ar, m_pData + nDone, static_cast<INT_PTR>(nPiece));
            nLeft -= nPiece;
        }
    }

private:
    static_assert(alignof(TYPE) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

    TYPE * m_pData = nullptr;
    INT_PTR m_nSize = 0;
    INT_PTR m_nMaxSize = 0;
    INT_PTR m_nGrowBy = 0;

    static constexpr INT_PTR MAX_SIZE = std::numeric_limits<INT_PTR>::max() / static_cast<INT_PTR>(sizeof(TYPE));

    INT_PTR Checked(INT_PTR nIndex) const
    {
        if (static_cast<UINT_PTR>(nIndex) >= static_cast<UINT_PTR>(m_nSize)) [[unlikely]]
        {
            AfxThrowInvalidArgException();
        }
        return nIndex;
    }
    INT_PTR GrownSize(INT_PTR nNeeded) const
    {
        if (nNeeded > MAX_SIZE)
        {
            AfxThrowMemoryException();
        }
        auto const nStep = std::max({m_nGrowBy, m_nMaxSize / 2, INT_PTR{4}});
        return std::max(nNeeded, m_nMaxSize > MAX_SIZE - nStep ? MAX_SIZE : m_nMaxSize + nStep);
    }
    void SetSizeIfNeeded(INT_PTR nNewSize)
    {
        if (nNewSize != m_nSize)
        {
            SetSize(nNewSize);
        }
    }
    void OpenGap(INT_PTR nIndex, INT_PTR nCount)
    {
        auto const nOldSize = m_nSize;
        if (nCount > MAX_SIZE - std::max(nIndex, nOldSize))
        {
            AfxThrowMemoryException();
        }
        SetSize(std::max(nIndex, nOldSize) + nCount);
        if (nIndex < nOldSize)
        {
            std::move_backward(m_pData + nIndex, m_pData + nOldSize, m_pData + m_nSize);
        }
    }
    void Reallocate(INT_PTR nMaxSize)
    {
        if (nMaxSize > MAX_SIZE)
        {
            AfxThrowMemoryException();
        }
        auto * pData = static_cast<TYPE *>(AfxAllocate(static_cast<std::size_t>(nMaxSize) * sizeof(TYPE)));
        auto const nSize = m_nSize;
        if constexpr (std::is_nothrow_move_constructible_v<TYPE>)
        {
            std::uninitialized_move_n(m_pData, nSize, pData);
        }
        else
        {
            try
            {
                std::uninitialized_copy_n(m_pData, nSize, pData);
            }
            catch (...)
            {
                AfxFree(pData);
                throw;
            }
        }
        Release();
        m_pData = pData;
        m_nSize = nSize;
        m_nMaxSize = nMaxSize;
    }
    void Release() noexcept
    {
        if (!m_pData)
        {
            return;
        }
        std::destroy(m_pData, m_pData + m_nSize);
        AfxFree(m_pData);
    }
};

class KVX_API CObArray : public CArray<CObject *, CObject *>
{
    DECLARE_SERIAL(CObArray)
};

/// Has no form in an archive.
class KVX_API CPtrArray : public CArray<void *, void *>
{
    DECLARE_DYNAMIC(CPtrArray)
};

class KVX_API CStringArray : public CArray<CString, CString const &>
{
    DECLARE_SERIAL(CStringArray)
};

class KVX_API CByteArray : public CArray<BYTE, BYTE>
{
    DECLARE_SERIAL(CByteArray)
};

class KVX_API CWordArray : public CArray<WORD, WORD>
{
    DECLARE_SERIAL(CWordArray)
};

class KVX_API CDWordArray : public CArray<DWORD, DWORD>
{
    DECLARE_SERIAL(CDWordArray)
};
