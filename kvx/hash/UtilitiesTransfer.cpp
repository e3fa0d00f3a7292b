#include "kvx/foundation/Utilities.h"

#include <algorithm>
#include <limits>

namespace
{
bool ReadWhole(CArchive & archive, void * out, UINT size)
{
    return archive.Read(out, size) == size;
}

// A pipe may deliver less than was asked for, and the rest later.
bool ReadWhole(CFile & file, void * out, UINT size)
{
    file.RequireBytes();
    auto * bytes = static_cast<BYTE *>(out);
    UINT got = 1;
    while (size > 0 && got > 0)
    {
        got = file.Read(bytes, size);
        bytes += got;
        size -= got;
    }
    return size == 0;
}

void WriteWhole(CArchive & archive, void const * data, UINT size)
{
    archive.Write(data, size);
}

void WriteWhole(CFile & file, void const * data, UINT size)
{
    file.RequireBytes();
    file.Write(data, size);
}

template <class SOURCE>
int ReadText(SOURCE & source, CString & text)
{
    constexpr ULONG PIECE = 32768; // characters
    ULONG length = 0;
    if (!ReadWhole(source, &length, sizeof length))
    {
        return 0;
    }
    if (length > static_cast<ULONG>(std::numeric_limits<int>::max()))
    {
        return 0;
    }
    // Memory is taken as the characters come.
    CString read;
    ULONG done = 0;
    while (done < length)
    {
        ULONG const piece = std::min(length - done, std::max(PIECE, done));
        WCHAR * const room = read.GetBuffer(static_cast<int>(done + piece));
        if (!ReadWhole(source, room + done, static_cast<UINT>(piece * sizeof(WCHAR))))
        {
            return 0;
        }
        done += piece;
        read.ReleaseBuffer(static_cast<int>(done));
    }
    text = std::move(read);
    return 1;
}

template <class SOURCE>
int ReadNumber(SOURCE & source, ULONG & value)
{
    ULONG read = 0;
    if (!ReadWhole(source, &read, sizeof read))
    {
        return 0;
    }
    value = read;
    return 1;
}

template <class TARGET>
int WriteText(TARGET & target, CString const & text)
{
    ULONG const length = static_cast<ULONG>(text.GetLength());
    WriteWhole(target, &length, sizeof length);
    if (length > 0)
    {
        WriteWhole(target, text.GetString(), static_cast<UINT>(length * sizeof(WCHAR)));
    }
    return 1;
}
} // namespace

int CUtilities::Read(CArchive & archive, CString & text)
{
    return ReadText(archive, text);
}

int CUtilities::Read(CArchive & archive, ULONG & value)
{
    return ReadNumber(archive, value);
}

int CUtilities::Read(CFile & file, CString & text)
{
    return ReadText(file, text);
}

int CUtilities::Read(CFile & file, ULONG & value)
{
    return ReadNumber(file, value);
}

int CUtilities::Write(CArchive & archive, CString const & text)
{
    return WriteText(archive, text);
}

int CUtilities::Write(CArchive & archive, ULONG value)
{
    WriteWhole(archive, &value, sizeof value);
    return 1;
}

int CUtilities::Write(CFile & file, CString const & text)
{
    return WriteText(file, text);
}

int CUtilities::Write(CFile & file, ULONG value)
{
    WriteWhole(file, &value, sizeof value);
    return 1;
}
