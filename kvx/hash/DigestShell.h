#pragma once

/// What CMD5Checksum, CSHA1 and CSHA256 do alike.

#include "kvx/foundation/Utilities.h"

#include <cstdint>
#include <memory>
#include <span>

namespace kvx::hash
{
/// Two lower-case digits for each byte.
inline CString ToDigits(std::span<std::uint8_t const> bytes)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    CString text;
    WCHAR * out = text.GetBufferSetLength(static_cast<int>(2 * bytes.size()));
    for (std::uint8_t const byte : bytes)
    {
        *out++ = static_cast<WCHAR>(DIGITS[byte >> 4]);
        *out++ = static_cast<WCHAR>(DIGITS[byte & 15]);
    }
    return text;
}

/// The action's digest, or `failure` if it throws anything.
template <class ACTION>
CString DigestOr(LPCTSTR failure, ACTION const & action)
{
    try
    {
        return action();
    }
    catch (CException * exception)
    {
        exception->Delete();
    }
    catch (...)
    {
    }
    return failure;
}

template <class DIGEST>
CString DigestOfFile(CFile & file, LPCTSTR failure)
{
    auto const read = [&]
    {
        constexpr UINT PIECE = 65536;
        file.RequireBytes();
        auto const buffer = std::make_unique<BYTE[]>(PIECE);
        DIGEST digest;
        file.SeekToBegin();
        while (UINT const count = file.Read(buffer.get(), PIECE))
        {
            digest.Update(buffer.get(), count);
        }
        file.SeekToBegin();
        return digest.Final();
    };
    CFileException * pPassedOn = nullptr;
    CString const text = DigestOr(failure,
                                  [&]
                                  {
                                      try
                                      {
                                          return read();
                                      }
                                      catch (CFileException * exception)
                                      {
                                          pPassedOn = exception;
                                          return CString();
                                      }
                                  });
    if (pPassedOn)
    {
        throw pPassedOn;
    }
    return text;
}

template <class DIGEST>
CString DigestOfPath(CString path, LPCTSTR failure)
{
    if (path.Find(WCHAR(0)) >= 0)
    {
        SetLastError(ERROR_INVALID_NAME); // the system would take the part in front
        return CString();
    }
    CUtilities::CheckFixLongFilePathPrefix(path);
    HANDLE const handle = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
    {
        return CString();
    }
    CString const text = DigestOr(failure,
                                  [&]
                                  {
                                      CFile file(handle);
                                      return DigestOfFile<DIGEST>(file, failure);
                                  });
    CloseHandle(handle);
    return text;
}

template <class DIGEST>
CString DigestOfBytes(unsigned char * data, unsigned int size, LPCTSTR failure)
{
    return DigestOr(failure,
                    [&]
                    {
                        DIGEST digest;
                        digest.Update(data, size);
                        return digest.Final();
                    });
}

/// A null pointer to any bytes raises CInvalidArgException.
inline std::span<std::uint8_t const> ToSpan(void const * data, std::size_t size)
{
    if (!data && size > 0)
    {
        AfxThrowInvalidArgException();
    }
    return std::span(static_cast<std::uint8_t const *>(data), size);
}
} // namespace kvx::hash
