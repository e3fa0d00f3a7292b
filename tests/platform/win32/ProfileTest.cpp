
#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"
#include "tests/support/RunThreads.h"
#include "tests/support/TestFolder.h"
#include "tests/support/Wide.h"

#include <algorithm>
#include <array>

namespace
{
namespace fs = std::filesystem;

class Profile : public TestFolder
{
protected:
    CString const m_strPath = Path(_T("a.ini"));

    Wide Read(LPCWSTR pszSection, LPCWSTR pszKey, LPCWSTR pszDefault = nullptr, DWORD nSize = 100) const
    {
        Wide strText(nSize + 1, _T('#'));
        DWORD const nLength =
            GetPrivateProfileStringW(pszSection, pszKey, pszDefault, strText.data(), nSize, m_strPath);
        EXPECT_EQ(strText[nSize], _T('#'));
        EXPECT_EQ(strText[nLength], _T('\0'));
        return strText.substr(0, nLength);
    }
    bool Write(LPCWSTR pszSection, LPCWSTR pszKey, LPCWSTR pszValue) const
    {
        return WritePrivateProfileStringW(pszSection, pszKey, pszValue, m_strPath) != FALSE;
    }
    std::string File() const { return Get("a.ini"); }
    void File(std::string const & strText) const { Put("a.ini", strText); }
};

constexpr char const * SAMPLE = "; head\n"
                                "stray=1\n"
                                "[ First ]\n"
                                "  Key One = some text \n"
                                "quoted=\" a \"\n"
                                "key one=second\n"
                                "no value here\n"
                                "=no key\n"
                                "\n"
                                "; about the second\n"
                                "[Second\n"
                                "[Second]x=y\n"
                                "n=0x1F rest\n"
                                "neg=-12\n"
                                "text=abc\n"
                                "empty=\n"
                                "[first]\n"
                                "late=1";

TEST_F(Profile, Reads)
{
    File(SAMPLE);
    EXPECT_EQ(Read(_T("FIRST"), _T("KEY ONE")), _T("some text"));
    EXPECT_EQ(Read(_T("First"), _T("quoted")), _T(" a "));
    EXPECT_EQ(Read(_T("First"), _T("stray"), _T("not there  ")), _T("not there"));
    DWORD const dwMissing = GetLastError();
    EXPECT_EQ(Read(_T("first"), _T("late"), _T("d")), _T("d")); // the first section of the name counts
    EXPECT_EQ(Read(_T("First"), _T("key one"), nullptr, 5), _T("some"));
    DWORD const dwShort = GetLastError();
    if (!host::IsWine()) // leaves the last error alone (ProfilesGiveNoErrors, 2026-11-22)
    {
        EXPECT_TRUE(dwMissing == ERROR_FILE_NOT_FOUND && dwShort == ERROR_MORE_DATA);
    }
    EXPECT_EQ(Read(nullptr, nullptr), Wide(_T("First\0Second\0first\0"), 19));
    EXPECT_EQ(Read(_T("second"), nullptr), Wide(_T("n\0neg\0text\0empty\0"), 17));
    EXPECT_EQ(Read(_T("second"), nullptr, nullptr, 6), Wide(_T("n\0ne"), 4));

    auto const number = [&](LPCWSTR pszKey) { return GetPrivateProfileIntW(_T("second"), pszKey, 7, m_strPath); };
    EXPECT_EQ(number(_T("n")), 31u);
    EXPECT_EQ(static_cast<int>(number(_T("neg"))), -12);
    EXPECT_EQ(number(_T("text")), 0u);
    EXPECT_EQ(number(_T("empty")), 7u);
    EXPECT_EQ(number(_T("none")), 7u);
    EXPECT_EQ(GetPrivateProfileIntW(_T("s"), _T("k"), 7, Path(_T("none\\b.ini"))), 7u);
}

TEST_F(Profile, WritesChangeTheirLinesAlone)
{
    KVX_LINUX_ALONE("other lines stay as they are", "2026-11-22");
    std::string strExpected = SAMPLE;
    auto const replace = [&](std::string const & strFrom, std::string const & strTo)
    { strExpected.replace(strExpected.find(strFrom), strFrom.size(), strTo); };
    File(SAMPLE);
    EXPECT_TRUE(Write(_T("first"), _T("KEY ONE"), _T("new")));
    replace("some text ", "new");
    EXPECT_TRUE(Write(_T("First"), _T("added"), _T("1")));
    replace("=no key\n\n; about the second\n[Second\n", "=no key\n\n; about the second\n[Second\nadded=1\n");
    EXPECT_TRUE(Write(_T("second"), _T("neg"), nullptr));
    replace("neg=-12\n", "");
    EXPECT_TRUE(Write(_T("Third"), _T("k"), _T("v")));
    strExpected += "\n[Third]\nk=v\n";
    EXPECT_TRUE(Write(_T("second"), _T("none"), nullptr));
    EXPECT_EQ(File(), strExpected);
    EXPECT_TRUE(Write(_T("second"), nullptr, nullptr));
    replace("[Second]x=y\nn=0x1F rest\ntext=abc\nempty=\n", "");
    EXPECT_EQ(File(), strExpected);

    EXPECT_TRUE(WritePrivateProfileStringW(_T("s"), _T("k"), _T("v"), Path(_T("new.ini"))));
    EXPECT_EQ(Get("new.ini"), "[s]\r\nk=v\r\n");
}

TEST_F(Profile, EncodingsStay)
{
    KVX_LINUX_ALONE("files may be UTF-8", "2026-11-22");
    auto const round =
        [&](std::string const & strBefore, std::string const & strAfter, LPCWSTR pszText, bool bGood = true)
    {
        File(strBefore);
        EXPECT_EQ(Write(_T("s"), _T("k"), pszText), bGood);
        EXPECT_EQ(File(), bGood ? strAfter : strBefore);
        EXPECT_TRUE(!bGood || Read(_T("s"), _T("k")) == pszText);
    };
    auto const wide = [](WideView text)
    { return "\xFF\xFE" + std::string(reinterpret_cast<char const *>(text.data()), 2 * text.size()); };
    round("\xEF\xBB\xBF[s]\r\nk=x", "\xEF\xBB\xBF[s]\r\nk=\xC3\xA4", _T("\u00E4"));
    round("[s]\r\nk=x", "[s]\r\nk=\xC3\xA4", _T("\u00E4"));
    round("[s]\r\nx=\xE4\nk=x", "[s]\r\nx=\xE4\nk=\xE4", _T("\u00E4"));
    round("[s]\r\nx=\xE4\nk=x", "", _T("\u6F22"), false);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_UNICODE_TRANSLATION});
    round("[s]\r\nk=\xE4", "[s]\r\nk=\xC3\x83\xC2\xA4", _T("\u00C3\u00A4")); // its last byte that was no UTF-8 goes
    round(wide(_T("[s]\r\n\u6F22=1\r\nk=x")), wide(_T("[s]\r\n\u6F22=1\r\nk=\u0A0D\xD800")), _T("\u0A0D\xD800"));
    round(wide(_T("[s]\nk=x")) + "\n", wide(_T("[s]\nk=y")), _T("y"));
    round("\xFE\xFF[s]", "", _T("x"), false);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BAD_FORMAT});
    // Bytes that are nothing at all stay as they are.
    round(std::string("\0\xFF[\x80\n[s]\n\xFF\0\xFF=\x81\r\rk=\nk=x\n", 24),
          std::string("\0\xFF[\x80\n[s]\n\xFF\0\xFF=\x81\r\rk=\nk=y\n", 24), _T("y"));
}

TEST_F(Profile, RefusesWhatCouldNotBeRead)
{
    KVX_LINUX_ALONE("it is refused", "2026-11-22");
    File(SAMPLE);
    for (auto const & [pszSection, pszKey, pszValue] :
         std::vector<std::array<LPCWSTR, 3>>{{_T("a]b"), _T("k"), _T("v")},
                                             {_T("s\n"), _T("k"), _T("v")},
                                             {_T("s"), _T("k=l"), _T("v")},
                                             {_T("s"), _T(" ;k"), _T("v")},
                                             {_T("s"), _T("[k"), _T("v")},
                                             {_T("s"), _T("  "), _T("v")},
                                             {_T("s"), _T("k"), _T("v\n[evil]")},
                                             {nullptr, _T("k"), _T("v")}})
    {
        EXPECT_TRUE(Fails(Write(pszSection, pszKey, pszValue), ERROR_INVALID_PARAMETER));
    }
    EXPECT_EQ(File(), SAMPLE);
    EXPECT_TRUE(
        Fails(WritePrivateProfileStringW(_T("s"), _T("k"), _T("v"), Path(_T("none\\a.ini"))), ERROR_PATH_NOT_FOUND));
    EXPECT_FALSE(WritePrivateProfileStringW(_T("s"), _T("k"), _T("v"), Path(_T(""))));
    std::filesystem::resize_file(Host("a.ini"), (64 << 20) + 1);
    EXPECT_TRUE(Fails(Write(_T("s"), _T("k"), _T("v")), ERROR_FILE_TOO_LARGE));
}

TEST_F(Profile, ReplacesAsAWhole)
{
    File("[s]\nk=0\n");
    // Windows has no such modes, and Wine no links (2026-11-22).
    bool const bLinks = !host::IsWindows();
    if (bLinks)
    {
        fs::permissions(Host("a.ini"), fs::perms{0640});
        fs::create_symlink(Host("a.ini"), Host("link.ini"));
    }
    RunThreads(3,
               [&](std::size_t nThread)
               {
                   for (std::size_t i = 1; i <= 20; ++i)
                   {
                       WritePrivateProfileStringW(_T("s"), Wide(3 * i + nThread, _T('x')).c_str(), _T("1"),
                                                  Path(nThread == 0 && bLinks ? _T("link.ini") : _T("a.ini")));
                       EXPECT_EQ(Read(_T("s"), _T("k")), _T("0"));
                   }
               });
    Wide const keys = Read(_T("s"), nullptr, nullptr, 10000);
    EXPECT_EQ(std::ranges::count(keys, 0), 61);
    EXPECT_EQ(std::distance(fs::directory_iterator(m_strHost), {}), bLinks ? 2 : 1);
    EXPECT_TRUE(!bLinks ||
                (fs::status(Host("a.ini")).permissions() == fs::perms{0640} && fs::is_symlink(Host("link.ini"))));
}
} // namespace
