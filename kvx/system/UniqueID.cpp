#include "kvx/system/UniqueID.h"

#include "kvx/foundation/Utilities.h"

#include <array>
#include <bit>
#include <cstring>
#include <tuple>

namespace
{
using Bytes = std::array<BYTE, 16>;

constexpr int MSI_LENGTH = 32;

bool IsHexDigit(WCHAR c)
{
    return CUtilities::UnformatEscape(c) != 0 || c == '0';
}
} // namespace

int CUniqueID::Create()
{
    if (CoCreateGuid(&m_guid) != S_OK)
    {
        Invalidate();
        return 0;
    }
    return 1;
}

CUniqueID CUniqueID::CreateGuid()
{
    CUniqueID id;
    id.Create();
    return id;
}

int CUniqueID::IsEmpty() const
{
    return std::bit_cast<Bytes>(m_guid) == Bytes{};
}

CString CUniqueID::ToString(int upperCase, int braces) const
{
    CString text;
    RPC_WSTR plain = nullptr;
    GUID guid = m_guid;
    if (UuidToStringW(&guid, &plain) == RPC_S_OK)
    {
        struct Owner
        {
            RPC_WSTR * pText;
            ~Owner() { RpcStringFreeW(pText); }
        } const owner{&plain};
        text = reinterpret_cast<LPCTSTR>(plain);
    }
    if (braces)
    {
        text = _T("{") + text + _T("}");
    }
    if (upperCase)
    {
        text.MakeUpper();
    }
    return text;
}

void CUniqueID::FromString(CString const & text)
{
    CString plain = text;
    plain.TrimLeft('{').TrimRight('}');
    // A NUL within would end it for the system.
    GUID read{};
    bool const bRead =
        plain.Find(WCHAR(0)) < 0 &&
        UuidFromStringW(reinterpret_cast<RPC_WSTR>(const_cast<LPTSTR>(plain.GetString())), &read) == RPC_S_OK;
    m_guid = bRead ? read : GUID{};
}

CString CUniqueID::ToMSIComponentID() const
{
    CString text;
    for (BYTE const byte : std::bit_cast<Bytes>(m_guid))
    {
        text.AppendFormat(_T("%X%X"), byte & 15, byte >> 4);
    }
    return text;
}

int CUniqueID::FromMSIComponentID(CString const & text)
{
    if (text.GetLength() != MSI_LENGTH || !std::ranges::all_of(text.AsView(), IsHexDigit))
    {
        return 0;
    }
    Bytes bytes{};
    int at = 0;
    for (BYTE & byte : bytes)
    {
        byte = static_cast<BYTE>(CUtilities::UnformatEscape(text[at]) | CUtilities::UnformatEscape(text[at + 1]) << 4);
        at += 2;
    }
    m_guid = std::bit_cast<GUID>(bytes);
    return 1;
}

int CUniqueID::Compare(CUniqueID const & other) const
{
    auto const words = [](GUID const & guid) { return std::make_tuple(guid.Data1, guid.Data2, guid.Data3); };
    if (auto const order = words(m_guid) <=> words(other.m_guid); order != 0)
    {
        return order < 0 ? -1 : 1;
    }
    int const order = std::memcmp(m_guid.Data4, other.m_guid.Data4, sizeof m_guid.Data4);
    return order < 0 ? -1 : order > 0;
}

void CUniqueID::Serialize(CArchive & archive)
{
    if (archive.IsStoring())
    {
        archive.Write(&m_guid, sizeof m_guid);
    }
    else
    {
        GUID read{};
        archive.EnsureRead(&read, sizeof read);
        m_guid = read;
    }
}
