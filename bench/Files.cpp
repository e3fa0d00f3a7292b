/// Trees of folders, against the system's own programs on a tree of the same kind: counting and listing against find,
/// clearing against rm. --files=COUNT chooses how many files, --folder=PATH the file system.

#include "Harness.h"

#include "kvx/foundation/Utilities.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
using namespace bench;

constexpr double MOST = 1.3; // of the program's time
constexpr int FILES_IN_FOLDER = 1000;

/// Empty files, so many to a folder.
void MakeTree(std::string const & root, int files)
{
    ::mkdir(root.c_str(), 0700);
    for (int i = 0; i < files; ++i)
    {
        std::string const folder = root + "/folder " + std::to_string(i / FILES_IN_FOLDER);
        if (i % FILES_IN_FOLDER == 0)
        {
            ::mkdir(folder.c_str(), 0700);
        }
        std::string const path = folder + "/some file " + std::to_string(i) + ".txt";
        int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0)
        {
            Fail("cannot create " + path);
        }
        ::close(fd);
    }
}

/// Runs a program with its output thrown away.
void RunProgram(std::vector<std::string> words)
{
    std::vector<char *> arguments;
    for (std::string & word : words)
    {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t process = 0;
    int status = 1;
    if (posix_spawnp(&process, arguments[0], &actions, nullptr, arguments.data(), environ) != 0 ||
        ::waitpid(process, &status, 0) < 0 || status != 0)
    {
        Fail(words[0] + " failed");
    }
    posix_spawn_file_actions_destroy(&actions);
}

/// Nanoseconds of each file.
template <class CALL>
double PerFile(int files, CALL const & call)
{
    auto const start = Clock::now();
    call();
    return Since(start) / files;
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const files = options.GetNumber("files", options.IsBrief() ? 2000 : 100000);
    int const rounds = options.IsBrief() ? 2 : options.GetNumber("rounds", 7);
    std::string folder = options.Get("folder", "/tmp") + "/kvx-bench-files-XXXXXX";
    if (!::mkdtemp(folder.data()))
    {
        Fail("cannot make a folder");
    }
    std::string const tree = folder + "/tree";
    CString const path(kvx::FromUtf8(tree));
    MakeTree(tree, files);
    auto const find = [&] { return PerFile(files, [&] { RunProgram({"find", tree, "-type", "f"}); }); };
    if (options.Wants("count"))
    {
        Compare(
            {"count, find's time", 0, 0, Target::AtMost, MOST}, rounds,
            [&]
            {
                int count = 0;
                double const time =
                    PerFile(files, [&] { count = CUtilities::GetDirectoryFileCount(path, nullptr, 1); });
                return count == files ? time : (Fail("counted " + std::to_string(count)), 0.0);
            },
            find);
    }
    if (options.Wants("list"))
    {
        Compare(
            {"list, find's time", 0, 0, Target::AtMost, MOST}, rounds,
            [&]
            {
                CStringList list;
                double const time = PerFile(files, [&] { CUtilities::GetFilesInDirectory(path, list, 1); });
                return list.GetCount() == files ? time : (Fail("not all were listed"), 0.0);
            },
            find);
    }
    if (options.Wants("clear"))
    {
        auto const cleared = [&](auto const & call)
        {
            if (!std::filesystem::exists(tree))
            {
                MakeTree(tree, files);
            }
            double const time = PerFile(files, call);
            return std::filesystem::exists(tree) ? (Fail("something is left"), 0.0) : time;
        };
        Compare(
            {"clear, rm's time", 0, 0, Target::AtMost, MOST}, rounds,
            [&] { return cleared([&] { CUtilities::ClearDirectory(path, 1); }); },
            [&] {
                return cleared([&] { RunProgram({"rm", "-r", tree}); });
            });
    }
    std::filesystem::remove_all(folder);
    return 0;
}
