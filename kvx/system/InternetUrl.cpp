#include "kvx/system/InternetUrl.h"

#include <utility>

namespace
{
/// A part as the system takes and gives it.
struct Part
{
    unsigned int bit;
    DWORD nRoom; // characters, with the NUL
    CString CInternetUrl::*pMember;
    LPTSTR URL_COMPONENTSW::*pText;
    DWORD URL_COMPONENTSW::*pLength;
};
} // namespace

int CInternetUrl::Decode(CString const & url, unsigned int parts)
{
    static constexpr Part PARTS[] = {
        {SCHEME, 50, &CInternetUrl::m_strScheme, &URL_COMPONENTSW::lpszScheme, &URL_COMPONENTSW::dwSchemeLength},
        {HOST, 256, &CInternetUrl::m_strHost, &URL_COMPONENTSW::lpszHostName, &URL_COMPONENTSW::dwHostNameLength},
        {USER, 256, &CInternetUrl::m_strUser, &URL_COMPONENTSW::lpszUserName, &URL_COMPONENTSW::dwUserNameLength},
        {PASSWORD, 256, &CInternetUrl::m_strPassword, &URL_COMPONENTSW::lpszPassword,
         &URL_COMPONENTSW::dwPasswordLength},
        {PATH, 1024, &CInternetUrl::m_strPath, &URL_COMPONENTSW::lpszUrlPath, &URL_COMPONENTSW::dwUrlPathLength},
        {EXTRA, 4096, &CInternetUrl::m_strExtraInfo, &URL_COMPONENTSW::lpszExtraInfo,
         &URL_COMPONENTSW::dwExtraInfoLength},
    };
    URL_COMPONENTSW components{};
    components.dwStructSize = sizeof components;
    CString texts[std::size(PARTS)];
    for (std::size_t i = 0; i < std::size(PARTS); ++i)
    {
        if (parts & PARTS[i].bit)
        {
            components.*PARTS[i].pText = texts[i].GetBuffer(static_cast<int>(PARTS[i].nRoom));
            components.*PARTS[i].pLength = PARTS[i].nRoom;
        }
    }
    int const result = InternetCrackUrlW(url, 0, ICU_DECODE | ICU_ESCAPE, &components);
    for (std::size_t i = 0; i < std::size(PARTS) && result; ++i)
    {
        if (parts & PARTS[i].bit)
        {
            texts[i].ReleaseBuffer(static_cast<int>(components.*PARTS[i].pLength));
            this->*PARTS[i].pMember = texts[i];
        }
    }
    if (result && (parts & HOST))
    {
        m_nPort = components.nPort;
    }
    return result;
}

CString CInternetUrl::Encode() const
{
    constexpr DWORD ROOM = 12000; // characters
    if (m_nPort < 0 || m_nPort > 0xFFFF)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return CString();
    }
    URL_COMPONENTSW components{};
    components.dwStructSize = sizeof components;
    auto const give = [](CString const & text, LPTSTR & pointer, DWORD & length)
    {
        pointer = text.IsEmpty() ? nullptr : const_cast<LPTSTR>(text.GetString());
        length = static_cast<DWORD>(text.GetLength());
    };
    give(m_strScheme, components.lpszScheme, components.dwSchemeLength);
    give(m_strHost, components.lpszHostName, components.dwHostNameLength);
    give(m_strUser, components.lpszUserName, components.dwUserNameLength);
    give(m_strPassword, components.lpszPassword, components.dwPasswordLength);
    give(m_strPath, components.lpszUrlPath, components.dwUrlPathLength);
    give(m_strExtraInfo, components.lpszExtraInfo, components.dwExtraInfoLength);
    components.nPort = static_cast<INTERNET_PORT>(m_nPort);
    CString url;
    DWORD length = ROOM;
    bool const bMade = InternetCreateUrlW(&components, ICU_ESCAPE, url.GetBuffer(ROOM), &length);
    url.ReleaseBuffer(bMade ? static_cast<int>(length) : 0);
    return url;
}
