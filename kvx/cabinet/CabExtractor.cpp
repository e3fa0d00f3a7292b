#include "kvx/cabinet/CabExtractor.h"

#include "kvx/cabinet/CabNames.h"
#include "kvx/cabinet/OpenFlags.h"
#include "kvx/foundation/Utilities.h"

#include <cstring>
#include <string_view>

using namespace kvx::cabinet;

namespace
{
constexpr std::size_t LONG_DESTINATION = 32768;

// Whether it stays below the directory that it is put behind.
bool IsConfinedName(std::string_view name)
{
    constexpr std::string_view SEPARATORS = "\\/";
    if (name.empty() || SEPARATORS.find(name[0]) != name.npos || name.find(':') != name.npos)
    {
        return false;
    }
    for (std::size_t begin = 0; begin <= name.size();)
    {
        std::size_t const end = std::min(name.find_first_of(SEPARATORS, begin), name.size());
        if (name.substr(begin, end - begin) == "..")
        {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

void SetTimes(char const * name, USHORT date, USHORT time)
{
    CString path = CUtilities::AnsiToString(name);
    CUtilities::CheckFixLongFilePathPrefix(path);
    HANDLE const handle =
        CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
    {
        return;
    }
    FILETIME local;
    FILETIME changed;
    if (DosDateTimeToFileTime(date, time, &local) && LocalFileTimeToFileTime(&local, &changed))
    {
        SetFileTime(handle, &changed, nullptr, &changed);
    }
    CloseHandle(handle);
}

void SetAttributes(char const * name, DWORD attributes)
{
    CString path = CUtilities::AnsiToString(name);
    CUtilities::CheckFixLongFilePathPrefix(path);
    SetFileAttributesW(path, attributes);
}
} // namespace

CCabExtractor::CCabExtractor(char const * defaultDirectory)
    : CCabBase(*defaultDirectory ? CStringA(defaultDirectory)
                                 : CUtilities::StringToAnsi(CUtilities::GetCurrentDirectoryW()))
{
    CabDecompression::Callbacks callbacks = {};
    callbacks.alloc = MemAllocProc;
    callbacks.free = MemFreeProc;
    callbacks.open = [](char * name, int oflag, int pmode) { return FileOpenProc(name, oflag, pmode, nullptr); };
    callbacks.read = [](INT_PTR handle, void * memory, UINT size)
    { return FileReadProc(handle, memory, size, nullptr); };
    callbacks.write = [](INT_PTR handle, void * memory, UINT size)
    { return FileWriteProc(handle, memory, size, nullptr); };
    callbacks.close = [](INT_PTR handle) { return FileCloseProc(handle, nullptr); };
    callbacks.seek = [](INT_PTR handle, LONG distance, int origin)
    { return FileSeekProc(handle, distance, origin, nullptr); };
    m_engine = CabDecompression::Create(callbacks, &m_erf);
}

CCabExtractor::~CCabExtractor() = default;

int CCabExtractor::Extract(char const * cabPath, CCabFileSet & files, char const * destination)
{
    FileSetInHand const inHand(*this, files);
    return Extract(cabPath, 1, destination);
}

int CCabExtractor::Extract(CFile * file, int followChain, char const * destination)
{
    return Extract(AssignCabFileEntry(file), followChain, destination);
}

int CCabExtractor::Extract(CFile * file, CCabFileSet & files, char const * destination)
{
    return Extract(AssignCabFileEntry(file), files, destination);
}

int CCabExtractor::ListContents(char const * cabPath, CCabFileSet & files)
{
    struct Listing
    {
        int & flag;
        explicit Listing(int & listOnly) : flag(listOnly) { flag = 1; }
        ~Listing() { flag = 0; }
    } const listing(m_bListOnly);
    return Extract(cabPath, files, "");
}

int CCabExtractor::GetCabInfo(char const * cabPath, FDICABINETINFO & info)
{
    INT_PTR const handle = FileOpenProc(cabPath, OPEN_SEQUENTIAL, 0, nullptr);
    if (handle == -1)
    {
        m_erf = {FDIERROR_CABINET_NOT_FOUND, 0, TRUE};
        return 0;
    }
    SetLastError(ERROR_SUCCESS);
    int const isCabinet = m_engine->IsCabinet(handle, &info);
    FileCloseProc(handle, nullptr);
    if (!isCabinet && GetLastError() == ERROR_SUCCESS)
    {
        SetLastError(ERROR_INVALID_DATA);
    }
    return isCabinet;
}

int CCabExtractor::Extract(char const * cabPath, int followChain, char const * destination)
{
    FDICABINETINFO info = {};
    if (!m_engine || !GetCabInfo(cabPath, info))
    {
        return 0;
    }
    m_bPending = 1;
    m_nPassedOver = 0;
    m_nNextCabinet = info.iCabinet;
    AssignCabPath(cabPath);
    if (destination && *destination)
    {
        SetDefaultDirectory(destination);
    }
    else if (m_strDefaultDirectory.IsEmpty())
    {
        SetDefaultDirectory(m_strCabDirectory);
    }
    while (true)
    {
        if (!m_bPending && !FindNextCab())
        {
            return 0;
        }
        m_nCabinet = m_nNextCabinet;
        m_strNextCabPath.Empty();
        m_strNextDisk.Empty();
        m_nNextCabinet = NONE;
        m_bPending = 0;
        m_bLastCab = 0;
        m_nFileFirstCab = NONE;
        m_nFileLastCab = NONE;
        m_bFileOpen = false;
        int const result = m_engine->Copy(m_strCabName, m_strCabDirectory, NotifyProgressProc, this);
        if (!result && m_bFileOpen && !IsExternFile(m_strDestination))
        {
            CUtilities::DeleteFileW(CUtilities::AnsiToString(static_cast<char const *>(m_strDestination)), 1);
        }
        if (!followChain || !result)
        {
            return result;
        }
        // A file that ends in a later cabinet leaves those in between to go through, if only for the files that begin
        // there. A subclass that doesn't pass NotifyCabInfo on has no way to go.
        if ((m_bLastCab && m_nFileFirstCab == m_nFileLastCab) || m_nNextCabinet == NONE)
        {
            return 1;
        }
        AssignCabPath(m_strNextCabPath);
    }
}

// Looks for the cabinet that the names say, and asks as long as it isn't there.
int CCabExtractor::FindNextCab()
{
    for (int i = 0; i < NEXT_CABINET_TRIES; i++)
    {
        CStringA const path = m_strCabDirectory + m_strCabName;
        FDICABINETINFO info = {};
        if (!CUtilities::FileExists(CUtilities::AnsiToString(static_cast<char const *>(path))))
        {
            m_erf = {FDIERROR_CABINET_NOT_FOUND, 0, TRUE};
        }
        else if (!GetCabInfo(path, info))
        {
            m_erf = {FDIERROR_NOT_A_CABINET, 0, TRUE};
        }
        else if (info.iCabinet != m_nNextCabinet)
        {
            m_erf = {FDIERROR_WRONG_CABINET, 0, TRUE};
        }
        else
        {
            m_bPending = 1;
            return 1;
        }
        if (!NotifyNextCab(m_strCabName, m_strNextDisk, m_strCabDirectory, m_erf.erfOper))
        {
            m_erf = {FDIERROR_USER_ABORT, 0, TRUE};
            return 0;
        }
        CloseDirectory(m_strCabDirectory);
    }
    return 0;
}

INT_PTR CCabExtractor::NotifyProgressProc(FDINOTIFICATIONTYPE type, FDINOTIFICATION * notification)
{
    auto & self = *static_cast<CCabExtractor *>(notification->pv);
    FDINOTIFICATION & data = *notification;
    switch (type)
    {
    case fdintCABINET_INFO:
        self.m_nOpenCabinet = data.iCabinet;
        return self.NotifyCabInfo(data.setID, data.psz3, data.psz1, data.psz2, data.iCabinet) > 0 ? 0 : -1;
    case fdintPARTIAL_FILE:
        return self.NotifyPartialFile(data.psz1, data.psz2, data.psz3) > 0 ? 0 : -1;
    case fdintCOPY_FILE:
        return self.CopyFile(data);
    case fdintCLOSE_FILE_INFO:
        return self.CloseFile(data);
    case fdintNEXT_CABINET:
        return self.NextCab(data);
    case fdintENUMERATE:
        return self.NotifyEnumerate(data.setID, data.cb, data.iFolder);
    default:
        return 0;
    }
}

INT_PTR CCabExtractor::CopyFile(FDINOTIFICATION const & notification)
{
    auto const buffer = std::make_unique<char[]>(LONG_DESTINATION);
    int skip = 0;
    int const isWanted = NotifyFileCopy(notification.psz1, notification.cb, buffer.get(), skip);
    if (skip)
    {
        return 0;
    }
    if (!isWanted || !buffer[0])
    {
        return -1;
    }
    m_strDestination = buffer.get();
    if (!IsExternFile(m_strDestination))
    {
        SetAttributes(m_strDestination, FILE_ATTRIBUTE_NORMAL);
    }
    INT_PTR const handle = FileOpenProc(m_strDestination, OPEN_BINARY | OPEN_CREATE | OPEN_SEQUENTIAL | OPEN_WRITE,
                                        OPEN_PERMISSION_READ | OPEN_PERMISSION_WRITE, nullptr);
    m_nFileFirstCab = m_nOpenCabinet;
    m_bFileOpen = handle != -1;
    return handle;
}

INT_PTR CCabExtractor::CloseFile(FDINOTIFICATION const & notification)
{
    m_bFileOpen = false;
    USHORT date = notification.date;
    USHORT time = notification.time;
    USHORT attributes = notification.attribs;
    int isWanted = 0;
    try
    {
        isWanted = NotifyFileCopied(notification.psz1, date, time, attributes);
    }
    catch (...)
    {
        FileCloseProc(notification.hf, nullptr);
        throw;
    }
    FileCloseProc(notification.hf, nullptr);
    if (!isWanted)
    {
        return -1;
    }
    if (!IsExternFile(m_strDestination))
    {
        SetTimes(m_strDestination, date, time);
        SetAttributes(m_strDestination, attributes & CAB_ATTRIBUTES);
    }
    m_nFileLastCab = m_nOpenCabinet;
    return NotifyFileCopiedAndClosed(notification.psz1) ? 1 : -1;
}

INT_PTR CCabExtractor::NextCab(FDINOTIFICATION & notification)
{
    CStringA const given = notification.psz3;
    if (given.GetLength() >= DESTINATION_SIZE)
    {
        // Too long for the other form, but whole.
        CStringA changed = given;
        int const goesOn = NotifyNextCab(notification.psz1, notification.psz2, changed, notification.fdie);
        CloseDirectory(changed);
        bool const hasRoom = changed.GetLength() <= given.GetLength();
        std::strcpy(notification.psz3, hasRoom ? changed : given);
        return goesOn && hasRoom ? 0 : -1;
    }
    char directory[DESTINATION_SIZE] = {};
    std::memcpy(directory, notification.psz3, strnlen(notification.psz3, sizeof directory - 1));
    int const goesOn = NotifyNextCab(notification.psz1, notification.psz2, directory, notification.fdie);
    CStringA closed = directory;
    CloseDirectory(closed);
    std::memset(notification.psz3, 0, DESTINATION_SIZE);
    std::memcpy(notification.psz3, closed, strnlen(closed, DESTINATION_SIZE - 1));
    return goesOn ? 0 : -1;
}

int CCabExtractor::NotifyNextCab(char const *, char const *, CStringA &, int)
{
    return 1;
}

int CCabExtractor::NotifyNextCab(char const * cabName, char const * diskName, char * directory, int error)
{
    CStringA changed = directory;
    int const goesOn = NotifyNextCab(cabName, diskName, changed, error);
    if (changed.GetLength() >= DESTINATION_SIZE)
    {
        return 0;
    }
    std::strcpy(directory, changed);
    return goesOn;
}

int CCabExtractor::NotifyCabInfo(USHORT, char const * path, char const * nextCabName, char const * nextDiskName,
                                 int number)
{
    m_bLastCab = !*nextDiskName;
    // Of the cabinets that a long file leads to, the first is the next to go through.
    if (number == m_nCabinet && !m_bLastCab)
    {
        m_strNextCabPath = CStringA(path) + nextCabName;
        m_strNextDisk = nextDiskName;
        m_nNextCabinet = number + 1;
    }
    return 1;
}

int CCabExtractor::NotifyPartialFile(char const *, char const *, char const *)
{
    return 1;
}

int CCabExtractor::NotifyFileCopy(char const * name, LONG, char * destination, int & skip)
{
    if (m_bListOnly)
    {
        m_pFileSet->AddFile(name, name, 0, 1);
        skip = 1;
        return 1;
    }
    CStringA path = BuildFullPath(name);
    bool isCallers = false;
    if (m_pFileSet)
    {
        CCabFileSetEntry const * const entry = LookupFileEntry(name);
        if (!entry)
        {
            skip = 1;
            return 0;
        }
        if (entry->FlagIsSet(CCabFileSetEntry::externFile))
        {
            entry->BuildExternFileName(destination);
            return 1;
        }
        // A list of a cabinet's contents has its names for paths: those are no caller's.
        isCallers = !entry->GetPath().IsEmpty() && entry->GetPath() != name;
        path = isCallers ? BuildCallersPath(entry->GetPath()) : path;
    }
    if (!isCallers && m_bConfined && !IsConfinedName(name))
    {
        m_nPassedOver++;
        skip = 1;
        return 1;
    }
    if (static_cast<std::size_t>(path.GetLength()) >= LONG_DESTINATION)
    {
        return 0;
    }
    std::strcpy(destination, path);
    return 1;
}

int CCabExtractor::NotifyFileCopied(char const *, USHORT &, USHORT &, USHORT &)
{
    return 1;
}

int CCabExtractor::NotifyFileCopiedAndClosed(char const *)
{
    return 1;
}

int CCabExtractor::NotifyEnumerate(USHORT, LONG &, USHORT &)
{
    return 1;
}
