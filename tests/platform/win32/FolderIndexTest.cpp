#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/paths/folder_index.h"
#include "kvx/platform/win32/sync.h"

#include "tests/support/RunThreads.h"
#include "tests/support/TestFolder.h"

#include <atomic>
#include <cctype>
#include <map>
#include <random>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kvx::win32;

namespace
{

/// The folder changes behind the library's back, as by another process.
class FolderIndex : public TestFolder
{
protected:
    /// What a name leads to; empty for nothing.
    std::string Look(std::string const & strName, std::string const & strFolder = ".") const
    {
        std::string strFound;
        EXPECT_NE(FindName(Host(strFolder).c_str(), strName, strFound), NameLookup::NoFolder);
        return strFound;
    }
    void Move(std::string const & strFrom, std::string const & strTo, unsigned nFlags = 0) const
    {
        EXPECT_EQ(renameat2(AT_FDCWD, Host(strFrom).c_str(), AT_FDCWD, Host(strTo).c_str(), nFlags), 0);
    }
};

TEST_F(FolderIndex, EveryKindOfChangeIsSeenAtOnce)
{
    Put("One");
    EXPECT_EQ(Look("ONE"), "One");
    EXPECT_EQ(Look("two"), "");
    EXPECT_EQ(ToHost(Path(u"TWO").AsView()), Host("TWO"));
    Put("Two");
    EXPECT_EQ(ToHost(Path(u"TWO").AsView()), Host("Two"));
    Move("Two", "tWo");
    EXPECT_EQ(Look("TWO"), "tWo");
    Put("three");
    Move("three", "tWo");
    EXPECT_EQ(Look("THREE"), "");
    Move("tWo", "four");
    EXPECT_EQ(Look("TWO"), "");
    Move("One", "four", RENAME_EXCHANGE); // looks like two moves
    EXPECT_EQ(Look("FOUR") + Look("ONE"), "fourOne");
    std::filesystem::create_directory(Host("\xC3\x84rger"));
    std::filesystem::create_symlink("nowhere", Host("Link"));
    EXPECT_EQ(Look("\xC3\xA4RGER") + Look("LINK") + Look("."), "\xC3\x84rgerLink.");
    unlink(Host("four").c_str());
    EXPECT_EQ(Look("FOUR"), "");
    std::string strFound;
    EXPECT_EQ(FindName(Host("four").c_str(), "x", strFound), NameLookup::NoFolder);
    EXPECT_EQ(FindName(Host("One").c_str(), "x", strFound), NameLookup::NoFolder);

    // Of several names the very one, else the first.
    Put("b");
    Put("B");
    EXPECT_EQ(Look("b") + Look("B"), "bB");
    unlink(Host("B").c_str());
    EXPECT_EQ(Look("B"), "b");
}

TEST_F(FolderIndex, APathMayLeadToAnotherFolder)
{
    std::filesystem::create_directory(Host("a"));
    std::filesystem::create_directory(Host("b"));
    std::filesystem::create_directory_symlink("a", Host("link"));
    Put("a/InA");
    Put("b/InB");
    EXPECT_EQ(Look("ina", "a") + Look("ina", "link") + Look("inb", "b"), "InAInAInB");
    Move("a", "b", RENAME_EXCHANGE);
    EXPECT_EQ(Look("inb", "a") + Look("inb", "link") + Look("ina", "b"), "InBInBInA");
    std::filesystem::remove_all(Host("a"));
    std::filesystem::create_directory(Host("a"));
    EXPECT_EQ(Look("inb", "a") + Look("inb", "link"), "");
    Put("a/New");
    EXPECT_EQ(Look("NEW", "link"), "New");
}

TEST_F(FolderIndex, RandomChangesLeaveNoOtherNames)
{
    std::mt19937 random(3);
    std::map<std::string, std::string> names; // by their lower case
    for (int i = 0; i < 30000; ++i)
    {
        // Many enough for the table to grow, lose and be made anew.
        std::string const strKey = "name " + std::to_string(random() % (i < 20000 ? 3000 : 30));
        std::string strName = strKey;
        for (char & c : strName)
        {
            c = random() % 2 ? static_cast<char>(std::toupper(c)) : c;
        }
        auto const it = names.find(strKey);
        if (it == names.end())
        {
            Put(strName);
            names[strKey] = strName;
        }
        else if (random() % 2)
        {
            Move(it->second, strName);
            it->second = strName;
        }
        else
        {
            unlink(Host(it->second).c_str());
            names.erase(it);
        }
        std::string const strWanted = "name " + std::to_string(random() % 3000);
        auto const wanted = names.find(strWanted);
        ASSERT_EQ(Look(strWanted), wanted == names.end() ? "" : wanted->second) << i;
    }
}

TEST_F(FolderIndex, MoreChangesThanTheKernelKeeps)
{
    Put("file");
    EXPECT_EQ(Look("FILE"), "file");
    for (int i = 0; i < 12000; ++i)
    {
        ASSERT_EQ(link(Host("file").c_str(), Host("Link " + std::to_string(i)).c_str()), 0);
        if (i % 2)
        {
            unlink(Host("Link " + std::to_string(i)).c_str());
        }
    }
    EXPECT_EQ(Look("LINK 11998") + Look("LINK 11999"), "Link 11998");
}

TEST_F(FolderIndex, MoreFoldersThanAreRemembered)
{
    for (int nRound = 0; nRound < 2; ++nRound)
    {
        for (int i = 0; i < 300; ++i)
        {
            std::string const strFolder = std::to_string(i);
            std::filesystem::create_directory(Host(strFolder));
            EXPECT_EQ(Look("A", strFolder), nRound == 0 ? "" : "a");
            Put(strFolder + "/a");
            EXPECT_EQ(Look("A", strFolder), "a");
        }
    }
}

TEST_F(FolderIndex, AForkedProcessStartsAnew)
{
    Put("Before");
    EXPECT_EQ(Look("before"), "Before");
    pid_t const nChild = fork();
    if (nChild == 0)
    {
        Put("FromChild");
        bool bGood = Look("fromchild") == "FromChild" && Look("before") == "Before";
        unlink(Host("Before").c_str());
        bGood = bGood && Look("before").empty();
        _exit(bGood ? 0 : 1);
    }
    int nStatus = -1;
    ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_EQ(nStatus, 0);
    EXPECT_EQ(Look("fromchild") + Look("before"), "FromChild"); // the child took none of the parent's notices
}

TEST_F(FolderIndex, ThreadsSeeTheirOwnChangesAmongThoseOfOthers)
{
    for (int i = 0; i < 500; ++i)
    {
        Put("there " + std::to_string(i));
    }
    std::atomic<int> nWrong{0};
    RunThreads(3,
               [&](std::size_t nThread)
               {
                   for (int i = 0; i < 1000; ++i)
                   {
                       CString const strName =
                           Path(kvx::FromUtf8("File " + std::to_string(nThread) + "." + std::to_string(i % 50)));
                       CString strOther = strName;
                       strOther.Replace(u"File", u"file");
                       HANDLE const hFile = CreateFileW(strName, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
                       nWrong += hFile == INVALID_HANDLE_VALUE;
                       CloseHandle(hFile);
                       nWrong += GetFileAttributesW(strOther) == INVALID_FILE_ATTRIBUTES;
                       nWrong += GetFileAttributesW(Path(u"THERE 7")) == INVALID_FILE_ATTRIBUTES;
                       nWrong += CreateFileW(strOther, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr) !=
                                 INVALID_HANDLE_VALUE;
                       nWrong += !DeleteFileW(strOther);
                       nWrong += GetFileAttributesW(strName) != INVALID_FILE_ATTRIBUTES;
                   }
               });
    EXPECT_EQ(nWrong, 0);
}

} // namespace
