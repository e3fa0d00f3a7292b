// A folder and a key of the registry in one cabinet, and back: a cabinet is built from, and into, any CFile, and so
// needs no file of its own until somebody wants one.

#include "kvx/cabinet/CabBuilder.h"
#include "kvx/cabinet/CabExtractor.h"
#include "kvx/files/FilePath.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/platform/Terminal.h"
#include "kvx/platform/mfc/File.h"
#include "kvx/registry/RegistryBackup.h"

#include <cstdio>

namespace
{
constexpr char REGISTRY_NAME[] = "registry.xml";
constexpr char FOLDER_NAME[] = "files\\";

int Fail(char const * what, LONG code)
{
    std::fprintf(stderr, "%s failed: %ld\n", what, static_cast<long>(code));
    return 1;
}

/// Puts the files of a folder, and a key, into the cabinet.
int Backup(CString const & folder, CString const & key, CFile & cabinet)
{
    CMemFile registry;
    CRegistryBackup backup;
    if (LONG const code = backup.Export(key, registry))
    {
        return Fail("the export of the key", code);
    }
    CCabFileSet files;
    files.AddFile(&registry, REGISTRY_NAME);
    CStringList paths;
    if (!CUtilities::GetFilesInDirectory(folder, paths, 1))
    {
        return Fail("the folder", static_cast<LONG>(GetLastError()));
    }
    CString base = folder;
    CUtilities::AppendBackslash(base);
    for (POSITION position = paths.GetHeadPosition(); position;)
    {
        // The cabinet classes take names as UTF-8.
        CString const path = paths.GetNext(position);
        std::string const name = FOLDER_NAME + kvx::ToUtf8(path.Mid(base.GetLength()));
        files.AddFile(kvx::ToUtf8(path).c_str(), name.c_str());
    }
    CCabBuilder builder("");
    if (!builder.Build(&cabinet, files, ""))
    {
        return Fail("the cabinet", builder.GetError().erfOper);
    }
    std::printf("%d files and %llu values in %llu bytes\n", files.GetCount() - 1, backup.GetValueCount(),
                cabinet.GetLength());
    return 0;
}

/// Takes everything but the registry's file below the folder.
class Restorer : public CCabExtractor
{
public:
    using CCabExtractor::CCabExtractor;

    int NotifyFileCopy(char const * name, LONG size, char * destination, int & skip) override
    {
        CStringA const whole = name;
        CStringA const prefix = FOLDER_NAME;
        skip = whole.Left(prefix.GetLength()) != prefix;
        return skip || CCabExtractor::NotifyFileCopy(whole.Mid(prefix.GetLength()), size, destination, skip);
    }
};

int Restore(CFile & cabinet, CString const & folder, CString const & key)
{
    CMemFile registry;
    CCabFileSet wanted;
    wanted.AddFile(&registry, REGISTRY_NAME);
    CCabExtractor extractor("");
    if (!extractor.Extract(&cabinet, wanted, ""))
    {
        return Fail("the cabinet", extractor.GetError().erfOper);
    }
    CRegistryBackup backup;
    if (LONG const code = backup.Import(registry, key))
    {
        return Fail("the import of the key", code);
    }
    Restorer restorer("");
    restorer.SetConfined(1);
    if (!restorer.Extract(&cabinet, 1, kvx::ToUtf8(folder).c_str()))
    {
        return Fail("the files", restorer.GetError().erfOper);
    }
    std::printf("%llu values are back\n", backup.GetValueCount());
    return 0;
}
} // namespace

int main(int argc, char ** argv)
{
    std::vector<std::string> const words = kvx::GetProgramArguments(argc, argv);
    if (words.size() != 4)
    {
        std::fprintf(stderr, "usage: example_backup FOLDER KEY NEW-FOLDER NEW-KEY, folders as Z:\\home\\me\n");
        return 2;
    }
    CMemFile cabinet;
    int const status = Backup(kvx::FromUtf8(words[0]), kvx::FromUtf8(words[1]), cabinet);
    return status ? status : Restore(cabinet, kvx::FromUtf8(words[2]), kvx::FromUtf8(words[3]));
}
