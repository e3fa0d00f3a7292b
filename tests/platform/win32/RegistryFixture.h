#pragma once

#include "Handle.h"
#include "tests/support/OneHost.h"
#include "tests/support/RegistryStore.h"
#include "tests/support/RunThreads.h"
#include "tests/support/TestFolder.h"

#include <atomic>

using Texts = std::vector<CString>;

/// A key for each test, gone at its end.
class Registry : public testing::Test
{
protected:
    HKEY m_hKey = Create(HKEY_LOCAL_MACHINE, _T("Software\\Test"));

    ~Registry() override
    {
        SHDeleteKeyW(HKEY_LOCAL_MACHINE, _T("Software\\Test"));
        RegCloseKey(m_hKey);
    }

    static HKEY Create(HKEY hParent, LPCWSTR pszPath, LONG nExpected = 0, DWORD * pDisposition = nullptr)
    {
        HKEY hKey = nullptr;
        EXPECT_EQ(RegCreateKeyExW(hParent, pszPath, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, pDisposition),
                  nExpected);
        return hKey;
    }
    LONG Open(LPCWSTR pszPath, HKEY hParent = nullptr) const
    {
        HKEY hKey = nullptr;
        LONG const nError = RegOpenKeyExW(hParent ? hParent : m_hKey, pszPath, 0, KEY_READ, &hKey);
        EXPECT_EQ(nError == 0, hKey != nullptr);
        RegCloseKey(hKey);
        return nError;
    }
    LONG Set(LPCWSTR pszName, DWORD dwType, std::string_view data) const
    {
        // A NUL behind a text would be stored too under Windows, though it isn't counted.
        std::string const strData = std::string(data) + "##";
        return RegSetValueExW(m_hKey, pszName, 0, dwType, reinterpret_cast<BYTE const *>(strData.data()),
                              static_cast<DWORD>(data.size()));
    }
    /// Type and data, or the code.
    std::pair<long, std::string> Get(LPCWSTR pszName) const
    {
        DWORD dwType = 0;
        DWORD nSize = 0;
        LONG nError = RegQueryValueExW(m_hKey, pszName, nullptr, &dwType, nullptr, &nSize);
        std::string strData(nSize + 4, '#');
        DWORD nRoom = nSize;
        if (nError == 0)
        {
            nError =
                RegQueryValueExW(m_hKey, pszName, nullptr, &dwType, reinterpret_cast<BYTE *>(strData.data()), &nRoom);
        }
        if (nError != 0)
        {
            return {-nError, ""};
        }
        // Wine puts a NUL behind the text where there is room for a part of it (TinyBuffersOverflow, 2026-11-22).
        EXPECT_TRUE(host::IsWine() || strData.substr(nSize) == "####");
        return {dwType, strData.substr(0, nRoom)};
    }
    /// What RegEnumKeyExW or RegEnumValueW tells.
    template <class ENUM>
    Texts List(ENUM enumerate) const
    {
        Texts names;
        WCHAR szName[256];
        DWORD nName = 256;
        for (DWORD i = 0; enumerate(m_hKey, i, szName, &nName, nullptr, nullptr, nullptr, nullptr) == 0; ++i)
        {
            names.emplace_back(szName, static_cast<int>(std::exchange(nName, 256)));
        }
        return names;
    }
    Texts SubKeys() const { return List(RegEnumKeyExW); }
};
