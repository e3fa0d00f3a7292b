#include "kvx/platform/ConfinedFolder.h"
#include "kvx/platform/FolderTree.h"
#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"
#include "tests/support/TestFolder.h"
#include "tests/support/Wide.h"

#include <vector>

namespace
{
class ConfinedFolders : public TestFolder
{
protected:
    /// 0 or the last error.
    DWORD Write(std::vector<std::string> const & names, std::string const & text, bool isReadOnly = false,
                std::string const & root = "root") const
    {
        auto const folder = kvx::ConfinedFolder::Open(Host(root));
        auto const file = folder ? folder->Create(names) : nullptr;
        std::span const data(reinterpret_cast<std::uint8_t const *>(text.data()), text.size());
        return file && file->Write(data) && file->Finish(nullptr, isReadOnly, false) ? 0 : GetLastError();
    }
};

TEST_F(ConfinedFolders, MayLieDeep)
{
    std::string const root = "root/" + std::string(200, 'p') + "/" + std::string(100, 'q');
    EXPECT_EQ(Write({"f"}, "text", false, root), 0u);
    EXPECT_NE(Write({"f", "below"}, "", false, root), 0u); // it is there, and no folder
    EXPECT_EQ(Write({"g", "f"}, "text", false, root), 0u);
    kvx::EmptyFolderTree(Path(_T("root")), false); // whose paths are too long for others
}

TEST_F(ConfinedFolders, TakeNamesThatMeanThemselves)
{
    EXPECT_EQ(Write({"a", "b", "f"}, "one"), 0u);
    EXPECT_EQ(Write({"A", "b", "f"}, "two", true), 0u);
    EXPECT_EQ(Write({"A", "b", "f"}, "three"), 0u); // in place of a read-only one
    EXPECT_EQ(Get(host::IsWindows() ? "root/a/b/f" : "root/A/b/f"), "three");
    EXPECT_EQ(Write({"a", "b"}, ""), ERROR_DIRECTORY);
    EXPECT_EQ(Write({"a", "b", "f", "g"}, ""), ERROR_CANT_ACCESS_FILE);
    EXPECT_EQ(Write({}, ""), ERROR_INVALID_NAME);
    for (std::string const name : {"", ".", "..", "a/b"})
    {
        EXPECT_EQ(Write({name}, ""), ERROR_INVALID_NAME) << name;
        EXPECT_EQ(Write({name, "f"}, ""), ERROR_INVALID_NAME) << name;
    }
    if (host::IsWindows()) // what is a name like others elsewhere (2026-11-22)
    {
        for (std::string const name : {"f.", "f ", "...", ".. ", "a\\b", "f:stream", "f::$DATA", "C:", "nul", "NUL.txt",
                                       "Com1 .x", "lpt\xC2\xB2", "CONIN$", "f*", "f?", "f<", "f\x1F"})
        {
            EXPECT_EQ(Write({name}, ""), ERROR_INVALID_NAME) << name;
            EXPECT_EQ(Write({name, "f"}, ""), ERROR_INVALID_NAME) << name;
        }
    }
    // Longer than the paths of old, and as long as a name may be.
    std::string const strLong(200, 'n');
    EXPECT_EQ(Write({strLong, strLong, strLong, std::string(255, 'f')}, "deep"), 0u);
    {
        auto const folder = kvx::ConfinedFolder::Open(Host("root"));
        EXPECT_TRUE(folder->Create({"a", "given up"}));
    }
    std::vector<Wide> found;
    EXPECT_EQ(kvx::VisitFolderTree(Path(_T("root\\a")), _T("*"), true,
                                   [&](kvx::FolderTreeEntry const & entry) { found.emplace_back(entry.name); }),
              0u);
    EXPECT_EQ(found, host::IsWindows() ? (std::vector<Wide>{_T("b"), _T("f")}) : found);
    kvx::EmptyFolderTree(Path(_T("root")), false);
    EXPECT_TRUE(std::filesystem::is_empty(host::ToPath(Host("root"))));
}

TEST_F(ConfinedFolders, TreesAreEmptiedWhateverTheNames)
{
    std::filesystem::create_directories(host::ToPath(Host("tree/x")));
    Put("kept");
    Put("tree/x/kept");
    CString const tree = _T("\\\\?\\") + Path(_T("tree"));
    for (LPCTSTR const name : {_T("x."), _T("x "), _T("..."), _T(".. "), _T("nul")})
    {
        CString const folder = tree + _T("\\") + name;
        EXPECT_TRUE(CreateDirectoryW(folder, nullptr)) << GetLastError();
        EXPECT_TRUE(CloseHandle(
            CreateFileW(folder + _T("\\f."), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_READONLY, nullptr)));
    }
    kvx::EmptyFolderTree(Path(_T("tree")), false);
    EXPECT_TRUE(std::filesystem::is_empty(host::ToPath(Host("tree"))));
    EXPECT_TRUE(std::filesystem::exists(host::ToPath(Host("kept"))));
}
} // namespace
