#include "kvx/cabinet/CabBuilder.h"

#include "kvx/cabinet/CabNames.h"
#include "kvx/cabinet/OpenFlags.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/system/UniqueID.h"

#include <cstdio>
#include <cstring>

using namespace kvx::cabinet;

namespace
{
template <std::size_t SIZE>
void CopyName(char (&target)[SIZE], CStringA const & name)
{
    std::snprintf(target, SIZE, "%s", static_cast<char const *>(name));
}

// Of a file on disk: the local time of its last change, and its attributes.
bool ReadFileInfo(char const * name, USHORT * date, USHORT * time, USHORT * attributes)
{
    CString path = CUtilities::AnsiToString(name);
    CUtilities::CheckFixLongFilePathPrefix(path);
    HANDLE const handle =
        CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
    {
        return false;
    }
    BY_HANDLE_FILE_INFORMATION info = {};
    FILETIME local;
    // A time that the format can't tell (it begins with 1980) becomes none.
    if (!GetFileInformationByHandle(handle, &info) || !FileTimeToLocalFileTime(&info.ftLastWriteTime, &local) ||
        !FileTimeToDosDateTime(&local, date, time))
    {
        *date = 0;
        *time = 0;
    }
    CloseHandle(handle);
    DWORD const found = GetFileAttributesW(path);
    *attributes = found == INVALID_FILE_ATTRIBUTES ? 0 : static_cast<USHORT>(found & CAB_ATTRIBUTES);
    return true;
}
} // namespace

CCabBuilder::CCabBuilder(char const * defaultDirectory, USHORT setId, ULONG maxCabSize, ULONG maxNextCabSize,
                         ULONG folderThreshold)
    : CCabBase(defaultDirectory), m_nMaxCabSize(maxCabSize), m_nMaxNextCabSize(maxNextCabSize),
      m_nFolderThreshold(folderThreshold), m_nSetId(setId)
{
}

CCabBuilder::~CCabBuilder() = default;

int CCabBuilder::Build(CFile * file, CCabFileSet & files, char const * diskName)
{
    return Build(AssignCabFileEntry(file), files, diskName);
}

int CCabBuilder::Build(char const * cabPath, CCabFileSet & files, char const * diskName)
{
    if (!InitCab(cabPath, diskName))
    {
        return 0;
    }
    FileSetInHand const inHand(*this, files);
    int isBuilt = 1;
    for (POSITION position = files.GetStartPosition(); position && isBuilt;)
    {
        isBuilt = AddFile(*files.GetNextFile(position));
    }
    isBuilt = isBuilt && FlushCab();
    for (POSITION position = files.GetStartPosition(); position && isBuilt;)
    {
        CCabFileSetEntry const & entry = *files.GetNextFile(position);
        if (entry.FlagIsSet(CCabFileSetEntry::deleteSource) && !entry.FlagIsSet(CCabFileSetEntry::externFile))
        {
            CUtilities::DeleteFileW(
                CUtilities::AnsiToString(static_cast<char const *>(BuildCallersPath(entry.GetPath()))), 1);
        }
    }
    return isBuilt;
}

int CCabBuilder::InitCab(char const * cabPath, char const * diskName)
{
    Destroy();
    AssignCabPath(cabPath);
    m_strDiskName = diskName;
    m_strCabExtension.Empty();
    m_strFirstCabName = m_strCabName;
    // A caller's file has one name, whole.
    if (!IsExternFile(cabPath))
    {
        int const extension = ExtensionIndex(m_strCabName);
        m_strCabExtension = m_strCabName.Mid(extension);
        m_strCabName = m_strCabName.Left(extension);
        if (m_strCabExtension.IsEmpty())
        {
            m_strCabExtension = ".cab";
            m_strFirstCabName = m_strCabName + "1" + m_strCabExtension;
        }
    }
    m_erf = {};
    m_strFailedFile.Empty();
    m_ccab = {};
    m_ccab.cb = m_nMaxCabSize;
    m_ccab.cbFolderThresh = m_nFolderThreshold;
    m_ccab.cbReserveCFHeader = m_nReserveHeader;
    m_ccab.cbReserveCFFolder = m_nReserveFolder;
    m_ccab.cbReserveCFData = m_nReserveData;
    m_ccab.iCab = 1;
    m_ccab.iDisk = 1;
    m_ccab.setID = m_nSetId;
    m_bDirectoryApart = m_strCabDirectory.GetLength() >= static_cast<int>(sizeof m_ccab.szCabPath);
    if (m_strFirstCabName.GetLength() >= static_cast<int>(sizeof m_ccab.szCab))
    {
        m_erf = {FCIERR_CAB_FORMAT_LIMIT, 0, TRUE};
        return 0;
    }
    CopyName(m_ccab.szCabPath, m_bDirectoryApart ? CStringA() : m_strCabDirectory);
    CopyName(m_ccab.szCab, m_strFirstCabName);
    BuildDiskName();

    CabCompression::Callbacks callbacks = {};
    callbacks.filePlaced = [](CCAB *, char *, LONG, BOOL, void *) { return 0; };
    callbacks.alloc = MemAllocProc;
    callbacks.free = MemFreeProc;
    callbacks.open = [](char * name, int oflag, int pmode, int * err, void * context)
    { return FromContext(context).OpenFile(name, oflag, pmode, err); };
    callbacks.read = [](INT_PTR handle, void * memory, UINT size, int * err, void *)
    { return FileReadProc(handle, memory, size, err); };
    callbacks.write = [](INT_PTR handle, void * memory, UINT size, int * err, void *)
    { return FileWriteProc(handle, memory, size, err); };
    callbacks.close = [](INT_PTR handle, int * err, void *) { return FileCloseProc(handle, err); };
    callbacks.seek = [](INT_PTR handle, LONG distance, int origin, int * err, void *)
    { return FileSeekProc(handle, distance, origin, err); };
    callbacks.remove = FileDeleteProc;
    callbacks.getTempFile = GetTempFileProc;
    m_engine = CabCompression::Create(&m_erf, callbacks, &m_ccab, this);
    if (m_engine)
    {
        m_engine->SetOptions(m_options);
    }
    return IsValid();
}

int CCabBuilder::AddFile(CCabFileSetEntry & entry)
{
    bool const isExtern = entry.FlagIsSet(CCabFileSetEntry::externFile);
    CStringA const source = isExtern ? entry.BuildExternFileName() : BuildCallersPath(entry.GetPath());
    CString const path = CUtilities::AnsiToString(static_cast<char const *>(source));
    if (!isExtern && !CUtilities::FileExists(path))
    {
        m_erf = {FCIERR_OPEN_SRC, ToErrorNumber(ERROR_FILE_NOT_FOUND), TRUE};
        m_strFailedFile = source;
        return 0;
    }
    if (!m_engine->AddFile(source, entry.GetCabName(), entry.FlagIsSet(CCabFileSetEntry::runAfterExtract),
                           GetNextCabProc, NotifyProgressProc, GetFileInfoProc, entry.GetCompression()))
    {
        m_strFailedFile = source;
        Destroy();
        return 0;
    }
    if (m_fileAdded)
    {
        m_fileAdded(entry.GetCabName());
    }
    return 1;
}

int CCabBuilder::FlushCab()
{
    return m_engine && m_engine->FlushCabinet(FALSE, GetNextCabProc, NotifyProgressProc);
}

int CCabBuilder::FlushFolder()
{
    return m_engine && m_engine->FlushFolder(GetNextCabProc, NotifyProgressProc);
}

void CCabBuilder::Destroy()
{
    m_engine.reset();
}

void CCabBuilder::BuildDiskName()
{
    CStringA name;
    if (!m_strDiskName.IsEmpty())
    {
        name.Format("%hs %d", m_strDiskName, m_ccab.iDisk);
    }
    CopyName(m_ccab.szDisk, name);
}

/// Whether there is room for it.
bool CCabBuilder::BuildCabName()
{
    CStringA name;
    name.Format("%hs%d%hs", m_strCabName, m_ccab.iCab, m_strCabExtension);
    CopyName(m_ccab.szCab, name);
    return name.GetLength() < static_cast<int>(sizeof m_ccab.szCab);
}

// A cabinet's name as the engine has it; temporary files have a directory of their own.
CStringA CCabBuilder::ToCabPath(char const * name) const
{
    bool const isApart = m_bDirectoryApart && FileNameIndex(name) == 0 && !IsExternFile(name);
    return isApart ? m_strCabDirectory + name : CStringA(name);
}

BOOL CCabBuilder::GetNextCabProc(CCAB * ccab, ULONG, void * context)
{
    if (!ccab)
    {
        return TRUE;
    }
    CCabBuilder & builder = FromContext(context);
    if (IsExternFile(builder.m_strFirstCabName))
    {
        return FALSE;
    }
    // The names are made in the builder's own block.
    builder.m_ccab.iCab = ccab->iCab;
    builder.m_ccab.iDisk = ++ccab->iDisk;
    builder.BuildDiskName();
    if (!builder.BuildCabName())
    {
        return FALSE;
    }
    std::memcpy(ccab->szDisk, builder.m_ccab.szDisk, sizeof ccab->szDisk);
    std::memcpy(ccab->szCab, builder.m_ccab.szCab, sizeof ccab->szCab);
    ccab->cb = builder.m_nMaxNextCabSize;
    return TRUE;
}

LONG CCabBuilder::NotifyProgressProc(UINT, ULONG, ULONG, void *)
{
    return 0;
}

INT_PTR CCabBuilder::OpenFile(char const * name, int oflag, int pmode, int * err) const
{
    // What is written (the cabinet, temporary files) is no file of the set, whatever its name.
    bool const isRead = !(oflag & (OPEN_WRITE | OPEN_READ_WRITE | OPEN_CREATE));
    CCabFileSetEntry const * const entry = isRead ? LookupFileEntry(name) : nullptr;
    if (!entry)
    {
        return FileOpenProc(ToCabPath(name), oflag, pmode, err);
    }
    return FileOpenProc(entry->FlagIsSet(CCabFileSetEntry::externFile) ? entry->BuildExternFileName()
                                                                       : BuildCallersPath(entry->GetPath()),
                        oflag, pmode, err);
}

int CCabBuilder::FileDeleteProc(char * name, int * err, void * context)
try
{
    *err = 0;
    if (IsExternFile(name))
    {
        return 0;
    }
    CString path = CUtilities::AnsiToString(static_cast<char const *>(FromContext(context).ToCabPath(name)));
    CUtilities::CheckFixLongFilePathPrefix(path);
    if (::DeleteFileW(path))
    {
        return 0;
    }
    DWORD const error = GetLastError();
    // Of the numbers for opening only these are told here.
    bool const isMapped = error != ERROR_TOO_MANY_OPEN_FILES && error != ERROR_FILE_EXISTS &&
                          error != ERROR_ALREADY_EXISTS && error != ERROR_INVALID_PARAMETER;
    *err = isMapped ? ToErrorNumber(error) : static_cast<int>(error);
    return -1;
}
catch (...) // the engine's destructor calls it
{
    *err = ToErrorNumber(static_cast<DWORD>(kvx::CodeWithoutMemory()));
    return -1;
}

BOOL CCabBuilder::GetTempFileProc(char * name, int size, void *)
{
    CString const path = CUtilities::BuildTempPath(CUniqueID::CreateGuid().ToString() + _T(".tmp"), 1);
    CStringA const bytes = CUtilities::StringToAnsi(path);
    if (bytes.GetLength() >= size)
    {
        return FALSE;
    }
    std::strcpy(name, bytes);
    return TRUE;
}

INT_PTR CCabBuilder::GetFileInfoProc(char * name, USHORT * date, USHORT * time, USHORT * attributes, int * err,
                                     void * context)
{
    *err = 0;
    if (IsExternFile(name))
    {
        SYSTEMTIME now;
        FILETIME local;
        GetLocalTime(&now);
        SystemTimeToFileTime(&now, &local);
        FileTimeToDosDateTime(&local, date, time);
        *attributes = 0;
    }
    else if (!ReadFileInfo(name, date, time, attributes))
    {
        *err = ToErrorNumber(GetLastError());
        return -1;
    }
    return FromContext(context).OpenFile(name, OPEN_BINARY, 0, err);
}
