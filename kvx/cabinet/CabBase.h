#pragma once

#include "kvx/cabinet/CabFileSet.h"
#include "kvx/cabinet/CabTypes.h"

#include <memory>

/// What building and extracting have in common: directories, the file set in hand, and the engine's callbacks for
/// memory and files, which work on CFile objects.
///
/// Names are bytes. They become paths of the host as UTF-8 (CUtilities::AnsiToString), and texts of the host become
/// names in the ANSI code page (CUtilities::StringToAnsi); by contract the two don't match beyond ASCII, which a caller
/// meets in the default directory that isn't given and in the folder for temporary files.
///
/// Paths that a caller gives may be the host's, as "/usr/x"; a name out of a cabinet never is.
///
/// Threads: an object serves one at a time, and callbacks run on it. What a caller's CFile raises becomes an error.
class KVX_API CCabBase
{
public:
    explicit CCabBase(char const * defaultDirectory);
    CCabBase(CCabBase const &) = delete;
    CCabBase & operator=(CCabBase const &) = delete;
    virtual ~CCabBase();

    /// What relative names of files are relative to (a cabinet's own path isn't); it gets a backslash at its end unless
    /// it is empty.
    void SetDefaultDirectory(char const * directory);
    CStringA const & GetDefaultDirectory() const { return m_strDefaultDirectory; }
    /// An absolute name as it is (CUtilities::IsAbsolutePath), any other behind the default directory: by contract also
    /// one that begins with a slash.
    CStringA BuildFullPath(char const * name) const;
    /// In the file set in hand; null with none.
    CCabFileSetEntry * LookupFileEntry(char const * name) const;

    /// Of the last operation: an FCIERROR of a builder, an FDIERROR of an extractor, and the callback's error number.
    ERF const & GetError() const { return m_erf; }

    // The engine's callbacks. Error numbers are the C library's, and go to `*err` if that isn't null; 0 for success. A
    // file's handle is its CCabFileSetEntry.
    static void * MemAllocProc(ULONG size);
    static void MemFreeProc(void * memory);
    /// An extern name gives its entry; any other opens a file (OpenCabFile), with an entry of its own.
    static INT_PTR FileOpenProc(char const * name, int oflag, int pmode, int * err);
    static UINT FileReadProc(INT_PTR handle, void * memory, UINT size, int * err);
    static UINT FileWriteProc(INT_PTR handle, void * memory, UINT size, int * err);
    /// Closes a file; an extern one is rewound.
    static int FileCloseProc(INT_PTR handle, int * err);
    static LONG FileSeekProc(INT_PTR handle, LONG distance, int origin, int * err);

    /// Whether it begins with a colon.
    static int IsExternFile(char const * name) { return *name == ':'; }
    /// Null for a name that is none of a living entry.
    static CCabFileSetEntry * GetExternFileEntry(char const * name);
    static CFile * GetExternFilePtr(char const * name);
    static CCabFileSetEntry * GetFileEntry(INT_PTR handle) { return reinterpret_cast<CCabFileSetEntry *>(handle); }
    static CFile * GetFilePtr(INT_PTR handle) { return GetFileEntry(handle)->GetFile(); }

protected:
    ERF m_erf = {};
    CStringA m_strCabName;
    CStringA m_strCabDirectory;
    CStringA m_strDefaultDirectory;
    CCabFileSet * m_pFileSet = nullptr;
    std::unique_ptr<CCabFileSetEntry> m_pCabEntry;

    /// Opens a file by the flags of OpenFlags.h; text mode is refused. By contract it makes the folders of the path,
    /// also to read. Null with the error number, and a line in the log.
    static CFile * OpenCabFile(char const * name, int oflag, int pmode, int & err);
    /// The error number for a Win32 error; one that has none is given as it is.
    static int ToErrorNumber(DWORD error);
    /// Makes a file stand for the cabinet, and gives it an extern name.
    CStringA AssignCabFileEntry(CFile * file);
    void AssignFileSet(CCabFileSet * fileSet) { m_pFileSet = fileSet; }
    /// Has a file set in hand as long as it lives.
    class FileSetInHand
    {
    public:
        FileSetInHand(CCabBase & owner, CCabFileSet & files) : m_owner(owner) { owner.AssignFileSet(&files); }
        FileSetInHand(FileSetInHand const &) = delete;
        FileSetInHand & operator=(FileSetInHand const &) = delete;
        ~FileSetInHand() { m_owner.AssignFileSet(nullptr); }

    private:
        CCabBase & m_owner;
    };
    CCabFileSet * GetFileSet() const { return m_pFileSet; }
    /// BuildFullPath for a path that a caller, and no cabinet, gave: there "/usr/x" is the host's own.
    CStringA BuildCallersPath(char const * path) const { return *path == '/' ? CStringA(path) : BuildFullPath(path); }
    /// Parts a cabinet's path: the location becomes the cabinet's directory, the rest its name.
    void AssignCabPath(char const * path);
};
