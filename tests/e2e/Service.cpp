#include "Service.h"

#include <fstream>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
class Reader
{
public:
    explicit Reader(std::string_view json) : m_rest(json) {}

    bool Take(std::string_view literal)
    {
        bool const bHere = m_rest.starts_with(literal);
        m_rest.remove_prefix(bHere ? literal.size() : 0);
        return bHere;
    }
    void Expect(std::string_view literal)
    {
        if (!Take(literal))
        {
            throw std::runtime_error("expected " + std::string(literal) + " at " + std::string(m_rest.substr(0, 40)));
        }
    }
    long long Number()
    {
        std::size_t used = 0;
        long long const number = std::stoll(std::string(m_rest.substr(0, 20)), &used);
        m_rest.remove_prefix(used);
        return number;
    }
    std::string Text()
    {
        std::string text;
        for (Expect("\""); !Take("\"");)
        {
            char c = m_rest.at(0);
            m_rest.remove_prefix(1);
            if (static_cast<unsigned char>(c) < 0x20)
            {
                throw std::runtime_error("control character in a text");
            }
            if (c == '\\')
            {
                constexpr std::string_view NAMES = "nrt\"\\/";
                if (Take("u00"))
                {
                    c = static_cast<char>(std::stoi(std::string(m_rest.substr(0, 2)), nullptr, 16));
                    m_rest.remove_prefix(2);
                }
                else
                {
                    c = "\n\r\t\"\\/"[NAMES.find(m_rest.at(0))];
                    m_rest.remove_prefix(1);
                }
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
        if (!Take("]"))
        {
            do
            {
                list.push_back(item());
            } while (Take(","));
            Expect("]");
        }
        return list;
    }

    std::string_view m_rest;
};
} // namespace

Response::Response(std::string_view json)
{
    Reader reader(json);
    auto const texts = [&] { return reader.List([&] { return reader.Text(); }); };
    reader.Expect("{\"code\":");
    nCode = reader.Number();
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
    reader.Expect("}\n");
    if (!reader.m_rest.empty())
    {
        throw std::runtime_error("more behind the response");
    }
}

Service::Service(std::vector<std::string> const & options)
{
    std::vector<std::string> args{"serve", "tcp:127.0.0.1:0"};
    args.insert(args.end(), options.begin(), options.end());
    m_process = std::make_unique<Process>(args);
    std::string const line = m_process->ReadLine();
    std::string const begin = "READY tcp:127.0.0.1:";
    if (!line.starts_with(begin))
    {
        throw std::runtime_error("not ready: " + line);
    }
    m_strAddress = line.substr(6);
    m_nPort = std::stoi(line.substr(begin.size()));
}

Result Service::CallRaw(std::vector<std::string> const & words) const
{
    std::vector<std::string> args{"call", m_strAddress};
    args.insert(args.end(), words.begin(), words.end());
    return RunKvx(args);
}

Response Service::Call(std::vector<std::string> const & words) const
{
    std::vector<std::string> all{"--format", "json"};
    all.insert(all.end(), words.begin(), words.end());
    Result const result = CallRaw(all);
    Response response(result.strOut);
    std::string const line = "error " + std::to_string(response.nCode) + ": " + response.strText + "\n";
    EXPECT_EQ(result.strErr, response.nCode == 0 ? "" : line);
    EXPECT_EQ(result.nStatus, response.nCode == 0 ? 0 : 1);
    return response;
}

long Service::GetMemory() const
{
    std::ifstream status("/proc/" + std::to_string(m_process->GetPid()) + "/status");
    for (std::string word; status >> word;)
    {
        if (long kilobytes = 0; word == "VmRSS:" && status >> kilobytes)
        {
            return kilobytes / 1024;
        }
    }
    throw std::runtime_error("the service is gone");
}

int Service::Stop(int signal)
{
    m_process->Signal(signal);
    return m_process->Wait();
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
    if (connect(m_nSocket, reinterpret_cast<sockaddr const *>(&address), sizeof(address)) != 0)
    {
        throw std::runtime_error("connect");
    }
}

RawClient::~RawClient()
{
    close(m_nSocket);
}

void RawClient::Send(std::string_view bytes) const
{
    // A server that has ended the link in the middle is one of the cases.
    while (!bytes.empty())
    {
        ssize_t const sent = send(m_nSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : bytes.size());
    }
}

void RawClient::EndSending() const
{
    shutdown(m_nSocket, SHUT_WR);
}

std::string RawClient::Receive(std::size_t count) const
{
    std::string bytes(count, 0);
    std::size_t have = 0;
    while (have < count)
    {
        ssize_t const got = recv(m_nSocket, bytes.data() + have, count - have, 0);
        if (got <= 0)
        {
            break;
        }
        have += static_cast<std::size_t>(got);
    }
    bytes.resize(have);
    return bytes;
}

bool RawClient::IsEnded() const
{
    char c = 0;
    for (;;)
    {
        ssize_t const got = recv(m_nSocket, &c, 1, 0);
        if (got <= 0)
        {
            return got == 0 || errno == ECONNRESET;
        }
    }
}
