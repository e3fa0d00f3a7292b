#pragma once

/// How collections compare, hash and archive their elements. An application specialises a function template
/// of these for a class of its own.

#include "kvx/platform/mfc/Archive.h"
#include "kvx/platform/mfc/StringKey.h"

#include <concepts>
#include <type_traits>

namespace kvx
{
/// Seeded anew in every process, since keys come from outside: not to be stored or sent.
KVX_API UINT HashText(WCHAR const * pText, std::size_t nLength) noexcept;
/// The same of the text's lower-case form.
KVX_API UINT HashLowerText(WCHAR const * pText, std::size_t nLength) noexcept;
KVX_API UINT HashInteger(ULONGLONG nValue) noexcept;

template <class T>
concept ArchivedObjectPointer = std::is_pointer_v<T> && std::convertible_to<T, CObject const *>;
} // namespace kvx

template <class TYPE, class ARG_TYPE>
BOOL CompareElements(TYPE const * pElement1, ARG_TYPE const * pElement2)
{
    return *pElement1 == *pElement2;
}

/// The maps mix what this gives once more: a specialisation need not spread its bits well.
template <class ARG_KEY>
UINT HashKey(ARG_KEY key)
{
    using Key = std::remove_cvref_t<ARG_KEY>;
    if constexpr (std::is_pointer_v<Key> && !std::is_same_v<Key, LPCTSTR> && !std::is_same_v<Key, LPTSTR>)
    {
        return kvx::HashInteger(reinterpret_cast<UINT_PTR>(key));
    }
    else if constexpr (std::is_integral_v<Key> || std::is_enum_v<Key>)
    {
        return kvx::HashInteger(static_cast<ULONGLONG>(key));
    }
    else
    {
        static_assert(std::convertible_to<Key const &, CStringKey>, "specialise HashKey for this type of key");
        auto const view = CStringKey(key).GetView();
        return kvx::HashText(view.data(), view.size());
    }
}

/// Objects, texts and plain data go to the archive as they are. Other elements, bare addresses among them,
/// raise CNotSupportedException unless the application specialises this.
template <class TYPE>
void SerializeElements(CArchive & ar, TYPE * pElements, INT_PTR nCount)
{
    if constexpr (kvx::ArchivedObjectPointer<TYPE>)
    {
        using Class = std::remove_cv_t<std::remove_pointer_t<TYPE>>;
        for (INT_PTR i = 0; i < nCount; ++i)
        {
            if (ar.IsStoring())
            {
                ar.WriteObject(pElements[i]);
            }
            else
            {
                pElements[i] = static_cast<Class *>(ar.ReadObject(RUNTIME_CLASS(Class)));
            }
        }
    }
    else if constexpr (std::is_base_of_v<CString, TYPE> || std::is_base_of_v<CStringA, TYPE>)
    {
        for (INT_PTR i = 0; i < nCount; ++i)
        {
            if (ar.IsStoring())
            {
                ar << pElements[i];
            }
            else
            {
                ar >> pElements[i];
            }
        }
    }
    else if constexpr (std::is_trivially_copyable_v<TYPE> && !std::is_pointer_v<TYPE>)
    {
        constexpr INT_PTR STEP = INT_PTR{0x40000000} / static_cast<INT_PTR>(sizeof(TYPE));
        for (INT_PTR i = 0; i < nCount; i += STEP)
        {
            auto const nBytes = static_cast<UINT>((nCount - i < STEP ? nCount - i : STEP) * sizeof(TYPE));
            if (ar.IsStoring())
            {
                ar.Write(pElements + i, nBytes);
            }
            else
            {
                ar.EnsureRead(pElements + i, nBytes);
            }
        }
    }
    else
    {
        AfxThrowNotSupportedException();
    }
}
