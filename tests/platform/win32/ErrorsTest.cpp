#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"

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
    KVX_LINUX_ALONE("the texts are the C library's", "2026-11-22");
    EXPECT_EQ(GetText(ERROR_ACCESS_DENIED), std::strerror(EACCES) + std::string("\r\n"));
    EXPECT_EQ(GetText(ERROR_FILE_NOT_FOUND), std::strerror(ENOENT) + std::string("\r\n"));
    EXPECT_EQ(GetText(WSAECONNREFUSED), std::strerror(ECONNREFUSED) + std::string("\r\n"));
    EXPECT_NE(GetText(ERROR_BAD_ENVIRONMENT).find("KVX_RUNTIME_DIR"), std::string::npos);
    EXPECT_EQ(GetText(WSAENOTSOCK), std::strerror(ENOTSOCK) + std::string("\r\n"));
}

TEST(Errors, UnknownCodesAndSmallBuffersFail)
{
    WCHAR buffer[64];
    EXPECT_TRUE(Fails(GetText(0xDEADBEEF), ERROR_MR_MID_NOT_FOUND, ""));
    DWORD const nLength = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, 1168, 0,
                                         buffer, 64, nullptr);
    ASSERT_GT(nLength, 0u);
    EXPECT_TRUE(Fails(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 1168, 0, buffer, nLength, nullptr),
                      ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 1168, 0, buffer, nLength + 1, nullptr), nLength);
    EXPECT_TRUE(host::IsWindows() || // allocates the text (2026-11-22)
                Fails(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | 0x100, nullptr, 5, 0, buffer, 64, nullptr),
                      ERROR_INVALID_FLAGS));
}

} // namespace
