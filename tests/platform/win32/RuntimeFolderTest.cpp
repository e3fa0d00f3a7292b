#include "NamedFixture.h"
#include "kvx/platform/win32/runtime_dir.h"
#include "tests/support/Fails.h"

#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

using RuntimeFolder = Named;

namespace
{

TEST_F(RuntimeFolder, MustBePrivate)
{
    ::chmod(m_folder.c_str(), 0750);
    EXPECT_TRUE(Fails<HANDLE>(Create(_T("x")), ERROR_BAD_ENVIRONMENT)); // its text tells the way on
    ::chmod(m_folder.c_str(), 0700);
    std::filesystem::create_directory_symlink(m_folder, m_folder / "link");
    ::setenv("KVX_RUNTIME_DIR", (m_folder / "link").c_str(), 1);
    EXPECT_TRUE(Fails<HANDLE>(Create(_T("x")), ERROR_BAD_ENVIRONMENT));
    ::setenv("KVX_RUNTIME_DIR", (m_folder / "made").c_str(), 1);
    EXPECT_NE(HANDLE(Create(_T("x"))), nullptr);
    EXPECT_EQ(std::filesystem::status(m_folder / "made").permissions(), std::filesystem::perms::owner_all);
    if (::geteuid() == 0) // nobody else can make what belongs to another user
    {
        ::chown((m_folder / "made").c_str(), 65534, 65534);
        EXPECT_TRUE(Fails<HANDLE>(Create(_T("x")), ERROR_BAD_ENVIRONMENT));
    }
}

TEST_F(RuntimeFolder, IsThisUsersAndStaysWhereItIs)
{
    // Somebody else's folder, which this process may be able to write to all the same.
    std::filesystem::path const others = ::geteuid() == 0 ? m_folder / "others" : std::filesystem::path("/proc");
    std::filesystem::create_directories(others);
    [[maybe_unused]] int const nIgnored = ::chown(others.c_str(), 65534, 65534);
    std::string const strBefore = std::getenv("XDG_RUNTIME_DIR") ? std::getenv("XDG_RUNTIME_DIR") : "";
    ::unsetenv("KVX_RUNTIME_DIR");
    ::setenv("XDG_RUNTIME_DIR", others.c_str(), 1);
    EXPECT_EQ(kvx::win32::GetRuntimeFolder(), "/tmp/kvx-" + std::to_string(::geteuid()));
    EXPECT_FALSE(std::filesystem::exists(others / "kvx"));
    ::setenv("XDG_RUNTIME_DIR", m_folder.c_str(), 1);
    EXPECT_EQ(kvx::win32::GetRuntimeFolder(), m_folder / "kvx");
    ::setenv("XDG_RUNTIME_DIR", strBefore.c_str(), 1);

    std::filesystem::path const before = std::filesystem::current_path();
    std::filesystem::current_path(m_folder);
    ::setenv("KVX_RUNTIME_DIR", "sub/", 1);
    std::string const strFirst = kvx::win32::GetRuntimeFolder();
    EXPECT_EQ(strFirst, m_folder / "sub");
    std::filesystem::current_path("/");
    EXPECT_EQ(kvx::win32::GetRuntimeFolder(), strFirst);
    std::filesystem::current_path(before);
}

} // namespace
