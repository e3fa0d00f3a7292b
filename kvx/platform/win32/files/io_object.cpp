#include "kvx/platform/win32/files/io_object.h"

#include <new>

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/files.h"

using namespace kvx::win32;

BOOL ReadFile(HANDLE hFile, LPVOID pBuffer, DWORD nBytes, LPDWORD pnRead, LPOVERLAPPED pOverlapped)
try
{
    DWORD nRead = 0;
    BOOL bDone = FALSE;
    if (Ref<IoObject> const file = FindObject<IoObject>(hFile))
    {
        bDone = file->Read(pBuffer, nBytes, nRead, pOverlapped);
    }
    if (pnRead)
    {
        *pnRead = nRead;
    }
    return bDone;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL WriteFile(HANDLE hFile, LPCVOID pBuffer, DWORD nBytes, LPDWORD pnWritten, LPOVERLAPPED pOverlapped)
try
{
    DWORD nWritten = 0;
    BOOL bDone = FALSE;
    if (Ref<IoObject> const file = FindObject<IoObject>(hFile))
    {
        bDone = file->Write(pBuffer, nBytes, nWritten, pOverlapped);
    }
    if (pnWritten)
    {
        *pnWritten = nWritten;
    }
    return bDone;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL FlushFileBuffers(HANDLE hFile)
{
    Ref<IoObject> const file = FindObject<IoObject>(hFile);
    return file ? file->Flush() : FALSE;
}

DWORD GetFileType(HANDLE hFile)
{
    Ref<KernelObject> const object = FindObject<KernelObject>(hFile);
    if (!object)
    {
        return FILE_TYPE_UNKNOWN;
    }
    if (object->GetKind() == Kind::Socket)
    {
        return FILE_TYPE_PIPE;
    }
    if (IoObject::Matches(object->GetKind()))
    {
        return static_cast<IoObject const &>(*object).GetType();
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return FILE_TYPE_UNKNOWN;
}
