#include "MemoryHost.h"
#include "tests/support/OneHost.h"
#include "tests/support/TestFolder.h"

#include "kvx/cabinet/CabBuilder.h"
#include "kvx/cabinet/CabExtractor.h"
#include "kvx/files/PagedMemFile.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace
{
namespace fs = std::filesystem;
using testing::ElementsAre;

class CabClasses : public TestFolder
{
protected:
    std::string const m_folder = m_strHost + "/";

    CabClasses() { fs::create_directories(m_folder + "in"); }

    std::string At(std::string const & name) const
    {
        std::string path = kvx::ToUtf8(Path(kvx::FromUtf8(name)));
        std::ranges::replace(path, '/', '\\');
        return path;
    }
    std::string Put(std::string const & name, std::string const & data) const
    {
        TestFolder::Put(name, data);
        return At(name);
    }
    std::vector<std::string> GetNames() const
    {
        std::vector<std::string> names;
        for (auto const & entry : fs::directory_iterator(m_folder))
        {
            names.push_back(entry.path().filename().string());
        }
        std::ranges::sort(names);
        return names;
    }
};

/// Says what it is told.
class Told : public CCabExtractor
{
public:
    using CCabExtractor::CCabExtractor;
    using CCabExtractor::NotifyNextCab;

    std::vector<std::string> events;
    std::string elsewhere; // where the next cabinets are

    int NotifyNextCab(char const * cabName, char const * diskName, CStringA & directory, int error) override
    {
        events.push_back(std::string("next ") + cabName + " of " + diskName + " after " + std::to_string(error));
        if (elsewhere.empty())
        {
            return error == 0;
        }
        directory = elsewhere.c_str();
        return 1;
    }
    int NotifyFileCopied(char const * name, USHORT &, USHORT &, USHORT &) override
    {
        events.push_back(name);
        return 1;
    }
};

TEST_F(CabClasses, CallersFilesGoIntoACallersFileAndBack)
{
    CPagedMemFile first;
    first.FromString(CStringA("in memory"));
    CMemFile second;
    second.Write("rewound", 7);
    CMemFile cabinet;
    CCabFileSet files;
    files.AddFile(&first, "a\\first", CCabFileSetEntry::runAfterExtract);
    files.AddFile(&second, "second", 0, TCOMPfromLZXWindow(15));
    files.AddFile(Put("in/disk.txt", "on disk").c_str());
    CCabBuilder builder("");
    ASSERT_TRUE(builder.Build(&cabinet, files, "")) << builder.GetError().erfOper;
    CMemFile out;
    CCabFileSet wanted;
    wanted.AddFile(&out, "a\\first");
    wanted.SetFilePath("disk.txt", At("out\\new\\disk.txt").c_str());
    wanted.SetFilePath("unknown", At("out\\unknown").c_str());
    CCabExtractor extractor("");
    ASSERT_TRUE(extractor.Extract(&cabinet, wanted, "")) << extractor.GetError().erfOper;
    char text[20] = {};
    out.Read(text, sizeof text);
    EXPECT_STREQ(text, "in memory");
    EXPECT_EQ(Get("out/new/disk.txt"), "on disk");
    EXPECT_FALSE(fs::exists(m_folder + "out/unknown"));
    auto const difference =
        fs::last_write_time(m_folder + "out/new/disk.txt") - fs::last_write_time(m_folder + "in/disk.txt");
    EXPECT_LE(std::chrono::abs(difference), std::chrono::seconds(2));
}

TEST_F(CabClasses, SetsAreNamedAndFollowedByTheirDisks)
{
    CCabFileSet files;
    for (int i = 0; i < 6; i++)
    {
        files.AddFile(Put("in/" + std::to_string(i), MakeData(50000, static_cast<unsigned>(i))).c_str(), "", 0, 0);
    }
    CCabBuilder builder("", 7, 100000, 70000);
    ASSERT_TRUE(builder.Build(At("set.dat").c_str(), files, "volume"));
    EXPECT_THAT(GetNames(), ElementsAre("in", "set.dat", "set2.dat", "set3.dat", "set4.dat"));
    EXPECT_LE(fs::file_size(m_folder + "set2.dat"), 70000u);

    CCabFileSet listed;
    EXPECT_TRUE(CCabExtractor("").ListContents(At("set.dat").c_str(), listed));
    EXPECT_EQ(listed.GetCount(), 6);
    Told told("");
    EXPECT_TRUE(told.Extract(At("set.dat").c_str(), 1, At("all").c_str()));
    for (int i = 0; i < 6; i++)
    {
        EXPECT_TRUE(Get("all/" + std::to_string(i)) == MakeData(50000, static_cast<unsigned>(i)));
    }
    // Only one, deep in the set.
    CCabFileSet last;
    last.SetFilePath("5", "only");
    EXPECT_TRUE(told.Extract(At("set.dat").c_str(), last, At("").c_str()));
    EXPECT_TRUE(Get("only") == MakeData(50000, 5));
    // Without the chain, what begins in the first cabinet alone.
    told.events.clear();
    EXPECT_TRUE(told.Extract(At("set.dat").c_str(), 0, At("first").c_str()));
    EXPECT_THAT(told.events, ElementsAre("0", "next set2.dat of volume 2 after 0", "1"));

    // One that isn't there, then somewhere else.
    fs::create_directory(m_folder + "moved");
    for (int i = 2; i <= 4; i++)
    {
        fs::rename(m_folder + "set" + std::to_string(i) + ".dat", m_folder + "moved/set" + std::to_string(i) + ".dat");
    }
    CCabFileSet none;
    none.SetFilePath("5", "none");
    told.events.clear();
    EXPECT_FALSE(told.Extract(At("set.dat").c_str(), none, At("").c_str()));
    EXPECT_EQ(told.GetError().erfOper, FDIERROR_USER_ABORT);
    EXPECT_THAT(told.events, ElementsAre("next set2.dat of volume 2 after 1"));
    told.elsewhere = At("moved");
    EXPECT_TRUE(told.Extract(At("set.dat").c_str(), none, At("").c_str()));
    EXPECT_TRUE(Get("none") == MakeData(50000, 5));
    EXPECT_FALSE(CCabExtractor("").Extract(At("set.dat").c_str(), none, "")); // asks in vain, and ends
}

TEST_F(CabClasses, NamesOfCabinets)
{
    CCabFileSet files;
    files.AddFile(Put("in/a", "a").c_str());
    EXPECT_TRUE(CCabBuilder("").Build(At("title").c_str(), files, ""));
    EXPECT_TRUE(CCabBuilder("").Build(At("with.dot.cab").c_str(), files, ""));
    CCabFileSet nothing;
    EXPECT_TRUE(CCabBuilder("").Build(At("nothing.cab").c_str(), nothing, ""));
    files.AddFile("missing");
    CCabBuilder builder("");
    EXPECT_FALSE(builder.Build(At("missing.cab").c_str(), files, ""));
    EXPECT_FALSE(fs::exists(m_folder + "missing.cab"));
    EXPECT_THAT(GetNames(), ElementsAre("in", "title1.cab", "with.dot.cab"));
    CMemFile one;
    CMemFile big;
    big.SetLength(100000);
    CCabFileSet bigSet;
    bigSet.AddFile(&big, "big", 0, 0);
    EXPECT_FALSE(CCabBuilder("", 0, 50000).Build(&one, bigSet, "")); // a set has no place in one file
}

TEST_F(CabClasses, FileSetsKeepTheFirstPlaceAndTheLastWord)
{
    CCabFileSet files;
    files.AddFile("dir\\x.txt");
    files.AddFile(nullptr, "plain");
    files.AddFile("dir/other", "x.txt", CCabFileSetEntry::deleteSource, 0);
    EXPECT_FALSE(files.AddFile("", ""));
    POSITION position = files.GetStartPosition();
    CStringA name;
    CStringA path;
    files.GetNextFileNames(position, name, path);
    EXPECT_EQ(name + "=" + path, CStringA("x.txt=dir/other"));
    EXPECT_TRUE(files.LookupFileEntry("x.txt")->FlagIsSet(CCabFileSetEntry::deleteSource));
    files.GetNextFileNames(position, name, path);
    EXPECT_EQ(name + "=" + path, CStringA("plain=plain"));
    EXPECT_EQ(files.GetCount(), 2);
}

TEST_F(CabClasses, SourcesGoOnceTheyAreAdded)
{
    CCabFileSet files;
    files.AddFile(Put("in/gone", "x").c_str(), "", CCabFileSetEntry::deleteSource);
    fs::permissions(m_folder + "in/gone", fs::perms::owner_read);
    ASSERT_TRUE(CCabBuilder("").Build(At("a.cab").c_str(), files, ""));
    EXPECT_FALSE(fs::exists(m_folder + "in/gone"));
    // A read-only file is replaced, and is read-only again.
    std::string const out = Put("gone", "old");
    fs::permissions(m_folder + "gone", fs::perms::owner_read);
    ASSERT_TRUE(CCabExtractor("").Extract(At("a.cab").c_str(), 1, At("").c_str()));
    EXPECT_EQ(Get("gone"), "x");
    EXPECT_EQ(fs::status(m_folder + "gone").permissions() & fs::perms::owner_write, fs::perms::none);
}

/// Has room for so many bytes.
class FullFile : public CMemFile
{
public:
    explicit FullFile(ULONGLONG room) : m_room(room) {}
    void Write(void const * data, UINT size) override
    {
        if (GetPosition() + size > m_room)
        {
            CFileException::ThrowOsError(ERROR_DISK_FULL);
        }
        CMemFile::Write(data, size);
    }

private:
    ULONGLONG m_room;
};

TEST_F(CabClasses, AFullDiskIsTold)
{
    CMemFile content;
    std::string const data = MakeData(200000, 1);
    content.Write(data.data(), static_cast<UINT>(data.size()));
    CCabFileSet files;
    files.AddFile(&content, "content", 0, 0);
    FullFile cabinet(1000);
    CCabBuilder builder("");
    EXPECT_FALSE(builder.Build(&cabinet, files, ""));
    EXPECT_EQ(builder.GetError().erfOper, FCIERR_CAB_FILE);
    EXPECT_EQ(builder.GetError().erfType, 28);
    CMemFile whole;
    ASSERT_TRUE(CCabBuilder("").Build(&whole, files, ""));
    FullFile out(100000);
    CCabFileSet wanted;
    wanted.AddFile(&out, "content");
    CCabExtractor extractor("");
    EXPECT_FALSE(extractor.Extract(&whole, wanted, ""));
    EXPECT_EQ(extractor.GetError().erfOper, FDIERROR_TARGET_FILE);
}

TEST_F(CabClasses, LongDirectoriesAndFailuresLoseNothing)
{
    std::string const longName(100, 'd');
    std::string directory = longName + "/";
    if (!host::IsWindows()) // whose file functions end at MAX_PATH (2026-11-22)
    {
        directory += directory + directory;
    }
    fs::create_directories(m_folder + directory);
    CCabFileSet files;
    files.AddFile(Put("in/big", MakeData(100000, 1)).c_str(), "", CCabFileSetEntry::deleteSource, 0);
    // Neither where it can't be written nor beside a file that is missing does the source go.
    EXPECT_FALSE(CCabBuilder("").Build("Z:\\proc\\no\\a.cab", files, ""));
    files.AddFile("missing");
    EXPECT_FALSE(CCabBuilder("").Build(At("a.cab").c_str(), files, ""));
    EXPECT_TRUE(fs::exists(m_folder + "in/big"));
    CCabFileSet one;
    one.AddFile(At("in/big").c_str(), "", 0, 0);
    EXPECT_TRUE(CCabBuilder("", 0, 60000, 60000).Build(At(directory + "a.cab").c_str(), one, "disk"));
    EXPECT_TRUE(fs::exists(m_folder + directory + "a2.cab"));
    EXPECT_TRUE(CCabExtractor("").Extract(At(directory + "a.cab").c_str(), 1, At("").c_str()));
    EXPECT_TRUE(Get("big") == MakeData(100000, 1));
    EXPECT_THAT(GetNames(), ElementsAre("big", longName, "in"));
}

TEST_F(CabClasses, AnExtractorOutlivesWhatItsNotificationsThrow)
{
    struct Thrower : CCabExtractor
    {
        using CCabExtractor::CCabExtractor;
        bool throws = true;
        int NotifyFileCopied(char const *, USHORT &, USHORT &, USHORT &) override { return throws ? throw 1 : 1; }
        int NotifyCabInfo(USHORT id, char const * path, char const * next, char const * disk, int number) override
        {
            return throws && GetFileSet() ? throw 2 : CCabExtractor::NotifyCabInfo(id, path, next, disk, number);
        }
    } extractor("");
    CMemFile content;
    content.Write("content", 7);
    CCabFileSet files;
    files.AddFile(&content, "content");
    CMemFile cabinet;
    ASSERT_TRUE(CCabBuilder("").Build(&cabinet, files, ""));
    EXPECT_THROW(extractor.Extract(&cabinet, 1, At("out").c_str()), int);
    {
        CCabFileSet gone;
        gone.SetFilePath("content", "elsewhere");
        EXPECT_THROW(extractor.Extract(&cabinet, gone, At("out").c_str()), int);
    }
    extractor.throws = false;
    fs::remove_all(m_folder + "out");
    EXPECT_TRUE(extractor.Extract(&cabinet, 1, At("out").c_str()));
    EXPECT_EQ(Get("out/content"), "content");
}

TEST_F(CabClasses, WhatACabinetSaysIsntTrusted)
{
    // A name that looks like a caller's file, as the next cabinet and as a file, and one that climbs.
    CMemFile file;
    file.Write("x", 1);
    CCabFileSet files;
    files.AddFile(&file, ":12345678");
    files.AddFile(&file, "..\\climbs");
    CMemFile cabinet;
    ASSERT_TRUE(CCabBuilder("").Build(&cabinet, files, ""));
    CCabExtractor extractor("");
    extractor.SetConfined(1);
    EXPECT_TRUE(extractor.Extract(&cabinet, 1, At("deep").c_str()));
    EXPECT_FALSE(fs::exists(m_folder + "climbs"));
    extractor.SetConfined(0);
    EXPECT_TRUE(extractor.Extract(&cabinet, 1, At("deep").c_str()));
    EXPECT_EQ(Get("climbs"), "x");
    EXPECT_EQ(CCabBase::GetExternFilePtr(":12345678"), nullptr);
    EXPECT_EQ(CCabBase::GetExternFilePtr(":x"), nullptr);
    CMemFile nonsense;
    nonsense.Write("nonsense", 8);
    EXPECT_FALSE(extractor.Extract(&nonsense, 1, ""));
    EXPECT_EQ(extractor.GetError().erfOper, FDIERROR_NOT_A_CABINET);
    EXPECT_FALSE(extractor.Extract(At("nowhere.cab").c_str(), 1, ""));
    EXPECT_EQ(extractor.GetError().erfOper, FDIERROR_CABINET_NOT_FOUND);
}
} // namespace
