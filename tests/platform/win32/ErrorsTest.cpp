#include "kvx/platform/win32/errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace
{

std::string GetText(DWORD dwError)
{
    WCHAR buffer[256];
    DWORD const nLength = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, dwError, 0, buffer, 256, nullptr);
    EXPECT_TRUE(nLength == 0 || buffer[nLength] == 0);
    return std::string(buffer, buffer + nLength);
}

TEST(Errors, TextsComeFromTheHostAndEndInALineEnd)
{
    EXPECT_EQ(GetText(ERROR_ACCESS_DENIED), std::strerror(EACCES) + std::string("\r\n"));
    EXPECT_EQ(GetText(ERROR_FILE_NOT_FOUND), std::strerror(ENOENT) + std::string("\r\n"));
    EXPECT_EQ(GetText(WSAECONNREFUSED), std::strerror(ECONNREFUSED) + std::string("\r\n"));
    EXPECT_EQ(GetText(WSAENOTSOCK), std::strerror(ENOTSOCK) + std::string("\r\n"));
}

TEST(Errors, CodesWithoutErrnoHaveTexts)
{
    for (DWORD const dwError :
         {0,   6,   12,  13,  14,  18,  22,  38,  80,  87,   110,  121,  122,  123,  126,  127,  161,   183,
          232, 267, 288, 298, 487, 535, 536, 995, 996, 1168, 1223, 1243, 1314, 1359, 1460, 5010, 10101, 11001})
        EXPECT_GT(GetText(dwError).size(), 4u) << dwError;
}

TEST(Errors, UnknownCodesAndSmallBuffersFail)
{
    WCHAR buffer[64];
    EXPECT_EQ(GetText(0xDEADBEEF), "");
    EXPECT_EQ(GetLastError(), DWORD(ERROR_MR_MID_NOT_FOUND));
    DWORD const nLength = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, 1168, 0,
                                         buffer, 64, nullptr);
    ASSERT_GT(nLength, 0u);
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 1168, 0, buffer, nLength, nullptr), 0u);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 1168, 0, buffer, nLength + 1, nullptr), nLength);
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | 0x100, nullptr, 5, 0, buffer, 64, nullptr), 0u);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_FLAGS));
}

TEST(Errors, OneTableServesBothColumns)
{
    EXPECT_EQ(kvx::win32::ErrorFromErrno(0), 0u);
    EXPECT_EQ(kvx::win32::ErrorFromErrno(EPIPE), DWORD(ERROR_BROKEN_PIPE));
    EXPECT_EQ(kvx::win32::ErrorFromErrno(9999), DWORD(ERROR_GEN_FAILURE));
    EXPECT_EQ(kvx::win32::WsaErrorFromErrno(EAGAIN), DWORD(WSAEWOULDBLOCK));
    EXPECT_EQ(kvx::win32::WsaErrorFromErrno(ENOENT), DWORD(ERROR_FILE_NOT_FOUND));
    errno = ENOTEMPTY;
    kvx::win32::SetLastErrorFromErrno();
    EXPECT_EQ(GetLastError(), DWORD(ERROR_DIR_NOT_EMPTY));
}

} // namespace
