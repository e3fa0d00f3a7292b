#include "kvx/foundation/Utilities.h"

#include "tests/support/OneHost.h"
#include "tests/support/PrivateHome.h"
#include "tests/support/RegistryStore.h"

#include <gtest/gtest.h>

namespace
{
std::string Expand(LPCTSTR path, CUtilities::ExpandPathOption option = CUtilities::expandDefault)
{
    return kvx::ToUtf8(CUtilities::ExpandPath(path, option));
}

void SetText(HKEY root, LPCTSTR key, LPCTSTR name, CString const & text)
{
    ASSERT_EQ(SHSetValueW(root, key, name, REG_SZ, text.GetString(), static_cast<DWORD>(text.GetLength() + 1) * 2), 0);
}

std::string Join(CStringList const & list)
{
    std::string text;
    for (POSITION position = list.GetHeadPosition(); position;)
    {
        text += kvx::ToUtf8(list.GetNext(position)) + "|";
    }
    return text;
}

constexpr LPCTSTR CURRENT_VERSION = _T("SOFTWARE\\Microsoft\\Windows\\CurrentVersion");

TEST(Expand, TokensAtTheStartThenVariables)
{
    host::SetVariable("KVX_HERE", "Q:\\Here");
    struct Case
    {
        LPCTSTR path;
        char const * result;
    };
    for (Case const & it :
         {Case{_T("C:\\Temp\\"), "c:\\temp\\"}, Case{_T("C:\\Temp"), "c:\\temp"},
          Case{_T("%WINDOWS%\\x\\"), "c:\\windows\\x\\"}, Case{_T("%SYSTEM%\\x"), "c:\\windows\\syswow64\\x"},
          Case{_T("abc%system%"), "abc%system%"}, Case{_T("%nosuchvar%\\%kvx_here%"), "%nosuchvar%\\q:\\here"},
          Case{_T("%internet%"), "%internet%"}, Case{_T("%system64%%windows%"), "c:\\windows\\system32%windows%"},
          Case{_T("\\\\?\\c:\\x"), "\\c:\\x"}, Case{_T("\\??\\C:\\x"), "c:\\x"},
          Case{_T("\\\\?\\GlobalRoot\\SystemRoot\\x"), "c:\\windows\\x"},
          Case{_T("System32\\drivers"), "c:\\windows\\system32\\drivers"},
          Case{_T("SysWOW64\\x"), "c:\\windows\\syswow64\\x"},
          Case{_T("%programfilescommon64%"), "c:\\program files\\common files"}, Case{_T(""), ""}, Case{nullptr, ""}})
    {
        EXPECT_EQ(Expand(it.path), it.result);
    }
    CString const endless = CString(_T("%")) + CString(_T('a'), 100000) + _T("%kvx_here%\\");
    EXPECT_EQ(CUtilities::ExpandPath(endless, CUtilities::expandDefault), endless);
}

TEST(Expand, ViewsOfA64BitSystem)
{
    KVX_LINUX_ALONE("the folders of Windows itself aren't a test's to set", "2026-11-22");
    EXPECT_EQ(Expand(_T("%programfiles%\\x"), CUtilities::expand64Bit), "c:\\program files (x86)\\x"); // no value yet
    SetText(HKEY_LOCAL_MACHINE, CURRENT_VERSION, _T("ProgramFilesDir"), _T("D:\\Programs\\"));
    SetText(HKEY_LOCAL_MACHINE, CURRENT_VERSION, _T("CommonFilesDir"), _T("D:\\Common"));
    EXPECT_EQ(Expand(_T("%programfiles%\\x")), "c:\\program files (x86)\\x");
    EXPECT_EQ(Expand(_T("%ProgramFiles64%\\x")), "d:\\programs\\x");
    EXPECT_EQ(Expand(_T("%programfiles%\\x"), CUtilities::expand32Bit), "d:\\programs\\x");
    EXPECT_EQ(Expand(_T("%programfilescommon%"), CUtilities::expand64Bit), "d:\\common");
    EXPECT_EQ(Expand(_T("%commonprogramfiles%")), "c:\\program files\\common files");
    EXPECT_EQ(Expand(_T("%commonprogramfiles%"), CUtilities::expand64Bit), "d:\\common");
    EXPECT_EQ(Expand(_T("%system%\\a"), CUtilities::expand64Bit), "c:\\windows\\system32\\a");
    EXPECT_EQ(Expand(_T("%system64%"), CUtilities::expand32Bit), "c:\\windows\\syswow64");
    EXPECT_EQ(Expand(_T("c:\\windows\\system32x"), CUtilities::expand32Bit), "c:\\windows\\system32x");
    EXPECT_EQ(Expand(_T("D:\\Programs\\a"), CUtilities::expandMoved), "c:\\program files (x86)\\a");
    EXPECT_EQ(Expand(_T("%programfiles64%\\a"), CUtilities::expandMoved), "c:\\program files\\a");
    PrivateHome::Put("c/Windows/SysWOW64/only32");
    PrivateHome::Put("c/Windows/System32/both");
    EXPECT_EQ(Expand(_T("%system%\\only32"), CUtilities::expandExisting), "c:\\windows\\syswow64\\only32");
    EXPECT_EQ(Expand(_T("%system%\\both"), CUtilities::expandExisting), "c:\\windows\\system32\\both");
    EXPECT_EQ(Expand(_T("%system%\\none"), CUtilities::expandExisting), "c:\\windows\\syswow64\\none");
}

TEST(Expand, UserFoldersAreThoseOfTheDesktop)
{
    KVX_LINUX_ALONE("the desktop is that of XDG", "2026-11-22");
    std::string const home = PrivateHome::Host("home");
    auto const special = [](int id) { return kvx::ToUtf8(CUtilities::GetSpecialDirectory(id, 0)); };
    std::string shaped = "Z:" + home;
    std::ranges::replace(shaped, '/', '\\');
    EXPECT_EQ(special(5), shaped + "\\Documents\\");
    PrivateHome::Put("home/.config/user-dirs.dirs",
                     "# XDG_DOCUMENTS_DIR=\"$HOME/no\"\nXDG_DOCUMENTS_DIR=\"$HOME/Meine \\\"Texte\\\"/\"\n"
                     "XDG_MUSIC_DIR=\"/music\"\nXDG_VIDEOS_DIR=relative\nXDG_DESKTOP_DIR=\"$HOME\"\n");
    EXPECT_EQ(special(5), shaped + "\\Meine \"Texte\"\\");
    EXPECT_EQ(special(13), "Z:\\music\\");
    EXPECT_EQ(special(14), shaped + "\\Videos\\");
    EXPECT_EQ(special(0), shaped + "\\");
    EXPECT_EQ(special(26), shaped + "\\.config\\");
    EXPECT_EQ(special(7), shaped + "\\.config\\autostart\\");
    EXPECT_EQ(special(35), "C:\\ProgramData\\");
    EXPECT_TRUE(CUtilities::DirectoryExists(CUtilities::GetSpecialDirectory(59, 0)));
    for (int const id : {1, 3, 4, 10, 17, 18, 49, 12, 60, -1, 0x8005})
    {
        EXPECT_EQ(special(id), "");
    }
    host::SetVariable("XDG_CACHE_HOME", ("/" + std::string(300, 'x')).c_str());
    WCHAR buffer[MAX_PATH] = {};
    EXPECT_LT(CUtilities::GetSpecialDirectory(nullptr, 32, nullptr, 0, buffer), 0);
    host::SetVariable("XDG_CACHE_HOME", nullptr);
    EXPECT_TRUE(CUtilities::ISProtectedDirectory(_T("c:\\WINDOWS\\\\")));
    EXPECT_FALSE(CUtilities::ISProtectedDirectory(_T("c:\\windows\\x")) || CUtilities::ISProtectedDirectory(_T("")));
}

TEST(Expand, PathsOfUsersAndDrives)
{
    KVX_LINUX_ALONE("the list of users isn't a test's to change on Windows", "2026-11-22");
    CStringList users;
    CStringList out;
    auto const expand = [&](LPCTSTR path)
    {
        out.RemoveAll();
        int const count = CUtilities::ExpandPaths(path, users, out);
        return std::to_string(count) + ": " + Join(out);
    };
    EXPECT_EQ(expand(nullptr), "0: ");
    EXPECT_EQ(expand(_T("\\Data\\x")), "2: C:\\Data\\x|Z:\\Data\\x|");
    EXPECT_EQ(expand(_T("D:\\Plain")), "0: D:\\Plain|");
    EXPECT_EQ(expand(_T("%downloadedprogramfiles%\\x")), "0: C:\\Windows\\downloaded program files\\x|");
    EXPECT_EQ(expand(_T("%Windows%\\x")), "1: c:\\windows\\x|");
    EXPECT_EQ(expand(_T("%AppData%\\x")), "0: ");
    EXPECT_TRUE(CUtilities::IsUserProfileDirectoryTemplate(_T("a %AppData%")));
    EXPECT_FALSE(CUtilities::IsUserProfileDirectoryTemplate(_T("%windows%")));

    for (CString const sid : {_T("S-1-1"), _T("S-1-2")})
    {
        CString const key = sid + _T("\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders");
        SetText(HKEY_USERS, key, _T("appdata"), _T("C:\\U\\") + sid + _T("\\App\\"));
        SetText(HKEY_USERS, key, _T("cache"), _T("c:\\cache"));
        SetText(HKEY_USERS, sid + _T("\\Environment"), _T("TEMP"), _T("%USERPROFILE%\\tmp"));
        SetText(HKEY_LOCAL_MACHINE, _T("SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\") + sid,
                _T("ProfileImagePath"), _T("%SystemDrive%\\u\\") + sid);
        users.AddTail(sid);
    }
    users.AddTail(_T("S-none"));
    EXPECT_EQ(expand(_T("%APPDATA%\\X")), "2: C:\\U\\S-1-2\\App\\x|C:\\U\\S-1-1\\App\\x|");
    PrivateHome::Put("c/cache/a/b/file");
    EXPECT_EQ(expand(_T("%internetcache%\\*")),
              "4: c:\\cache\\a\\b\\*|c:\\cache\\a\\*|c:\\cache\\a\\b\\*|c:\\cache\\a\\*|");
    PrivateHome::Put("c/u/S-1-1/tmp/sub/file");
    EXPECT_EQ(expand(_T("%temp%\\y")), "3: C:\\u\\S-1-1\\tmp\\sub\\y|C:\\u\\S-1-1\\tmp\\y|C:\\u\\S-1-2\\tmp\\y|");
    EXPECT_EQ(kvx::ToUtf8(CUtilities::BuildUserPathFromSID(_T("z"), _T("S-1-1"), _T("appdata"))),
              "C:\\U\\S-1-1\\App\\z");
    EXPECT_TRUE(CUtilities::DirectoryExists(_T("c:\\u\\s-1-1\\app")));

    CString name;
    CUtilities::GetServerActivatedEventName(name, nullptr);
    EXPECT_EQ(kvx::ToUtf8(name), "Global\\activated_bxserver");
}

TEST(CommandLine, SplitsByWhatIsThere)
{
    PrivateHome::Put("c/Program Files/My App/run me.exe");
    PrivateHome::Put("bin/pad.exe");
    PrivateHome::Put("bin/tool");
    std::filesystem::permissions(PrivateHome::Host("bin/tool"), std::filesystem::perms::owner_all);
    auto const split = [](CString const & line)
    {
        CString program;
        CString arguments;
        int const result = CUtilities::SplitCommandLine(line, program, arguments);
        return std::to_string(result) + "|" + kvx::ToUtf8(program) + "|" + kvx::ToUtf8(arguments);
    };
    std::string const app = "c:\\program files\\my app\\run me.exe";
    EXPECT_EQ(split(_T(" \\??\\C:\\Program Files\\My App\\Run Me.exe -X  y ")), "1|" + app + "|-x  y");
    EXPECT_EQ(split(_T("c:\\program files\\my app\\run me /q")), "1|" + app + "|/q");
    EXPECT_EQ(split(_T("\"c:\\program files\\my app\\run me.exe\" 'a b'")), "1|" + app + "|'a b'");
    EXPECT_EQ(split(_T("\"c:\\program files\\my app\\run me.exe /x\" /y")), "1|" + app + "|/x /y");
    EXPECT_EQ(split(_T("%SystemDrive%\\program files\\my app\\run me.exe %none% 5%")), "1|" + app + "|%none% 5%");
    EXPECT_TRUE(split(_T("pad file.txt")).ends_with("\\bin\\pad.exe|file.txt"));
    EXPECT_NE(split(_T("tool -l")).ends_with("\\bin\\tool|-l"), host::IsWindows()); // no program there (2026-11-22)
    EXPECT_EQ(split(_T("c:\\program files\\no app\\x.exe y.com z")), "1|c:\\program files\\no app\\x.exe|y.com z");
    EXPECT_EQ(split(_T("q:\\no folder\\x.exe /z")), "1|q:\\no folder\\x.exe /z|");
    EXPECT_EQ(split(_T("nowhere a b")), "1|nowhere|a b");
    EXPECT_EQ(split(_T("\"nowhere\" a b")), "0|nowhere|a b");
    EXPECT_EQ(split(CString()), "0||");
    EXPECT_EQ(split(CString(_T('%'), 300000) + CString(_T(' '), 300000)).substr(0, 4), "1|%%");

    CString text = _T("a.exe.b x.dll");
    CString extension;
    EXPECT_EQ(CUtilities::ContainsExecutableExt(text, extension), 9);
    EXPECT_EQ(kvx::ToUtf8(extension), ".dll");
}
} // namespace
