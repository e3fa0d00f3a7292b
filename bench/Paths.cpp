/// Files by name, against the bare system call: a name that is there, one that isn't, one in another case, and files
/// that come to be. A name is found without regard to case, and that must not cost a look at its folder. --folder=PATH
/// chooses the file system.

#include "Harness.h"

#include "kvx/platform/mfc/Afx.h"

#include <filesystem>
#include <string>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
using namespace bench;

constexpr double MOST = 3; // of the bare call
constexpr int CALLS = 1000;

void Create(std::string const & path)
{
    int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
    {
        Fail("cannot create " + path);
    }
    ::close(fd);
}

void CreateOurs(std::string const & path)
{
    HANDLE const file = CreateFileW(CString(kvx::FromUtf8(path)), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
    {
        Fail("cannot create " + path + ": " + std::to_string(GetLastError()));
    }
    CloseHandle(file);
}

/// Nanoseconds of each call.
template <class CALL>
double Repeat(CALL const & call)
{
    auto const start = Clock::now();
    for (int i = 0; i < CALLS; ++i)
    {
        call();
    }
    return Since(start) / CALLS;
}

/// Nanoseconds of each file, in a folder that goes afterwards.
template <class CREATE>
double Fill(std::string const & parent, int files, CREATE const & create)
{
    std::string const folder = parent + "/new";
    ::mkdir(folder.c_str(), 0700);
    auto const start = Clock::now();
    for (int i = 0; i < files; ++i)
    {
        create(folder + "/New file " + std::to_string(i));
    }
    double const time = Since(start) / files;
    std::filesystem::remove_all(folder);
    return time;
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const rounds = options.IsBrief() ? 2 : 50;
    std::string folder = options.Get("folder", "/tmp") + "/kvx-bench-paths-XXXXXX";
    if (!::mkdtemp(folder.data()))
    {
        Fail("cannot make a folder");
    }
    for (int const files : {10, options.IsBrief() ? 1000 : 40000})
    {
        std::string const holder = folder + "/" + std::to_string(files);
        ::mkdir(holder.c_str(), 0700);
        for (int i = 0; i < files; ++i)
        {
            Create(holder + "/File " + std::to_string(i));
        }
        auto const compare = [&](std::string const & name, std::string const & ours, std::string const & bare)
        {
            std::string const path = holder + bare;
            CString const wide(kvx::FromUtf8(holder + ours));
            struct stat info;
            Compare(
                {name + ", " + std::to_string(files) + " files", 0, 0, Target::AtMost, MOST}, rounds,
                [&] { return Repeat([&] { (void)GetFileAttributesW(wide); }); },
                [&] { return Repeat([&] { (void)::lstat(path.c_str(), &info); }); });
        };
        compare("existing name", "/File 7", "/File 7");
        compare("missing name", "/Nothing 7", "/Nothing 7");
        compare("name in another case", "/FILE 7", "/File 7");
        CString const missing(kvx::FromUtf8(holder + "/Nothing 8"));
        std::string const path = holder + "/Nothing 8";
        Compare(
            {"open a missing name, " + std::to_string(files) + " files", 0, 0, Target::AtMost, MOST}, rounds,
            [&] {
                return Repeat([&] { (void)CreateFileW(missing, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr); });
            },
            [&] { return Repeat([&] { (void)::open(path.c_str(), O_RDONLY | O_CLOEXEC); }); });
    }
    int const files = options.IsBrief() ? 500 : 20000;
    Compare(
        {"create " + std::to_string(files) + " files", 0, 0, Target::AtMost, MOST}, options.IsBrief() ? 1 : 5,
        [&] { return Fill(folder, files, CreateOurs); }, [&] { return Fill(folder, files, Create); });
    std::filesystem::remove_all(folder);
    return 0;
}
