#pragma once

/// What the tests ask of the host, with a source for each host: folders, the environment, counts, child processes, and
/// a client of bytes. Names of files are UTF-8 in the host's own form, with slashes.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using Strings = std::vector<std::string>;

namespace host
{
/// A new empty folder below the host's folder for temporary files. Whoever asked for it removes it.
std::string MakeFolder(std::string const & name);
/// Also what is read-only; says if something stays.
void RemoveFolder(std::string const & name);

/// For the C++ library, which takes narrow texts of Windows for something else than UTF-8.
inline std::filesystem::path ToPath(std::string_view name)
{
    return std::u8string(name.begin(), name.end());
}

/// Makes a folder the home of this process: its files for the user, its folder "tmp" for temporary ones, its folder
/// "bin" the first that is searched for programs. Returns drive C:, on Windows the one that is, else a folder of this
/// one.
std::string TakeHome(std::string const & folder);

/// A symbolic link, whose target may be missing; a folder's if `bFolder`. False where there are none.
bool MakeLink(std::string const & target, std::string const & link, bool bFolder = false);

/// Sets a variable of this process and of its children to come; null takes it away.
void SetVariable(char const * name, char const * value);

/// The program that runs.
std::string GetProgram();

/// What a module is called whose target has this name.
std::string GetModuleFile(std::string const & target);
/// Whether the file of that name is part of the process's memory.
bool IsMapped(std::string const & file);

/// Has the system refuse new threads to this process, or no longer. False where it can't be made to.
bool AllowThreads(bool bAllow);

/// What is given back to the heap doesn't keep what stood there, where the C library can do that.
void SpoilFreedMemory(bool bSpoil);
/// All threads share one heap and its lock, from now on.
void UseOneHeap();

/// Folders of that name within each other, and a file "leaf" in the last, however long the path.
void MakeDeepFolder(std::string const & folder, std::string const & name, int depth);

/// What the process holds open: descriptors, or handles.
std::size_t CountHandles();
std::size_t CountThreads();
/// Returns when these threads, by the host's numbers, sleep in the kernel; where the host doesn't tell, when they have
/// had the time for it.
void WaitUntilAsleep(std::vector<unsigned long> const & threads);

/// What a process has for its stdout.
enum class Stdout
{
    Pipe,      // which the test reads
    Terminal,  // which the test reads, and which is its stderr too: POSIX alone
    Abandoned, // a pipe that nobody reads any more
    Full,      // a disk without space: POSIX alone
    Closed
};

/// Whether a process may be asked to end, for which Windows must give it a console: that takes time.
enum class End
{
    Any,
    Unasked
};

/// Another program, or this one again. One that still runs at the end is killed.
class Process
{
public:
    using Variables = std::vector<std::pair<char const *, std::string>>;

    /// `words` are the program and its arguments; the variables are the child's alone; `input` is the file that is its
    /// stdin, if any. Throws if it doesn't start.
    explicit Process(Strings const & words, Stdout out = Stdout::Pipe, Variables const & variables = {},
                     std::string const & input = {}, End end = End::Any);
    Process(Process const &) = delete;
    Process & operator=(Process const &) = delete;
    ~Process();

    /// The next line of its stdout, without the line end; what there is if it ends before.
    std::string ReadLine() const;
    /// The rest of the next line of its stdout that Report wrote, over what else is there; empty at the end.
    std::string ReadReport() const;
    /// What it has written to stderr so far.
    std::string PeekErr() const;
    bool HasEnded() const;
    /// Waits for its end: the exit status, or minus the number of what killed it. What it wrote is then in the two
    /// texts.
    int Wait();

    /// Asks it to end: as the user does (SIGINT, Ctrl+C), or as the system does (SIGTERM, Ctrl+Break).
    void Interrupt() const;
    void Terminate() const;
    /// Ends it with no chance to do anything; what Wait then returns.
    int Kill();
    /// Lets none of its threads run, or all again.
    void Stop() const;
    void Continue() const;

    unsigned long GetId() const;
    /// Resident memory in MB.
    long GetMemory() const;

    std::string strOut;
    std::string strErr;

private:
    /// False at the end of its stdout, with what there is.
    bool TakeLine(std::string & line) const;

    struct Parts;
    std::unique_ptr<Parts> const m_parts;
};

/// Tells the test that started this process, for its ReadReport.
void Report(std::string_view text);

/// A TCP client that speaks bytes.
class RawClient
{
public:
    explicit RawClient(int port);
    RawClient(RawClient const &) = delete;
    RawClient & operator=(RawClient const &) = delete;
    ~RawClient();

    void Send(std::string_view bytes) const;
    void EndSending() const;
    /// Exactly so many bytes; less at the end of the link, or after 10 seconds of silence.
    std::string Receive(std::size_t count) const;
    /// Whether the server has ended the link, once what it still sends has been read.
    bool IsEnded() const;

private:
    std::intptr_t m_nSocket;
};
} // namespace host
