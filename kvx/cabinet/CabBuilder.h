#pragma once

#include "kvx/cabinet/CabBase.h"
#include "kvx/cabinet/CabCompression.h"

#include <functional>

/// Builds a cabinet, or a set of them, out of a file set:
///
///     CCabFileSet files;
///     files.AddFile("report.txt", "", 0, TCOMPfromLZXWindow(21));
///     CCabBuilder builder("Z:\\home\\me");
///     if (!builder.Build("Z:\\backup\\me.cab", files, "Backup"))
///         ... builder.GetError(), builder.GetFailedFile()
class KVX_API CCabBuilder : public CCabBase
{
public:
    /// Sizes in bytes, at most 0x7FFFFFFF: of the first cabinet and of those that follow, and the one at which a folder
    /// is closed. 0 for a cabinet's is the most there can be.
    explicit CCabBuilder(char const * defaultDirectory, USHORT setId = 0, ULONG maxCabSize = 0x7FFFFFFF,
                         ULONG maxNextCabSize = 0x7FFFFFFF, ULONG folderThreshold = 0x7FFFFFFF);
    ~CCabBuilder() override;

    /// Is called behind each file that was added, with its name in the cabinet.
    void SetFileAdded(std::function<void(char const *)> fileAdded) { m_fileAdded = std::move(fileAdded); }
    /// How hard the compressors try, and on how many threads; for the next Build.
    void SetOptions(kvx::cabinet::CabCompression::Options const & options) { m_options = options; }

    /// The cabinets are "archive.cab", "archive2.cab", ... for "archive.cab", and "archive1.cab", "archive2.cab", ...
    /// for "archive"; disks are the name and a number, or have none if it is empty. By contract an extractor goes on to
    /// another cabinet of itself only where disks have names: give one for a set. Without any file nothing is written.
    /// @return 1, or 0 with the error (GetError); FCIERR_OPEN_SRC for a file that isn't there. What was written of a
    /// set then stays; sources that are to be deleted go only when all is written. Errors: CMemoryException *.
    int Build(char const * cabPath, CCabFileSet & files, char const * diskName);
    /// One cabinet into a file of the caller's, which is rewound then; a set can't be made so. What the file holds
    /// behind the cabinet's end stays.
    int Build(CFile * file, CCabFileSet & files, char const * diskName);

    /// The source with which the last Build ended, as it was looked for; empty where it was none.
    CStringA const & GetFailedFile() const { return m_strFailedFile; }

    /// After a Build the engine stays open: what it holds goes into the cabinet, or the folder. 0 without an engine.
    int FlushCab();
    int FlushFolder();
    /// Whether there is an engine.
    int IsValid() const { return m_engine != nullptr; }

private:
    std::unique_ptr<kvx::cabinet::CabCompression> m_engine;
    CCAB m_ccab = {};
    CStringA m_strFirstCabName;
    CStringA m_strDiskName;
    CStringA m_strCabExtension;
    ULONG m_nMaxCabSize;
    ULONG m_nMaxNextCabSize;
    ULONG m_nFolderThreshold;
    USHORT m_nSetId;
    UINT m_nReserveHeader = 0;
    UINT m_nReserveFolder = 0;
    UINT m_nReserveData = 0;
    kvx::cabinet::CabCompression::Options m_options;

    std::function<void(char const *)> m_fileAdded;
    CStringA m_strFailedFile;
    bool m_bDirectoryApart = false; // too long for the engine: put in front of names here

    int InitCab(char const * cabPath, char const * diskName);
    int AddFile(CCabFileSetEntry & entry);
    void Destroy();
    void BuildDiskName();
    bool BuildCabName();
    CStringA ToCabPath(char const * name) const;
    INT_PTR OpenFile(char const * name, int oflag, int pmode, int * err) const;

    static CCabBuilder & FromContext(void * context) { return *static_cast<CCabBuilder *>(context); }
    static BOOL GetNextCabProc(CCAB * ccab, ULONG previousSize, void * context);
    static INT_PTR GetFileInfoProc(char * name, USHORT * date, USHORT * time, USHORT * attributes, int * err,
                                   void * context);
    static LONG NotifyProgressProc(UINT type, ULONG size1, ULONG size2, void * context);
    static int FileDeleteProc(char * name, int * err, void * context);
    static BOOL GetTempFileProc(char * name, int size, void * context);
};
