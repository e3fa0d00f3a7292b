#pragma once

/// What goes into a cabinet, or is to come out of one. Names are bytes: UTF-8 where a path of the host is meant,
/// whatever the cabinet holds elsewhere.

#include "kvx/foundation/ObLookup.h"
#include "kvx/platform/mfc/File.h"

/// One file: a path on disk, or an open CFile of the caller's (an extern file).
class KVX_API CCabFileSetEntry : public CObject
{
public:
    enum Flags : ULONG
    {
        runAfterExtract = 1, ///< marks it in the cabinet
        externFile = 2,      ///< AddFile(CFile *, ...) sets it: rewound, not closed
        deleteSource = 4     ///< once the cabinets are written, the source is deleted
    };

    CCabFileSetEntry() = default;
    explicit CCabFileSetEntry(CFile * externFile);
    ~CCabFileSetEntry() override;

    CStringA const & GetPath() const { return m_strPath; }
    void SetPath(CStringA const & path) { m_strPath = path; }
    CStringA const & GetCabName() const { return m_strCabName; }
    /// In a set the entry is still looked up by the name under which it was added.
    void SetCabName(CStringA const & name) { m_strCabName = name; }
    /// The engine's compression type: see CabTypes.h.
    USHORT GetCompression() const { return static_cast<USHORT>(m_nCompression); }
    void SetCompression(USHORT compression) { m_nCompression = compression; }

    ULONG GetFlags() const { return m_nFlags; }
    void SetFlags(ULONG flags) { m_nFlags = flags; }
    /// Whether all of these are set.
    int FlagIsSet(ULONG flags) const { return (m_nFlags & flags) == flags; }
    void SetFlag(ULONG flags, int set) { m_nFlags = set ? m_nFlags | flags : m_nFlags & ~flags; }

    /// Made for one open file, and deleted when that is closed.
    int IsTemporary() const { return m_bTemporary; }
    void SetTemporary(int temporary) { m_bTemporary = temporary; }

    /// Not owned. Null for a file on disk that isn't open.
    CFile * GetFile() const { return m_pFile; }
    void SetFile(CFile * file) { m_pFile = file; }

    /// ":" and the entry's address as a decimal number: the name under which the engine knows an extern file.
    CStringA BuildExternFileName() const;
    /// Into a buffer of 260 bytes.
    void BuildExternFileName(char * name) const;
    /// The entry of such a name; null if there is none alive. Any thread.
    static CCabFileSetEntry * FromExternFileName(char const * name);

private:
    CStringA m_strPath;
    CStringA m_strCabName;
    ULONG m_nCompression = 1;
    ULONG m_nFlags = 0;
    int m_bTemporary = 0;
    CFile * m_pFile = nullptr;
};

/// Files in the order in which they were added, each under its name in the cabinet, which is looked up with regard to
/// case. The set owns its entries, and none of their files. Threads: one at a time.
class KVX_API CCabFileSet
{
public:
    CCabFileSet() = default;
    CCabFileSet(CCabFileSet const &) = delete;
    CCabFileSet & operator=(CCabFileSet const &) = delete;
    virtual ~CCabFileSet();

    /// Null for `path` is the name in the cabinet; an empty `cabName` is the file name of the path. A name that is
    /// there already keeps its place, with what is given now: so do two paths with one file name. `compression` is as
    /// in CabTypes.h: tcompTYPE_NONE, tcompTYPE_MSZIP, or TCOMPfromLZXWindow(bits). @return 1; 0 without either text.
    int AddFile(char const * path, char const * cabName = nullptr, ULONG flags = 0, USHORT compression = 1);
    /// A file that the caller keeps open until the set is used no more; it is rewound here. It counts in bytes
    /// (CFile::GetUnitSize), or reading it will fail.
    int AddFile(CFile * file, CStringA const & cabName, ULONG flags = 0, USHORT compression = 1);
    /// Where the file of that name lies, or is to go. A name that isn't there is added.
    void SetFilePath(char const * cabName, char const * path);
    CCabFileSetEntry * LookupFileEntry(char const * cabName) const;

    int GetCount() const { return static_cast<int>(m_entries.GetCount()); }
    int IsEmpty() const { return m_entries.IsEmpty(); }
    POSITION GetStartPosition() const { return m_entries.GetHeadPosition(); }
    CCabFileSetEntry * GetNextFile(POSITION & position) const;
    void GetNextFileNames(POSITION & position, CStringA & cabName, CStringA & path) const;
    void RemoveAll();

protected:
    CCabFileSetEntry * CreateFileEntry(CStringA const & path, CStringA const & cabName);

private:
    CObList m_entries{10};
    CObStringLookup m_lookup{1, 0};
};
