#include "RegistryFixture.h"
#include "tests/support/OneHost.h"

#include <gmock/gmock.h>

namespace
{
std::string Bytes(CString const & text)
{
    return {reinterpret_cast<char const *>(text.GetString()), 2 * static_cast<std::size_t>(text.GetLength())};
}

TEST_F(Registry, KeysAreFoundWhateverTheirCase)
{
    DWORD dwDisposition = 0;
    HKEY hKey = nullptr;
    auto const create = [&](LPCWSTR pszPath)
    {
        RegCloseKey(Create(m_hKey, pszPath, 0, &dwDisposition));
        return dwDisposition;
    };
    EXPECT_EQ(create(_T("Beta\\\u00C4\u00DF\\c")), REG_CREATED_NEW_KEY);
    EXPECT_EQ(create(_T("bETA\\\u00E4\u00DF\\C\\")), REG_OPENED_EXISTING_KEY);
    EXPECT_EQ(create(_T("alpha/x")), REG_CREATED_NEW_KEY);
    EXPECT_EQ(create(_T("_")), REG_CREATED_NEW_KEY);
    EXPECT_EQ(create(_T("\xD800lone")), REG_CREATED_NEW_KEY);
    EXPECT_THAT(SubKeys(), testing::UnorderedElementsAre(_T("alpha/x"), _T("Beta"), _T("_"), _T("\xD800lone")));
    EXPECT_EQ(Open(_T("software\\TEST\\\\beta"), HKEY_LOCAL_MACHINE), 0);
    EXPECT_EQ(Open(_T("Beta\\none\\c")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Open(_T("\\Beta")), ERROR_BAD_PATHNAME);
    EXPECT_EQ(Open(_T("")), 0);

    // The two views, and the keys that others stand for.
    EXPECT_EQ(RegOpenKeyExW(m_hKey, _T("Beta"), 0, KEY_READ | KEY_WOW64_64KEY, &hKey), 0);
    RegCloseKey(hKey);
    if (!host::IsWine()) // opens one of the views (BothViewsAreOne, 2026-11-22)
    {
        EXPECT_EQ(RegOpenKeyExW(m_hKey, _T("Beta"), 0, KEY_READ | KEY_WOW64_64KEY | KEY_WOW64_32KEY, &hKey),
                  ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(SHSetValueW(HKEY_CLASSES_ROOT, _T(".kvx"), nullptr, REG_SZ, _T("x"), 4), 0);
    EXPECT_EQ(Open(_T("Software\\Classes\\.KVX"), HKEY_LOCAL_MACHINE), 0);
}

TEST_F(Registry, LimitsOfKeys)
{
    KVX_LINUX_ALONE("other limits, and what it refuses", "2026-11-22");
    CString const strLongest(_T('n'), 255);
    RegCloseKey(Create(m_hKey, strLongest));
    Create(m_hKey, strLongest + _T("n"), ERROR_INVALID_PARAMETER);
    CString strDeep(_T('d'), 510); // Software\Test\d...: 512 in all
    strDeep.Replace(_T("d"), _T("d\\"));
    RegCloseKey(Create(m_hKey, strDeep));
    Create(m_hKey, strDeep + _T("d"), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SHDeleteKeyW(m_hKey, _T("d")), 0);
    EXPECT_EQ(SubKeys(), Texts{strLongest});

    HKEY hKey = nullptr;
    EXPECT_EQ(RegCreateKeyExW(m_hKey, _T("v"), 0, nullptr, 1, KEY_ALL_ACCESS, nullptr, &hKey, nullptr),
              ERROR_NOT_SUPPORTED);
    EXPECT_EQ(RegCreateKeyExW(m_hKey, nullptr, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, nullptr),
              ERROR_INVALID_PARAMETER);
    WCHAR szName[255];
    DWORD nName = 255;
    EXPECT_EQ(RegEnumKeyExW(m_hKey, 0, szName, &nName, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
    EXPECT_EQ(RegEnumKeyExW(m_hKey, 1, szName, &nName, nullptr, nullptr, nullptr, nullptr), ERROR_NO_MORE_ITEMS);
}

TEST_F(Registry, DeletedKeysAreGone)
{
    HKEY const hDeep = Create(m_hKey, _T("a\\b\\c"));
    DWORD nSize = 0;
    EXPECT_EQ(RegSetValueExW(hDeep, _T("v"), 0, REG_SZ, nullptr, 0), 0);
    EXPECT_EQ(RegQueryValueExW(hDeep, _T("v"), nullptr, nullptr, nullptr, &nSize), 0);
    EXPECT_EQ(RegDeleteKeyW(m_hKey, _T("a")), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKeyW(m_hKey, _T("a\\x")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteKeyW(m_hKey, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SHDeleteKeyW(m_hKey, _T("A")), 0);
    EXPECT_EQ(SHDeleteKeyW(m_hKey, _T("A")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SubKeys(), Texts{});

    WCHAR szName[8];
    DWORD nName = 8;
    EXPECT_EQ(RegQueryValueExW(hDeep, _T("v"), nullptr, nullptr, nullptr, &nSize), ERROR_KEY_DELETED);
    EXPECT_EQ(RegSetValueExW(hDeep, _T("v"), 0, REG_SZ, nullptr, 0), ERROR_KEY_DELETED);
    EXPECT_EQ(RegDeleteValueW(hDeep, _T("v")), ERROR_KEY_DELETED);
    EXPECT_EQ(RegEnumKeyExW(hDeep, 0, szName, &nName, nullptr, nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
    EXPECT_EQ(Open(_T("x"), hDeep), ERROR_KEY_DELETED);
    EXPECT_EQ(RegCloseKey(hDeep), 0);
    EXPECT_EQ(RegCloseKey(hDeep), ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegQueryValueExW(hDeep, _T("v"), nullptr, nullptr, nullptr, &nSize), ERROR_INVALID_HANDLE);
    EXPECT_EQ(Open(_T("x"), reinterpret_cast<HKEY>(std::uintptr_t{12345})), ERROR_INVALID_HANDLE);

    HKEY const hSelf = Create(m_hKey, _T("self"));
    EXPECT_EQ(RegDeleteKeyW(hSelf, _T("")), 0);
    RegCloseKey(hSelf);
    RegCloseKey(Create(m_hKey, _T("a\\b")));
    EXPECT_EQ(Set(_T("v"), REG_SZ, "x"), 0);
    EXPECT_EQ(SHDeleteKeyW(m_hKey, _T("")), 0); // which is still there, and empty
    EXPECT_EQ(Open(_T("")), 0);
    EXPECT_TRUE(SubKeys().empty() && List(RegEnumValueW).empty());
}

TEST_F(Registry, ValuesOfAllTypesAndSizes)
{
    std::string const strLarge = []
    {
        std::string strData(3'000'000, '\0');
        for (std::size_t i = 0; i < strData.size(); ++i)
        {
            strData[i] = static_cast<char>(i * 7 >> 3);
        }
        return strData;
    }();
    std::string_view const contents[] = {"", "x", std::string_view("\0\0", 2), "odd", strLarge};
    for (DWORD dwType = 0; dwType < 14; ++dwType)
    {
        CString const strName = CString(_T("Value")) + static_cast<WCHAR>(_T('A') + dwType);
        for (std::string_view const data : contents)
        {
            EXPECT_EQ(Set(strName, dwType, data), 0);
            EXPECT_EQ(Get(strName), (std::pair<long, std::string>(dwType, data)));
        }
    }
    EXPECT_EQ(Set(nullptr, 0xFFFFFFFF, "default"), 0);
    EXPECT_EQ(Get(_T("")), (std::pair<long, std::string>(0xFFFFFFFF, "default")));

    CString strName(_T('n'), 16383);
    EXPECT_EQ(Set(strName, REG_SZ, "long"), 0);
    EXPECT_EQ(Get(strName).second, "long");
    strName += _T('n');
    EXPECT_EQ(Set(strName, REG_SZ, "long"), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegSetValueExW(m_hKey, _T("n"), 0, REG_SZ, nullptr, 1), ERROR_NOACCESS);

    DWORD nNames = 0, nLongestName = 0, nLongest = 0, nKeys = 9, nLongestKey = 9;
    EXPECT_EQ(RegQueryInfoKeyW(m_hKey, nullptr, nullptr, nullptr, &nKeys, &nLongestKey, nullptr, &nNames, &nLongestName,
                               &nLongest, nullptr, nullptr),
              0);
    EXPECT_EQ((std::vector{nKeys, nLongestKey, nNames, nLongestName, nLongest}),
              (std::vector<DWORD>{0, 0, 16, 16383, 3'000'000}));
}

TEST_F(Registry, QueriesTellWhatTheyNeed)
{
    EXPECT_EQ(Set(_T("Text"), REG_SZ, Bytes(_T("abc"))), 0);
    BYTE buffer[16] = {};
    DWORD nSize = 5;
    DWORD dwType = 0;
    EXPECT_EQ(RegQueryValueExW(m_hKey, _T("TEXT"), nullptr, &dwType, buffer, &nSize), ERROR_MORE_DATA);
    EXPECT_EQ(nSize, 6u);
    EXPECT_EQ(dwType, REG_SZ);
    EXPECT_EQ(RegQueryValueExW(m_hKey, _T("Text"), nullptr, nullptr, buffer, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegQueryValueExW(m_hKey, _T("None"), nullptr, &dwType, nullptr, nullptr), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Set(_T("none"), REG_NONE, "n"), 0); // the absence was kept in mind as well
    EXPECT_EQ(Get(_T("None")).second, "n");
    EXPECT_EQ(RegDeleteValueW(m_hKey, _T("NONE")), 0);
    EXPECT_EQ(RegDeleteValueW(m_hKey, _T("NONE")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Get(_T("None")).first, -ERROR_FILE_NOT_FOUND);

    // With ends and variables.
    host::SetVariable("KVX_TEST_NAME", "value");
    auto const query = [&](LPCTSTR text, DWORD dwStored)
    {
        EXPECT_EQ(Set(_T("E"), dwStored, Bytes(text)), 0);
        WCHAR szText[64] = {};
        DWORD nBytes = sizeof szText;
        EXPECT_EQ(SHQueryValueExW(m_hKey, _T("E"), nullptr, &dwType, szText, &nBytes), 0);
        CString const strText = szText;
        // Wine's SHQueryValueExW tells other sizes than that of the text (SizesOfTexts, 2026-11-22).
        EXPECT_TRUE(host::IsWine() || static_cast<int>(nBytes) == 2 * strText.GetLength() + 2);
        return strText;
    };
    EXPECT_EQ(query(_T("abc"), REG_SZ), _T("abc"));
    EXPECT_EQ(query(_T("100%"), REG_EXPAND_SZ), _T("100%"));
    EXPECT_EQ(query(_T("a%KVX_TEST_NAME%b%KVX_NO%c%KVX_TEST_NAME%"), REG_EXPAND_SZ), _T("avalueb%KVX_NO%cvalue"));
    EXPECT_EQ(dwType, REG_SZ);

    // A handle is good for what it was opened for.
    HKEY hReader = nullptr;
    HKEY hWriter = nullptr;
    EXPECT_EQ(RegOpenKeyExW(m_hKey, nullptr, 0, KEY_READ, &hReader), 0);
    EXPECT_EQ(RegOpenKeyExW(m_hKey, nullptr, 0, KEY_SET_VALUE, &hWriter), 0);
    EXPECT_EQ(RegSetValueExW(hReader, _T("x"), 0, REG_SZ, nullptr, 0), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegQueryValueExW(hWriter, _T("Text"), nullptr, nullptr, nullptr, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegSetValueExW(hWriter, _T("Text"), 0, REG_SZ, nullptr, 0), 0);
    nSize = 16;
    EXPECT_EQ(RegQueryValueExW(hReader, _T("Text"), nullptr, nullptr, buffer, &nSize), 0);
    EXPECT_EQ(nSize, 0u);
    RegCloseKey(hReader);
    RegCloseKey(hWriter);
}

TEST_F(Registry, EnumeratesInOrder)
{
    KVX_LINUX_ALONE("there is an order of values", "2026-11-22");
    Texts expected;
    for (int i = 0; i < 1500; ++i) // more than is read at once
    {
        expected.push_back(_T("v") + kvx::FromUtf8(std::to_string(5000 - i)));
        ASSERT_EQ(Set(expected.back(), REG_DWORD, std::string_view(reinterpret_cast<char *>(&i), 4)), 0);
    }
    EXPECT_EQ(Set(_T("V4990"), REG_BINARY, std::string(5000, 'x')), 0); // keeps its place and its name
    EXPECT_EQ(List(RegEnumValueW), expected);

    WCHAR szName[16];
    DWORD nName = 16, dwType = 0, nSize = 4;
    std::string strData(5000, '\0');
    auto const at = [&](DWORD i, DWORD nRoom)
    {
        nName = 16;
        nSize = nRoom;
        return RegEnumValueW(m_hKey, i, szName, &nName, nullptr, &dwType, reinterpret_cast<BYTE *>(strData.data()),
                             &nSize);
    };
    EXPECT_EQ(at(10, 4), ERROR_MORE_DATA);
    EXPECT_EQ(nSize, 5000u);
    EXPECT_EQ(at(10, 5000), 0);
    EXPECT_EQ(strData, std::string(5000, 'x'));
    EXPECT_EQ(at(1499, 4), 0);
    EXPECT_EQ(dwType, REG_DWORD);
    EXPECT_EQ(strData.substr(0, 4), std::string("\xDB\x05\0\0", 4));
    EXPECT_EQ(at(1500, 4), ERROR_NO_MORE_ITEMS);

    // Deleting the first one until there is none meets each.
    std::size_t nDeleted = 0;
    for (; at(0, 5000) == 0; ++nDeleted)
    {
        ASSERT_EQ(RegDeleteValueW(m_hKey, szName), 0);
    }
    EXPECT_EQ(nDeleted, expected.size());
}

TEST_F(Registry, ThreadsShareAHandle)
{
    std::atomic<int> nWrong{0};
    auto const write = [&](LPCWSTR pszName, DWORD nValue)
    { return RegSetValueExW(m_hKey, pszName, 0, REG_DWORD, reinterpret_cast<BYTE *>(&nValue), 4) == 0; };
    auto const read = [&](LPCWSTR pszName)
    {
        DWORD nRead = 0, nSize = 4;
        nWrong += RegQueryValueExW(m_hKey, pszName, nullptr, nullptr, reinterpret_cast<BYTE *>(&nRead), &nSize) != 0;
        return nRead;
    };
    ASSERT_TRUE(write(_T("shared"), 0));
    RunThreads(4,
               [&](std::size_t nThread)
               {
                   CString const strOwn(_T('o'), static_cast<int>(nThread) + 1);
                   DWORD nLast = 0;
                   for (DWORD i = 1; i <= 150; ++i)
                   {
                       nWrong += !write(strOwn, i) || read(strOwn) != i;
                       nWrong += nThread == 0 && !write(_T("shared"), i);
                       DWORD const nRead = read(_T("shared"));
                       nWrong += nRead < nLast;
                       nLast = nRead;
                       WCHAR szName[16];
                       DWORD nName = 16;
                       nWrong += RegEnumValueW(m_hKey, i % 2, szName, &nName, nullptr, nullptr, nullptr, nullptr) != 0;
                   }
               });
    EXPECT_EQ(nWrong, 0);
}

TEST_F(Registry, ATerminatedWriterLeavesNoLock)
{
    for (int i = 0; i < 20; ++i)
    {
        std::atomic<int> nWrites{0};
        std::pair<HKEY, std::atomic<int> *> work{m_hKey, &nWrites};
        Handle const hThread = CreateThread(
            nullptr, 0,
            [](void * p) -> DWORD
            {
                auto const & [hKey, pWrites] = *static_cast<std::pair<HKEY, std::atomic<int> *> *>(p);
                for (;; ++*pWrites)
                {
                    RegSetValueExW(hKey, _T("t"), 0, REG_DWORD, reinterpret_cast<BYTE const *>("1234"), 4);
                }
            },
            &work, 0, nullptr);
        while (nWrites < i)
        {
            SwitchToThread();
        }
        EXPECT_TRUE(TerminateThread(hThread, 1));
        WaitForSingleObject(hThread, INFINITE);
        EXPECT_EQ(Set(_T("t"), REG_SZ, "x"), 0);
        EXPECT_EQ(Get(_T("t")).second, "x");
    }
}
} // namespace
