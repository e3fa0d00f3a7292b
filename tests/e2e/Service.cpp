#include "Service.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pty.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
std::string ReadToEnd(int file)
{
    std::string text;
    std::array<char, 65536> buffer{};
    for (ssize_t got = 0; (got = read(file, buffer.data(), buffer.size())) > 0;)
    {
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return text;
}

/// The end that the test reads, and the process's.
std::array<int, 2> OpenStdout(Stdout kind)
{
    std::array<int, 2> ends{-1, -1};
    if (kind == Stdout::Terminal)
    {
        termios raw{};
        cfmakeraw(&raw);
        EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, &raw, nullptr), 0);
        fcntl(ends[0], F_SETFD, FD_CLOEXEC);
        fcntl(ends[1], F_SETFD, FD_CLOEXEC);
    }
    else
    {
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    }
    if (kind == Stdout::Abandoned)
    {
        close(std::exchange(ends[0], open("/dev/null", O_RDONLY | O_CLOEXEC)));
    }
    if (kind == Stdout::Full)
    {
        close(std::exchange(ends[1], open("/dev/full", O_WRONLY | O_CLOEXEC)));
    }
    return ends;
}

class JsonReader
{
public:
    std::string_view rest;

    bool Take(std::string_view literal)
    {
        bool const bHere = rest.starts_with(literal);
        rest.remove_prefix(bHere ? literal.size() : 0);
        return bHere;
    }
    void Expect(std::string_view literal)
    {
        if (!Take(literal))
        {
            throw std::runtime_error("expected " + std::string(literal) + " at " + std::string(rest.substr(0, 40)));
        }
    }
    std::string TakeChars(std::size_t count)
    {
        std::string const chars(rest.substr(0, count));
        rest.remove_prefix(chars.size());
        return chars;
    }
    std::string Text()
    {
        std::string text;
        for (Expect("\""); !Take("\"");)
        {
            char c = TakeChars(1).at(0);
            if (static_cast<unsigned char>(c) < 0x20)
            {
                throw std::runtime_error("control character in a text");
            }
            if (c == '\\')
            {
                c = Take("u00") ? static_cast<char>(std::stoi(TakeChars(2), nullptr, 16))
                                : "\n\r\t\"\\"[std::string_view("nrt\"\\").find(TakeChars(1).at(0))];
            }
            text += c;
        }
        return text;
    }
    template <class F>
    auto List(F const & item)
    {
        std::vector<decltype(item())> list;
        Expect("[");
        for (bool bMore = !Take("]"); bMore; bMore = Take(",") || (Expect("]"), false))
        {
            list.push_back(item());
        }
        return list;
    }
};
} // namespace

Strings Join(Strings first, Strings const & second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Process::Process(Strings const & args, Stdout kind) : m_nErr(memfd_create("stderr", MFD_CLOEXEC))
{
    std::array<int, 2> out = OpenStdout(kind);
    setenv("TZ", "UTC", 1); // so that the tests know what local time is
    Strings words = Join({KVX_PROGRAM}, args);
    std::vector<char *> argv;
    for (std::string & word : words)
    {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, kind == Stdout::Terminal ? out[1] : m_nErr, STDERR_FILENO);
    kind == Stdout::Closed ? posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO)
                           : posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    int const error = posix_spawn(&nPid, KVX_PROGRAM, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    m_nOut = out[0];
    if (error != 0)
    {
        throw std::runtime_error("cannot start " KVX_PROGRAM);
    }
}

Process::~Process()
{
    if (nPid > 0)
    {
        kill(nPid, SIGKILL);
        Wait();
    }
    close(m_nOut);
    close(m_nErr);
}

std::string Process::ReadLine() const
{
    std::string line;
    for (char c = 0; read(m_nOut, &c, 1) == 1 && c != '\n';)
    {
        line += c;
    }
    return line;
}

std::string Process::PeekErr() const
{
    std::string text(1 << 20, 0);
    ssize_t const got = pread(m_nErr, text.data(), text.size(), 0); // the place to write at is the program's
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

bool Process::HasEnded() const
{
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(nPid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == nPid;
}

int Process::Wait()
{
    strOut = ReadToEnd(m_nOut);
    int status = 0;
    waitpid(nPid, &status, 0);
    nPid = -1;
    lseek(m_nErr, 0, SEEK_SET);
    strErr = ReadToEnd(m_nErr);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Result RunKvx(Strings const & args, Stdout out)
{
    Process process(args, out);
    int const status = process.Wait();
    return {status, process.strOut, process.strErr};
}

Response::Response(std::string_view json)
{
    JsonReader reader{json};
    auto const texts = [&] { return reader.List([&] { return reader.Text(); }); };
    reader.Expect("{\"code\":");
    nCode = std::stoll(reader.TakeChars(reader.rest.find(',')));
    reader.Expect(",\"text\":");
    strText = reader.Text();
    reader.Expect(",\"rowsets\":");
    rowSets = reader.List(
        [&]
        {
            RowSet set;
            reader.Expect("{\"name\":");
            set.strName = reader.Text();
            reader.Expect(",\"columns\":");
            set.columns = texts();
            reader.Expect(",\"rows\":");
            set.rows = reader.List(texts);
            reader.Expect("}");
            return set;
        });
    EXPECT_EQ(reader.rest, "}\n");
}

Service::Service(Strings const & options, Strings const & listeners)
    : process(Join(Join({"serve"}, listeners), options))
{
    std::string const tcp = "tcp:127.0.0.1:";
    for (std::size_t i = 0; i < listeners.size(); ++i)
    {
        std::string const line = process.ReadLine();
        if (!line.starts_with("READY "))
        {
            process.Wait();
            throw std::runtime_error("not ready: " + line + process.strErr);
        }
        addresses.push_back(line.substr(6));
        nPort = addresses.back().starts_with(tcp) ? std::stoi(addresses.back().substr(tcp.size())) : nPort;
    }
    strAddress = addresses.front();
}

Response Service::Call(Strings const & words) const
{
    Result const result = RunKvx(Join({"call", strAddress, "--format", "json"}, words));
    Response response(result.strOut);
    std::string const line = "error " + std::to_string(response.nCode) + ": " + response.strText + "\n";
    EXPECT_EQ(result.strErr, response.nCode == 0 ? "" : line);
    EXPECT_EQ(result.nStatus, response.nCode == 0 ? 0 : 1);
    return response;
}

long Service::GetMemory() const
{
    std::ifstream status("/proc/" + std::to_string(process.nPid) + "/status");
    std::string word;
    while (status >> word && word != "VmRSS:")
    {
    }
    long kilobytes = 0;
    EXPECT_TRUE(status >> kilobytes);
    return kilobytes / 1024;
}

int Service::Stop(int signal)
{
    kill(process.nPid, signal);
    return process.Wait();
}

RegistryFile::RegistryFile() : strFolder(testing::TempDir() + "/kvx-reg-XXXXXX")
{
    EXPECT_NE(mkdtemp(strFolder.data()), nullptr);
    setenv("KVX_REGISTRY", (strFolder + "/registry.db").c_str(), 1);
}

RegistryFile::~RegistryFile()
{
    unsetenv("KVX_REGISTRY");
    std::filesystem::remove_all(strFolder);
}

RawClient::RawClient(int port) : m_nSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval const patience{10, 0};
    int const on = 1;
    setsockopt(m_nSocket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    setsockopt(m_nSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    EXPECT_EQ(connect(m_nSocket, reinterpret_cast<sockaddr const *>(&address), sizeof(address)), 0);
}

RawClient::~RawClient()
{
    close(m_nSocket);
}

void RawClient::Send(std::string_view bytes) const
{
    // All are few enough for the socket's buffer; that the server has ended the link meanwhile is one of the cases.
    send(m_nSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void RawClient::EndSending() const
{
    shutdown(m_nSocket, SHUT_WR);
}

std::string RawClient::Receive(std::size_t count) const
{
    std::string bytes(count, 0);
    ssize_t const got = recv(m_nSocket, bytes.data(), count, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

bool RawClient::IsEnded() const
{
    char c = 0;
    ssize_t got = 0;
    while ((got = recv(m_nSocket, &c, 1, 0)) > 0)
    {
    }
    return got == 0 || errno == ECONNRESET;
}
