#include "kvx/system/ObFactory.h"
#include "kvx/system/WinModule.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"

#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"
#include "tests/support/Raised.h"
#include "tests/support/TestFolder.h"

#include <vector>

namespace
{
CString BesideProgram(LPCTSTR name)
{
    WCHAR path[1000];
    EXPECT_GT(GetModuleFileNameW(nullptr, path, 1000), 0u);
    CString folder = path;
    return folder.Left(folder.ReverseFind('\\') + 1) + name;
}

CString const FILE_NAME = kvx::FromUtf8(host::GetModuleFile("test_system_module"));

/// Files that are modules or none.
class ModuleFiles : public TestFolder
{
protected:
    CString Name(std::string const & name) const
    {
        return kvx::FromUtf8((std::filesystem::path(m_strHost) / name).string());
    }
    CString Write(std::string const & name, std::string const & bytes) const
    {
        Put(name, bytes);
        return Name(name);
    }
};

/// The last error of a load that fails.
DWORD LoadError(CString const & name)
{
    CWinModule module;
    EXPECT_FALSE(module.Load(name)) << kvx::ToUtf8(name);
    return GetLastError();
}
} // namespace

TEST(Module, NamesOfEveryShapeFindIt)
{
    CWinModule module;
    ASSERT_TRUE(module.Load(_T("test_system_module.dll"))) << GetLastError();
    HINSTANCE const handle = module.GetHandle();
    CString const windows = BesideProgram(FILE_NAME);
    std::vector<CString> names{_T("test_system_module"),
                               _T("TEST_System_Module.DLL"),
                               FILE_NAME,
                               windows,
                               BesideProgram(_T("test_system_module.dll")),
                               BesideProgram(_T("test_system_module"))};
    if (!host::IsWindows()) // names of the other host (2026-11-22)
    {
        CString const posix = kvx::FromUtf8(std::filesystem::path(host::GetProgram()).parent_path().string()) +
                              _T("/libtest_system_module");
        names.insert(names.end(), {posix + _T(".so"), posix});
    }
    for (CString const & name : names)
    {
        CWinModule again;
        EXPECT_TRUE(again.Load(name)) << kvx::ToUtf8(name);
        EXPECT_EQ(again.GetHandle(), handle);
        EXPECT_EQ(GetModuleHandleW(name), handle) << kvx::ToUtf8(name);
    }
    WCHAR path[1000];
    EXPECT_EQ(GetModuleFileNameW(handle, path, 1000), static_cast<DWORD>(windows.GetLength()));
    EXPECT_EQ(CString(path), windows);
    EXPECT_TRUE(Fails(GetModuleFileNameW(handle, path, 5), ERROR_INSUFFICIENT_BUFFER, 5));
    EXPECT_TRUE(path[4] == 0 || host::IsWine()); // Wine.CutModuleNamesHaveNoEnd (2026-11-22)

    FARPROC const add = module.GetProcAddress(_T("KVX_Add"));
    ASSERT_NE(add, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)(int, int)>(reinterpret_cast<void *>(add))(2, 3), 5);
    EXPECT_EQ(CUtilities::ModuleFromAddress(reinterpret_cast<void *>(add)), handle);
    module.Free();
    EXPECT_TRUE(Fails(FreeLibrary(handle), 126));
}

TEST(Module, IsGoneWithItsLastUse)
{
    CWinModule module(CString(_T("test_system_module")));
    FARPROC const work = module.GetProcAddress(_T("KVX_Work"));
    ASSERT_NE(work, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)()>(reinterpret_cast<void *>(work))(), 42);
    CWinModule second(BesideProgram(FILE_NAME));
    std::string const file = kvx::ToUtf8(FILE_NAME);
    EXPECT_TRUE(module.Free() && !module.Free() && host::IsMapped(file));
    second.Attach(nullptr);
    EXPECT_FALSE(host::IsMapped(file));
}

TEST_F(ModuleFiles, APathMeansThatFile)
{
    KVX_LINUX_ALONE("a dot in front of a name keeps this host's loader from its own search", "2026-11-22");
    std::filesystem::path const before = std::filesystem::current_path();
    std::filesystem::create_directories(Host("sub/dir.so"));
    std::filesystem::path const original =
        std::filesystem::path(host::GetProgram()).replace_filename(kvx::ToUtf8(FILE_NAME));
    for (char const * const copy : {"plug.so", "sub/plug.so", "libm.so.6"})
    {
        std::filesystem::copy_file(original, Host(copy));
    }
    std::filesystem::current_path(m_strHost);
    CWinModule other;
    ASSERT_TRUE(other.Load(_T("sub\\plug.so")));
    for (LPCTSTR const name : {_T(".\\plug.so"), _T("./plug.so"), _T("sub\\..\\PLUG.dll"), _T(".\\libm.so.6")})
    {
        CWinModule module;
        ASSERT_TRUE(module.Load(name)) << kvx::ToUtf8(name) << GetLastError();
        EXPECT_NE(module.GetProcAddress(_T("KVX_Work")), nullptr);
        EXPECT_NE(module.GetHandle(), other.GetHandle());
        EXPECT_EQ(GetModuleHandleW(name), module.GetHandle()) << kvx::ToUtf8(name);
    }
    for (LPCTSTR const name : {_T("."), _T(".."), _T("..."), _T("./"), _T("sub\\"), _T("sub/."), _T("sub"),
                               _T(".\\sub"), _T("sub/dir.so"), _T("sub/dir"), _T("/"), _T("C:")})
    {
        EXPECT_EQ(LoadError(name), 126u) << kvx::ToUtf8(name);
        EXPECT_EQ(GetModuleHandleW(name), nullptr) << kvx::ToUtf8(name);
    }
    std::filesystem::current_path(before);
}

TEST_F(ModuleFiles, FailuresAreToldApart)
{
    std::string head(64, 0); // of a true module, and nothing behind it
    std::ifstream(host::GetProgram(), std::ios::binary).read(head.data(), 64);
    Write(host::GetModuleFile("cut"), head.substr(0, 7));
    for (auto const & [name, code] :
         {std::pair<CString, DWORD>{_T("no_such_module"), 126},
          {Name("missing.dll"), 126},
          {Name("no/such/folder/x.so"), 126},
          {_T("\x4E16\x754C"), 126},
          {CString(_T('x'), 5000), 126},
          {_T(""), host::IsWine() ? 126 : 87}, // Wine.NoNameIsAMissingModule (2026-11-22)
          {Write("text.dll", "just a text, long enough to be read as the header of a file, and more"), 193},
          {Write("empty.so", ""), 193},
          {Name("cut"), 193},
          {Write("head.so", head), 193}})
    {
        EXPECT_EQ(LoadError(name), code) << kvx::ToUtf8(name);
    }
    if (!host::IsWindows()) // flags that no caller needs (2026-11-22)
    {
        EXPECT_TRUE(Fails(LoadLibraryExW(_T("test_system_module"), nullptr, 2), 87));
    }

    EXPECT_EQ(CauseOf([&] { CWinModule const module(Name("missing.dll")); }), CFileException::fileNotFound);

    CWinModule module(CString(_T("test_system_module")));
    for (LPCTSTR const name : {_T("KVX_add"), _T(""), _T("malloc"), _T("KVX_Add ")})
    {
        EXPECT_TRUE(Fails(module.GetProcAddress(name), 127));
    }
    CWinModule const none;
    EXPECT_EQ(none.GetProcAddress(_T("KVX_Add")), nullptr);
    EXPECT_EQ(GetModuleHandleW(_T("no_such_module")), nullptr);
    WCHAR path[10];
    EXPECT_TRUE(Fails(GetModuleFileNameW(reinterpret_cast<HMODULE>(8), path, 10), 126));
}

TEST(Module, Resources)
{
    CWinModule module(CString(_T("test_system_module")));
    DWORD size = 0;
    auto const * const bytes = static_cast<char const *>(module.LockResource(size, _T("GREETING"), _T("text")));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::string(bytes, size), "Hello from a resource.\n");
    CStringA text;
    EXPECT_TRUE(CUtilities::LoadResource(text, _T("greeting"), _T("DATA"), module.GetHandle()));
    EXPECT_EQ(text, "Hello from a resource.\n");
    HMODULE const handle = module.GetHandle();
    CString wide;
    EXPECT_TRUE(CUtilities::LoadResource(wide, _T("greeting"), _T("DATA"), handle));
    EXPECT_EQ(wide.GetLength(), text.GetLength() / 2);
    EXPECT_TRUE(Fails(FindResourceW(handle, _T("x"), _T("TEXT")), 1814));
    EXPECT_TRUE(Fails(FindResourceW(handle, _T("greeting"), _T("x")), 1813));
    EXPECT_TRUE(Fails(FindResourceW(handle, MAKEINTRESOURCEW(5), MAKEINTRESOURCEW(10)), 1813));
    EXPECT_TRUE(Fails(FindResourceW(nullptr, _T("greeting"), _T("TEXT")), 1812));
    EXPECT_EQ(module.LockResource(size, _T("x"), _T("TEXT")), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_FALSE(CUtilities::LoadResource(text, MAKEINTRESOURCEW(5), _T("x"), module.GetHandle()));
    EXPECT_TRUE(text.IsEmpty());
    module.Free();
    EXPECT_TRUE(Fails(FindResourceW(handle, _T("greeting"), _T("TEXT")), 1812)); // they went with it
}

TEST(ObFactory, KeepsItsLibraryAndMakesObjects)
{
    CObFactoryMap map;
    CString const path = BesideProgram(_T("test_system_module.dll"));
    EXPECT_EQ(map.CreateObject(_T("One")), nullptr);
    EXPECT_TRUE(Fails(map.LoadFactory(_T("no_such_module"), _T("One")), 126));
    EXPECT_TRUE(Fails(map.LoadFactory(path, _T("Other")), 127));
    EXPECT_EQ(GetModuleHandleW(path), nullptr);

    CObFactory * const one = map.LoadFactory(path, _T("One"));
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(map.LoadFactory(_T("whatever"), _T("One")), one); // known by its name
    EXPECT_TRUE(one->HasLibrary(CString(path).MakeUpper()) && !one->HasLibrary(_T("")));
    delete map.CreateObject(_T("One"));
    EXPECT_EQ(map.CreateObject(_T("None"), path), nullptr);
    POSITION pos = map.GetStartPosition();
    map.GetNext(pos);
    EXPECT_TRUE(pos && (map.GetNext(pos), !pos)); // two
    map.UnloadFactory(_T("unknown"));
    map.UnloadFactory(_T("One"));
    map.UnloadFactories(_T("another.dll"));
    EXPECT_NE(GetModuleHandleW(path), nullptr); // the other one needs it
    map.UnloadFactories(CString(path).MakeUpper());
    EXPECT_EQ(GetModuleHandleW(path), nullptr);
    map.LoadFactory(path, _T("One"));
    map.LoadFactory(path, _T("None"));
    map.UnloadFactories(nullptr);
    EXPECT_EQ(map.GetStartPosition(), nullptr);
    map.LoadFactory(path, _T("One"));
}
