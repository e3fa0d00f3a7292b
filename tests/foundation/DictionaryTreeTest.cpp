#include "tests/support/Raised.h"

#include "kvx/foundation/DictionaryTree.h"
#include "kvx/platform/mfc/Archive.h"
#include "kvx/platform/mfc/File.h"

#include <gtest/gtest.h>

namespace
{
CString Deep(int levels, LPCTSTR level)
{
    CString path;
    for (int i = 0; i < levels; ++i)
    {
        path += level;
    }
    return path;
}
} // namespace

TEST(DictionaryTree, PathsCreateOnlyForWriters)
{
    CDictionaryTree tree(_T("name"), _T("."));
    tree.SetValue(_T("v"), 5, _T("a.b"));
    tree.SetValue(_T("v"), 1);
    EXPECT_EQ(tree.GetChildCount(), 1);
    CDictionaryTree * const b = tree.FindChild(_T("a.b"));
    ASSERT_NE(b, nullptr);
    CDictionaryTree * const c = tree.FindChild(_T("a"))->CreateChild(_T("b\\c")); // a child's own separator
    EXPECT_EQ(b->FindChild(_T("c")), c);
    EXPECT_EQ(tree.FindChild(_T("")), &tree);
    EXPECT_EQ(tree.FindChild(_T("A")), nullptr);

    CDictionaryTree const & reader = tree;
    CDictionary values;
    values[_T("stays")] = 1;
    reader.GetValues(values, _T("a.x"));
    EXPECT_TRUE(values.HasValue(_T("stays")) && reader[_T("a.x")].IsEmpty() &&
                reader.GetValue(_T("v"), _T("y")) == _T(""));
    EXPECT_EQ(tree.FindChild(_T("a.x")), nullptr);
    EXPECT_EQ(reader.GetValue(_T("v"), _T("a.b")), _T("5"));
    tree.SetValues(values, _T("a.b"));
    EXPECT_TRUE(tree[_T("a.b")].HasValue(_T("stays")) && !tree[_T("a.b")].HasValue(_T("v")));

    // A path as long as a text may be is no way to end the process.
    CString const path = Deep(100'000, _T("x."));
    tree.SetValue(_T("v"), 7, path);
    CDictionaryTree copy = tree;
    tree.RemoveAll();
    EXPECT_EQ(tree.GetChildCount(), 0);
    EXPECT_EQ(tree.GetValue(_T("v")), _T("1"));
    EXPECT_EQ(copy.GetName() + copy.GetValue(_T("stays"), _T("a.b")) + copy.GetValue(_T("v"), path), _T("name17"));
}

TEST(DictionaryTree, ABranchAndItsTreeCopyEachOther)
{
    CDictionaryTree tree;
    tree.SetValue(_T("v"), 1, _T("a\\b\\c"));
    tree.SetValue(_T("r"), 2);
    *tree.FindChild(_T("a\\b")) = tree;
    EXPECT_EQ(tree.GetValue(_T("v"), _T("a\\b\\a\\b\\c")) + tree.GetValue(_T("r"), _T("a\\b")), _T("12"));
    tree = *tree.FindChild(_T("a\\b\\a"));
    EXPECT_EQ(tree.GetValue(_T("v"), _T("b\\c")) + tree.GetValue(_T("r")), _T("1"));
}

namespace
{
struct Output
{
    CMemFile file;
    CArchive archive{&file, CArchive::store};

    std::string GetBytes()
    {
        archive.Close();
        std::string bytes(static_cast<std::size_t>(file.GetLength()), '\0');
        file.SeekToBegin();
        file.Read(bytes.data(), static_cast<UINT>(bytes.size()));
        return bytes;
    }
};

/// The cause why the bytes can't be read, 0 if they can.
int Load(CDictionaryTree & tree, std::string bytes)
{
    CMemFile file(reinterpret_cast<BYTE *>(bytes.data()), static_cast<UINT>(bytes.size()));
    CArchive archive(&file, CArchive::load);
    return CauseOf([&] { tree.Serialize(archive); });
}

/// A child "a", whose object has the number 2 (its class has 1), and beside or inside it one with a given tag.
std::string WithSecond(LPCTSTR key, WORD tag, bool bInside)
{
    Output out;
    out.archive.WriteCount(bInside ? 1 : 2);
    out.archive << CString(_T("a"));
    out.archive.WriteClass(RUNTIME_CLASS(CDictionaryTree));
    out.archive.WriteCount(bInside ? 1 : 0);
    if (!bInside)
    {
        out.archive << DWORD{0} << CString(_T("\\"));
    }
    out.archive << CString(key) << tag;
    out.archive.WriteCount(0);
    out.archive << DWORD{0} << CString(_T("\\")) << DWORD{0} << CString(_T("\\"));
    return out.GetBytes();
}
} // namespace

TEST(DictionaryTree, ArchivesAreReadWithCare)
{
    CDictionaryTree tree(_T("|"));
    tree.SetValue(_T("v"), _T("1"), _T("a|b"));
    tree.SetValue(_T("w"), 2, _T("c"));
    tree.SetValue(_T("u"), 3);
    Output out;
    tree.Serialize(out.archive);
    std::string const bytes = out.GetBytes();
    CDictionaryTree loaded;
    loaded.CreateChild(_T("old"));
    EXPECT_EQ(Load(loaded, bytes), 0);
    EXPECT_EQ(loaded.GetChildCount(), 2);
    EXPECT_EQ(loaded.GetValue(_T("v"), _T("a|b")) + loaded.GetValue(_T("w"), _T("c")) + loaded.GetValue(_T("u")),
              _T("123"));
    for (std::size_t length = 0; length < bytes.size(); ++length)
    {
        EXPECT_EQ(Load(loaded, bytes.substr(0, length)), CArchiveException::endOfFile) << length;
    }

    // What can be stored can be loaded: both ends have one limit.
    constexpr int DEEPEST = 1000;
    CString const path = Deep(DEEPEST, _T("x\\"));
    CDictionaryTree deep;
    deep.SetValue(_T("v"), 1, path);
    Output deepest;
    deep.Serialize(deepest.archive);
    EXPECT_EQ(Load(loaded, deepest.GetBytes()), 0);
    EXPECT_EQ(loaded.GetValue(_T("v"), path), _T("1"));
    deep.SetValue(_T("v"), 1, path + _T("x"));
    Output deeper;
    EXPECT_EQ(CauseOf([&] { deep.Serialize(deeper.archive); }), CArchiveException::genericException);

    constexpr WORD SAME_CLASS = 0x8001;
    EXPECT_EQ(Load(loaded, WithSecond(_T("b"), SAME_CLASS, false)), 0);
    EXPECT_EQ(loaded.GetChildCount(), 2);
    EXPECT_EQ(Load(loaded, WithSecond(_T("a"), SAME_CLASS, false)), CArchiveException::badIndex); // a key twice
    EXPECT_EQ(Load(loaded, WithSecond(_T("b"), 2, false)), CArchiveException::badIndex);          // in two places
    EXPECT_EQ(Load(loaded, WithSecond(_T("b"), 2, true)), CArchiveException::badIndex);           // its own child
    EXPECT_EQ(Load(loaded, WithSecond(_T("b"), 0, true)), CArchiveException::badIndex);           // no object
}
