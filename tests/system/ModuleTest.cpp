#include "kvx/system/ObFactory.h"
#include "kvx/system/WinModule.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace
{
CString BesideProgram(LPCTSTR name)
{
    WCHAR path[1000];
    EXPECT_GT(GetModuleFileNameW(nullptr, path, 1000), 0u);
    CString folder = path;
    return folder.Left(folder.ReverseFind('\\') + 1) + name;
}

/// Whether a file with this in its name is part of the process's memory.
bool IsMapped(std::string const & name)
{
    std::ifstream maps("/proc/self/maps");
    return std::string(std::istreambuf_iterator<char>(maps), {}).find(name) != std::string::npos;
}

/// A folder for files that are modules or none.
class Files
{
public:
    Files()
        : m_folder(std::filesystem::temp_directory_path() / ("kvx-modules-" + std::to_string(GetCurrentProcessId())))
    {
        std::filesystem::create_directories(m_folder);
    }
    Files(Files const &) = delete;
    Files & operator=(Files const &) = delete;
    ~Files() { std::filesystem::remove_all(m_folder); }

    std::filesystem::path const & GetFolder() const { return m_folder; }

    CString Write(std::string const & name, std::string const & bytes)
    {
        std::ofstream(m_folder / name, std::ios::binary) << bytes;
        return Name(name);
    }
    CString Name(std::string const & name) { return kvx::FromUtf8((m_folder / name).string()); }

private:
    std::filesystem::path m_folder;
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
    CString const windows = BesideProgram(_T("libtest_system_module.so"));
    CString const posix = CString(kvx::FromUtf8(std::filesystem::canonical("/proc/self/exe").parent_path().string())) +
                          _T("/libtest_system_module");
    for (CString const & name :
         {CString(_T("test_system_module")), CString(_T("TEST_System_Module.DLL")),
          CString(_T("libtest_system_module.so")), windows, BesideProgram(_T("test_system_module.dll")),
          BesideProgram(_T("test_system_module")), posix + _T(".so"), posix})
    {
        CWinModule again;
        EXPECT_TRUE(again.Load(name)) << kvx::ToUtf8(name);
        EXPECT_EQ(again.GetHandle(), handle);
        EXPECT_EQ(GetModuleHandleW(name), handle) << kvx::ToUtf8(name);
    }
    WCHAR path[1000];
    EXPECT_EQ(GetModuleFileNameW(handle, path, 1000), static_cast<DWORD>(windows.GetLength()));
    EXPECT_EQ(CString(path), windows);
    EXPECT_EQ(GetModuleFileNameW(handle, path, 5), 5u);
    EXPECT_EQ(path[4], 0);

    // Each load is one use.
    FARPROC const add = module.GetProcAddress(_T("KVX_Add"));
    ASSERT_NE(add, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)(int, int)>(reinterpret_cast<void *>(add))(2, 3), 5);
    EXPECT_EQ(CUtilities::ModuleFromAddress(reinterpret_cast<void *>(add)), handle);
    CWinModule second(windows);
    EXPECT_TRUE(module.Free() && !module.Free());
    EXPECT_EQ(GetModuleHandleW(windows), handle);
    second.Attach(nullptr);
    EXPECT_EQ(GetModuleHandleW(windows), nullptr);
    EXPECT_FALSE(FreeLibrary(handle));
    EXPECT_EQ(GetLastError(), 126u);
}

TEST(Module, IsGoneWithItsLastUse)
{
    CWinModule module(CString(_T("test_system_module")));
    FARPROC const work = module.GetProcAddress(_T("KVX_Work"));
    ASSERT_NE(work, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)()>(reinterpret_cast<void *>(work))(), 42);
    EXPECT_TRUE(IsMapped("libtest_system_module.so"));
    module.Free();
    EXPECT_FALSE(IsMapped("libtest_system_module.so"));
}

TEST(Module, APathMeansThatFile)
{
    Files files;
    std::filesystem::path const before = std::filesystem::current_path();
    std::filesystem::create_directories(files.GetFolder() / "sub/dir.so");
    std::filesystem::path const original =
        std::filesystem::canonical("/proc/self/exe").parent_path() / "libtest_system_module.so";
    for (char const * const copy : {"plug.so", "sub/plug.so", "libm.so.6"})
    {
        std::filesystem::copy_file(original, files.GetFolder() / copy);
    }
    std::filesystem::current_path(files.GetFolder());
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

TEST(Module, FailuresAreToldApart)
{
    Files files;
    EXPECT_EQ(LoadError(_T("no_such_module")), 126u);
    EXPECT_EQ(LoadError(files.Name("missing.dll")), 126u);
    EXPECT_EQ(LoadError(files.Name("no/such/folder/x.so")), 126u);
    EXPECT_EQ(LoadError(_T("\x4E16\x754C")), 126u);
    EXPECT_EQ(LoadError(CString(_T('x'), 5000)), 126u);
    EXPECT_EQ(LoadError(_T("")), 87u);
    EXPECT_EQ(
        LoadError(files.Write("text.dll", "just a text, long enough to be read as the header of a file, and more")),
        193u);
    EXPECT_EQ(LoadError(files.Write("empty.so", "")), 193u);
    EXPECT_EQ(LoadError(files.Write("libcut.so", std::string("\x7F"
                                                             "ELF\x02\x01\x01",
                                                             7))),
              193u);
    EXPECT_EQ(LoadError(files.Name("cut")), 193u);
    // The head of a true module, and nothing behind it.
    std::string head(64, 0);
    std::ifstream(kvx::ToUtf8(kvx::FromUtf8(std::filesystem::canonical("/proc/self/exe").string())), std::ios::binary)
        .read(head.data(), 64);
    EXPECT_EQ(LoadError(files.Write("head.so", head)), 193u);
    // Flags that no caller needs.
    EXPECT_EQ(LoadLibraryExW(_T("test_system_module"), nullptr, 2), nullptr);
    EXPECT_EQ(GetLastError(), 87u);

    try
    {
        CWinModule const module(files.Name("missing.dll"));
        ADD_FAILURE();
    }
    catch (CFileException * failure)
    {
        EXPECT_EQ(failure->m_cause, 2);
        EXPECT_EQ(failure->m_lOsError, 126);
        EXPECT_EQ(failure->m_strFileName, files.Name("missing.dll"));
        failure->Delete();
    }

    CWinModule module(CString(_T("test_system_module")));
    for (LPCTSTR const name : {_T("KVX_add"), _T(""), _T("malloc"), _T("KVX_Add ")})
    {
        EXPECT_EQ(module.GetProcAddress(name), nullptr);
        EXPECT_EQ(GetLastError(), 127u);
    }
    CWinModule const none;
    EXPECT_EQ(none.GetProcAddress(_T("KVX_Add")), nullptr);
    EXPECT_EQ(GetModuleHandleW(_T("no_such_module")), nullptr);
    WCHAR path[10];
    EXPECT_EQ(GetModuleFileNameW(reinterpret_cast<HMODULE>(8), path, 10), 0u);
    EXPECT_EQ(GetLastError(), 126u);
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
    CString wide;
    EXPECT_TRUE(CUtilities::LoadResource(wide, _T("greeting"), _T("DATA"), module.GetHandle()));
    EXPECT_EQ(wide.GetLength(), text.GetLength() / 2);

    auto const reason = [&](LPCTSTR name, LPCTSTR type, HMODULE from)
    {
        EXPECT_EQ(FindResourceW(from, name, type), nullptr);
        return GetLastError();
    };
    EXPECT_EQ(reason(_T("x"), _T("TEXT"), module.GetHandle()), 1814u);
    EXPECT_EQ(reason(_T("greeting"), _T("x"), module.GetHandle()), 1813u);
    EXPECT_EQ(reason(MAKEINTRESOURCEW(5), MAKEINTRESOURCEW(10), module.GetHandle()), 1813u);
    EXPECT_EQ(reason(_T("greeting"), _T("TEXT"), nullptr), 1812u);
    EXPECT_EQ(module.LockResource(size, _T("x"), _T("TEXT")), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_FALSE(CUtilities::LoadResource(text, MAKEINTRESOURCEW(5), _T("x"), module.GetHandle()));
    EXPECT_TRUE(text.IsEmpty());
    HMODULE const handle = module.GetHandle();
    module.Free();
    EXPECT_EQ(reason(_T("greeting"), _T("TEXT"), handle), 1812u); // they went with it
}

TEST(ObFactory, KeepsItsLibraryAndMakesObjects)
{
    CObFactoryMap map;
    CString const path = BesideProgram(_T("test_system_module.dll"));
    EXPECT_EQ(map.CreateObject(_T("One")), nullptr);
    EXPECT_EQ(map.LoadFactory(_T("no_such_module"), _T("One")), nullptr);
    EXPECT_EQ(GetLastError(), 126u);
    EXPECT_EQ(map.LoadFactory(path, _T("Other")), nullptr);
    EXPECT_EQ(GetLastError(), 127u);
    EXPECT_EQ(GetModuleHandleW(path), nullptr);

    CObFactory * const one = map.LoadFactory(path, _T("One"));
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(map.LoadFactory(_T("whatever"), _T("One")), one); // known by its name
    EXPECT_TRUE(one->HasLibrary(CString(path).MakeUpper()) && !one->HasLibrary(_T("")));
    delete map.CreateObject(_T("One"));
    EXPECT_EQ(map.CreateObject(_T("None"), path), nullptr);
    int count = 0;
    for (POSITION pos = map.GetStartPosition(); pos; map.GetNext(pos))
    {
        ++count;
    }
    EXPECT_EQ(count, 2);
    map.UnloadFactory(_T("unknown"));
    map.UnloadFactory(_T("One"));
    EXPECT_NE(GetModuleHandleW(path), nullptr); // the other one needs it
    map.UnloadFactories(_T("another.dll"));
    EXPECT_NE(GetModuleHandleW(path), nullptr);
    map.UnloadFactories(CString(path).MakeUpper());
    EXPECT_EQ(GetModuleHandleW(path), nullptr);
    map.LoadFactory(path, _T("One"));
    map.LoadFactory(path, _T("None"));
    map.UnloadFactories(nullptr);
    EXPECT_EQ(map.GetStartPosition(), nullptr);
    map.LoadFactory(path, _T("One"));
}
