#include "kvx/foundation/Utilities.h"

#include <algorithm>
#include <limits>

namespace
{
template <class SOURCE>
bool ReadWhole(SOURCE & source, void * out, UINT size)
{
    return source.Read(out, size) == size;
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
    target.Write(&length, sizeof length);
    if (length > 0)
    {
        target.Write(text.GetString(), static_cast<UINT>(length * sizeof(WCHAR)));
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
    archive.Write(&value, sizeof value);
    return 1;
}

int CUtilities::Write(CFile & file, CString const & text)
{
    return WriteText(file, text);
}

int CUtilities::Write(CFile & file, ULONG value)
{
    file.Write(&value, sizeof value);
    return 1;
}
