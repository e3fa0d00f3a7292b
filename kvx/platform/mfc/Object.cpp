#include "kvx/platform/mfc/Object.h"

#include "kvx/platform/mfc/Archive.h"
#include "kvx/platform/mfc/StaticLock.h"

#include <array>
#include <charconv>
#include <cstring>
#include <mutex>
#include <string_view>

namespace
{
// Both are needed before any constructor has run and after the last destructor, so neither may have one.
constinit CStaticLock g_classListLock;
constinit CRuntimeClass * g_pFirstClass = nullptr;

constexpr WORD CLASS_NAME_SIZE = 64;
} // namespace

constinit CRuntimeClass CObject::classCObject = {"CObject", static_cast<int>(sizeof(CObject)), 0xFFFF, nullptr, nullptr,
                                                 nullptr};

void * CObject::operator new(std::size_t nBytes, std::align_val_t nAlignment)
{
    if (void * p = ::operator new(nBytes, nAlignment, std::nothrow))
    {
        return p;
    }
    AfxThrowMemoryException();
}

CObject * CRuntimeClass::CreateObject() const
{
    return m_pfnCreateObject ? m_pfnCreateObject() : nullptr;
}

BOOL CRuntimeClass::IsDerivedFrom(CRuntimeClass const * pBaseClass) const
{
    for (auto const * pClass = this; pClass; pClass = pClass->m_pfnGetBaseClass ? pClass->m_pfnGetBaseClass() : nullptr)
    {
        if (pClass == pBaseClass)
        {
            return TRUE;
        }
    }
    return FALSE;
}

CRuntimeClass * CRuntimeClass::FromName(LPCSTR lpszClassName)
{
    if (!lpszClassName)
    {
        return nullptr;
    }
    std::scoped_lock lock(g_classListLock);
    for (auto * pClass = g_pFirstClass; pClass; pClass = pClass->m_pNextClass)
    {
        if (std::strcmp(pClass->m_lpszClassName, lpszClassName) == 0)
        {
            return pClass;
        }
    }
    return nullptr;
}

CObject * CRuntimeClass::CreateObject(LPCSTR lpszClassName)
{
    auto const * pClass = FromName(lpszClassName);
    return pClass ? pClass->CreateObject() : nullptr;
}

void CRuntimeClass::Store(CArchive & ar) const
{
    auto const nLength = static_cast<WORD>(std::strlen(m_lpszClassName));
    ar << static_cast<WORD>(m_wSchema) << nLength;
    ar.Write(m_lpszClassName, nLength);
}

CRuntimeClass * CRuntimeClass::Load(CArchive & ar, UINT * pwSchemaNum)
{
    WORD nSchema;
    WORD nLength;
    ar >> nSchema >> nLength;
    *pwSchemaNum = nSchema;
    if (nLength >= CLASS_NAME_SIZE)
    {
        return nullptr;
    }
    std::array<char, CLASS_NAME_SIZE> name;
    ar.EnsureRead(name.data(), nLength);
    name[nLength] = '\0';
    return FromName(name.data());
}

AFX_CLASSINIT::AFX_CLASSINIT(CRuntimeClass * pNewClass) : m_pClass(pNewClass)
{
    std::scoped_lock lock(g_classListLock);
    m_pClass->m_pNextClass = g_pFirstClass;
    g_pFirstClass = m_pClass;
}

AFX_CLASSINIT::~AFX_CLASSINIT()
{
    std::scoped_lock lock(g_classListLock);
    for (auto ** ppClass = &g_pFirstClass; *ppClass; ppClass = &(*ppClass)->m_pNextClass)
    {
        if (*ppClass == m_pClass)
        {
            *ppClass = m_pClass->m_pNextClass;
            return;
        }
    }
}

CDumpContext::CDumpContext(LPTSTR pszTarget, std::size_t nMaximum)
    : m_pszTarget(pszTarget), m_nLeft(nMaximum ? nMaximum - 1 : 0)
{
    if (nMaximum)
    {
        *m_pszTarget = 0;
    }
}

CDumpContext & CDumpContext::operator<<(LPCTSTR lpsz)
{
    if (!lpsz)
    {
        lpsz = _T("(null)");
    }
    if (!m_pszTarget)
    {
        OutputDebugStringW(lpsz);
        return *this;
    }
    if (m_nLeft == 0)
    {
        return *this;
    }
    for (; *lpsz && m_nLeft; --m_nLeft)
    {
        *m_pszTarget++ = *lpsz++;
    }
    *m_pszTarget = 0;
    return *this;
}

CDumpContext & CDumpContext::operator<<(LPCSTR lpsz)
{
    std::string_view rest = lpsz ? lpsz : "(null)";
    while (!rest.empty())
    {
        std::array<WCHAR, 64> piece;
        auto const part = rest.substr(0, piece.size() - 1);
        for (std::size_t i = 0; i < part.size(); ++i)
        {
            piece[i] = static_cast<unsigned char>(part[i]);
        }
        piece[part.size()] = 0;
        *this << piece.data();
        rest.remove_prefix(part.size());
    }
    return *this;
}

CDumpContext & CDumpContext::operator<<(LONGLONG nValue)
{
    std::array<char, 24> digits{};
    std::to_chars(digits.data(), digits.data() + digits.size() - 1, nValue);
    return *this << digits.data();
}

CDumpContext & CDumpContext::operator<<(void const * pAddress)
{
    std::array<char, 24> digits{'$'};
    std::to_chars(digits.data() + 1, digits.data() + digits.size() - 1, reinterpret_cast<UINT_PTR>(pAddress), 16);
    return *this << digits.data();
}

CRuntimeClass * CObject::GetRuntimeClass() const
{
    return &classCObject;
}

void CObject::Serialize(CArchive &) {}

void CObject::AssertValid() const {}

void CObject::Dump(CDumpContext & dc) const
{
    dc << "a " << GetRuntimeClass()->m_lpszClassName << " at " << static_cast<void const *>(this) << "\n";
}

CObject * AfxReadObject(CArchive & ar, CRuntimeClass const * pClass)
{
    return ar.ReadObject(pClass);
}

CObject * AfxDynamicDownCast(CRuntimeClass const * pClass, CObject * pObject)
{
    return pObject && pObject->IsKindOf(pClass) ? pObject : nullptr;
}
