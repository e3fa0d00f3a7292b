#include "kvx/cabinet/CabBase.h"

#include "kvx/cabinet/CabNames.h"
#include "kvx/cabinet/OpenFlags.h"
#include "kvx/files/FilePath.h"
#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"

#include <cstdlib>

using namespace kvx::cabinet;

namespace
{
constexpr int NO_FILE = 2; // the C library's error numbers, the same on every host
constexpr int BAD_HANDLE = 9;
constexpr int NO_ACCESS = 13;
constexpr int EXISTS = 17;
constexpr int BAD_ARGUMENT = 22;
constexpr int TOO_MANY_FILES = 24;
constexpr int NO_SPACE = 28;

int SetErr(int * err, int value)
{
    if (err)
    {
        *err = value;
    }
    return -1;
}

// Does something with a caller's file. Whatever it raises becomes `Failed(code)`, which gives the error number for the
// Win32 error.
template <class WORK, class FAILED>
bool WithFile(int * err, WORK work, FAILED failed)
{
    SetErr(err, 0);
    try
    {
        work();
        return true;
    }
    catch (CFileException * exception)
    {
        DWORD const code = exception->m_lOsError > 0 ? static_cast<DWORD>(exception->m_lOsError) : GetLastError();
        exception->Delete();
        SetErr(err, failed(code));
    }
    catch (CException * exception)
    {
        exception->Delete();
        SetErr(err, failed(0));
    }
    catch (std::exception const &)
    {
        SetErr(err, failed(0));
    }
    return false;
}

int BadHandle(DWORD)
{
    return BAD_HANDLE;
}
} // namespace

CCabBase::CCabBase(char const * defaultDirectory)
{
    SetDefaultDirectory(defaultDirectory);
}

CCabBase::~CCabBase() = default;

void CCabBase::SetDefaultDirectory(char const * directory)
{
    m_strDefaultDirectory = directory;
    CloseDirectory(m_strDefaultDirectory);
}

CStringA CCabBase::BuildFullPath(char const * name) const
{
    return CUtilities::IsAbsolutePath(CUtilities::AnsiToString(name)) ? CStringA(name) : m_strDefaultDirectory + name;
}

CCabFileSetEntry * CCabBase::LookupFileEntry(char const * name) const
{
    return m_pFileSet ? m_pFileSet->LookupFileEntry(name) : nullptr;
}

CFile * CCabBase::OpenCabFile(char const * name, int oflag, int pmode, int & err)
{
    err = 0;
    if (oflag & OPEN_TEXT)
    {
        err = BAD_ARGUMENT;
        return nullptr;
    }
    DWORD access = GENERIC_READ;
    if (oflag & OPEN_READ_WRITE)
    {
        access = GENERIC_READ | GENERIC_WRITE;
    }
    else if (oflag & OPEN_WRITE)
    {
        access = GENERIC_WRITE;
    }
    else
    {
        pmode |= OPEN_PERMISSION_READ;
    }
    DWORD attributes = FILE_ATTRIBUTE_NORMAL;
    attributes |= oflag & OPEN_RANDOM ? FILE_FLAG_RANDOM_ACCESS : 0;
    attributes |= oflag & OPEN_SEQUENTIAL ? FILE_FLAG_SEQUENTIAL_SCAN : 0;
    if (oflag & OPEN_CREATE)
    {
        attributes |= oflag & OPEN_SHORT_LIVED ? FILE_ATTRIBUTE_TEMPORARY : 0;
        attributes |= oflag & OPEN_TEMPORARY ? FILE_FLAG_DELETE_ON_CLOSE : 0;
    }
    DWORD const share =
        (pmode & OPEN_PERMISSION_READ ? FILE_SHARE_READ : 0) | (pmode & OPEN_PERMISSION_WRITE ? FILE_SHARE_WRITE : 0);
    DWORD const creation = oflag & OPEN_CREATE     ? CREATE_ALWAYS
                           : oflag & OPEN_TRUNCATE ? TRUNCATE_EXISTING
                                                   : OPEN_EXISTING;
    CString path = CUtilities::AnsiToString(name);
    CUtilities::CreateDirectoryW(CFilePath(path).GetLocation());
    CUtilities::CheckFixLongFilePathPrefix(path);
    HANDLE const handle = CreateFileW(path, access, share, nullptr, creation, attributes, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
    {
        DWORD const error = GetLastError();
        err = ToErrorNumber(error);
        LogError(_T("CCabBase::OpenCabFile Error: %s"), CWinError(error).GetText());
        SetLastError(error);
        return nullptr;
    }
    if (oflag & OPEN_APPEND)
    {
        SetFilePointer(handle, 0, nullptr, FILE_END);
    }
    try
    {
        return new CFile(handle);
    }
    catch (CMemoryException *)
    {
        CloseHandle(handle);
        throw;
    }
}

int CCabBase::ToErrorNumber(DWORD error)
{
    switch (error)
    {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
        return NO_FILE;
    case ERROR_TOO_MANY_OPEN_FILES:
        return TOO_MANY_FILES;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
        return NO_ACCESS;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
        return EXISTS;
    case ERROR_INVALID_PARAMETER:
        return BAD_ARGUMENT;
    default:
        return static_cast<int>(error);
    }
}

CStringA CCabBase::AssignCabFileEntry(CFile * file)
{
    m_pCabEntry = std::make_unique<CCabFileSetEntry>(file);
    return m_pCabEntry->BuildExternFileName();
}

void CCabBase::AssignCabPath(char const * path)
{
    CStringA const name = path;
    int const begin = FileNameIndex(name);
    m_strCabDirectory = name.Left(begin);
    m_strCabName = name.Mid(begin);
}

CCabFileSetEntry * CCabBase::GetExternFileEntry(char const * name)
{
    return CCabFileSetEntry::FromExternFileName(name);
}

CFile * CCabBase::GetExternFilePtr(char const * name)
{
    CCabFileSetEntry const * const entry = GetExternFileEntry(name);
    return entry ? entry->GetFile() : nullptr;
}

void * CCabBase::MemAllocProc(ULONG size)
{
    return std::malloc(size);
}

void CCabBase::MemFreeProc(void * memory)
{
    std::free(memory);
}

INT_PTR CCabBase::FileOpenProc(char const * name, int oflag, int pmode, int * err)
{
    SetErr(err, 0);
    if (IsExternFile(name))
    {
        CCabFileSetEntry * const entry = GetExternFileEntry(name);
        return entry && entry->GetFile() ? reinterpret_cast<INT_PTR>(entry) : SetErr(err, NO_FILE);
    }
    int error = 0;
    auto entry = std::make_unique<CCabFileSetEntry>(); // first: a file that is open needs somebody to close it
    entry->SetPath(name);
    entry->SetTemporary(1);
    CFile * const file = OpenCabFile(name, oflag, pmode, error);
    if (!file)
    {
        entry->SetTemporary(0);
        return SetErr(err, error);
    }
    entry->SetFile(file);
    return reinterpret_cast<INT_PTR>(entry.release());
}

UINT CCabBase::FileReadProc(INT_PTR handle, void * memory, UINT size, int * err)
{
    UINT count = 0;
    bool const isRead = WithFile(
        err,
        [&]
        {
            GetFilePtr(handle)->RequireBytes();
            count = GetFilePtr(handle)->Read(memory, size);
        },
        BadHandle);
    return isRead ? count : static_cast<UINT>(-1);
}

UINT CCabBase::FileWriteProc(INT_PTR handle, void * memory, UINT size, int * err)
{
    bool const isWritten = WithFile(
        err,
        [&]
        {
            GetFilePtr(handle)->RequireBytes();
            GetFilePtr(handle)->Write(memory, size);
        },
        [](DWORD code) { return code == ERROR_HANDLE_DISK_FULL || code == ERROR_DISK_FULL ? NO_SPACE : BAD_HANDLE; });
    return isWritten ? size : static_cast<UINT>(-1);
}

int CCabBase::FileCloseProc(INT_PTR handle, int * err)
{
    CCabFileSetEntry * const entry = GetFileEntry(handle);
    if (entry->FlagIsSet(CCabFileSetEntry::externFile))
    {
        return WithFile(
                   err, [&] { entry->GetFile()->SeekToBegin(); }, BadHandle)
                   ? 0
                   : -1;
    }
    std::unique_ptr<CFile> const file(entry->GetFile());
    entry->SetFile(nullptr);
    if (entry->IsTemporary())
    {
        delete entry;
    }
    return WithFile(
               err, [&] { file->Close(); }, BadHandle)
               ? 0
               : -1;
}

LONG CCabBase::FileSeekProc(INT_PTR handle, LONG distance, int origin, int * err)
{
    if (origin < SEEK_SET || origin > SEEK_END)
    {
        return SetErr(err, BAD_ARGUMENT);
    }
    LONG position = -1;
    bool const isDone = WithFile(
        err,
        [&]
        {
            // Not all files give the new position.
            CFile * const file = GetFilePtr(handle);
            file->Seek(distance, origin == SEEK_SET ? CFile::begin : origin == SEEK_CUR ? CFile::current : CFile::end);
            position = static_cast<LONG>(file->GetPosition());
        },
        [](DWORD code) { return code == ERROR_INVALID_PARAMETER ? BAD_ARGUMENT : BAD_HANDLE; });
    return isDone ? position : -1;
}
