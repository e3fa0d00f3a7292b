#pragma once

/// What the tests ask of the host, with a source for each host: folders, the environment, counts, child processes, and
/// a client of bytes. Names of files are UTF-8 in the host's own form, with slashes.

#include <cstddef>
#include <cstdint>
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

/// Sets a variable of this process and of its children to come; null takes it away.
void SetVariable(char const * name, char const * value);

/// The program that runs.
std::string GetProgram();

/// What the process holds open: descriptors, or handles.
std::size_t CountHandles();
std::size_t CountThreads();

/// What a process has for its stdout.
enum class Stdout
{
    Pipe,      // which the test reads
    Terminal,  // which the test reads, and which is its stderr too: POSIX alone
    Abandoned, // a pipe that nobody reads any more
    Full,      // a disk without space: POSIX alone
    Closed
};

/// Another program, or this one again. One that still runs at the end is killed.
class Process
{
public:
    using Variables = std::vector<std::pair<char const *, std::string>>;

    /// `words` are the program and its arguments; the variables are the child's alone. Throws if it doesn't start.
    explicit Process(Strings const & words, Stdout out = Stdout::Pipe, Variables const & variables = {});
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
