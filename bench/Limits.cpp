#include "Limits.h"

#include "Harness.h"
#include "TableTexts.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace bench
{
namespace
{
constexpr int KEPT_ROWS = 10000;
constexpr int KEPT_COLUMNS = 4;

sockaddr_in Loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}
} // namespace

PlainSocket::PlainSocket(int handle) : m_nHandle(handle)
{
    int const on = 1;
    ::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

PlainSocket::~PlainSocket()
{
    if (m_nHandle >= 0)
    {
        ::close(m_nHandle);
    }
}

PlainSocket PlainSocket::Connect(int port)
{
    int const handle = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in const address = Loopback(port);
    if (::connect(handle, reinterpret_cast<sockaddr const *>(&address), sizeof(address)) != 0)
    {
        Fail("cannot connect");
    }
    return PlainSocket(handle);
}

void PlainSocket::Send(Bytes const & bytes) const
{
    if (::send(m_nHandle, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
    {
        Fail("cannot send");
    }
}

std::size_t PlainSocket::Receive(void * buffer, std::size_t size) const
{
    ssize_t const got = ::recv(m_nHandle, buffer, size, 0);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

bool PlainSocket::ReceiveAll(void * buffer, std::size_t size) const
{
    return ::recv(m_nHandle, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

int ServePlain(std::function<void(PlainSocket &)> serve)
{
    int const listening = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof(address);
    if (::bind(listening, reinterpret_cast<sockaddr const *>(&address), sizeof(address)) != 0 ||
        ::listen(listening, SOMAXCONN) != 0 ||
        ::getsockname(listening, reinterpret_cast<sockaddr *>(&address), &size) != 0)
    {
        Fail("cannot listen");
    }
    std::thread(
        [listening, serve = std::move(serve)]
        {
            for (;;)
            {
                int const accepted = ::accept(listening, nullptr, nullptr);
                if (accepted < 0)
                {
                    return;
                }
                std::thread(
                    [accepted, serve]
                    {
                        PlainSocket socket(accepted);
                        serve(socket);
                    })
                    .detach();
            }
        })
        .detach();
    return ntohs(address.sin_port);
}

void AcknowledgeEach(PlainSocket & socket, std::size_t bytes)
{
    Bytes buffer(65536);
    for (std::size_t left = bytes;;)
    {
        std::size_t const got = socket.Receive(buffer.data(), std::min(buffer.size(), left));
        if (got == 0)
        {
            return;
        }
        left -= got;
        if (left == 0)
        {
            socket.Send({1});
            left = bytes;
        }
    }
}

double TimeSends(PlainSocket const & socket, Bytes const & message, int count)
{
    auto const start = Clock::now();
    for (int i = 0; i < count; ++i)
    {
        socket.Send(message);
    }
    Bytes done(1);
    socket.ReceiveAll(done.data(), done.size());
    return Since(start) / count;
}

void PlainWriter::Word(std::uint32_t word)
{
    word = htonl(word);
    auto const * const from = reinterpret_cast<unsigned char const *>(&word);
    m_bytes.insert(m_bytes.end(), from, from + sizeof(word));
}

void PlainWriter::Text(std::u16string_view text)
{
    Word(static_cast<std::uint32_t>(text.size()));
    auto const * const from = reinterpret_cast<unsigned char const *>(text.data());
    m_bytes.insert(m_bytes.end(), from, from + text.size() * sizeof(char16_t));
}

void PlainWriter::SendTo(PlainSocket const & socket)
{
    socket.Send(m_bytes);
    m_bytes.clear();
}

void PlainReader::Take(void * to, std::size_t count)
{
    auto * out = static_cast<unsigned char *>(to);
    while (count > 0)
    {
        if (m_nNext == m_nEnd)
        {
            m_nNext = 0;
            m_nEnd = m_socket.Receive(m_buffer.data(), m_buffer.size());
            if (m_nEnd == 0)
            {
                m_bGood = false;
                std::memset(out, 0, count);
                return;
            }
        }
        std::size_t const step = std::min(count, m_nEnd - m_nNext);
        std::memcpy(out, m_buffer.data() + m_nNext, step);
        m_nNext += step;
        out += step;
        count -= step;
    }
}

std::uint32_t PlainReader::Word()
{
    std::uint32_t word = 0;
    Take(&word, sizeof(word));
    return ntohl(word);
}

std::u16string PlainReader::Text()
{
    std::uint32_t const length = Word();
    std::u16string text(length, u'\0');
    Take(text.data(), length * sizeof(char16_t));
    return text;
}

void PlainRequest::Write(PlainWriter & writer) const
{
    writer.Word(nFlags);
    writer.Text(strCommand);
    writer.Word(static_cast<std::uint32_t>(parameters.size()));
    for (auto const & [name, value] : parameters)
    {
        writer.Text(name);
        writer.Text(value);
    }
    writer.Text({}); // the trailer: no text, no row sets
    writer.Word(0);
}

void PlainRequest::Read(PlainReader & reader)
{
    nFlags = reader.Word();
    strCommand = reader.Text();
    parameters.clear();
    for (std::uint32_t left = reader.Word(); left > 0 && reader.IsGood(); --left)
    {
        std::u16string name = reader.Text();
        parameters.emplace_back(std::move(name), reader.Text());
    }
    reader.Text();
    reader.Word();
}

int PlainRequest::GetNumber(std::u16string_view name) const
{
    int number = 0;
    for (auto const & [known, value] : parameters)
    {
        if (known == name)
        {
            for (char16_t const digit : value)
            {
                number = 10 * number + (digit - u'0');
            }
        }
    }
    return number;
}

void PlainResponse::Write(PlainWriter & writer) const
{
    writer.Text(strStatus);
    writer.Word(1);
    writer.Text(strTable);
    writer.Word(columns.empty() ? 0 : static_cast<std::uint32_t>(columns[0].cells.size()));
    writer.Word(static_cast<std::uint32_t>(columns.size()));
    for (PlainColumn const & column : columns)
    {
        writer.Text(column.strName);
        writer.Word(static_cast<std::uint32_t>(column.cells.size()));
        for (std::u16string const & cell : column.cells)
        {
            writer.Text(cell);
        }
    }
}

void PlainResponse::Read(PlainReader & reader)
{
    strStatus = reader.Text();
    reader.Word();
    strTable = reader.Text();
    reader.Word();
    columns.resize(reader.Word());
    for (PlainColumn & column : columns)
    {
        column.strName = reader.Text();
        std::uint32_t const rows = reader.Word();
        column.cells.clear();
        column.cells.reserve(rows);
        for (std::uint32_t row = 0; row < rows && reader.IsGood(); ++row)
        {
            column.cells.push_back(reader.Text());
        }
    }
}

PlainResponse MakePlainTable(int rows, int columns)
{
    static std::vector<std::u16string> const texts = KeepTexts<std::u16string>(KEPT_ROWS, KEPT_COLUMNS);
    PlainResponse table;
    table.strTable = TABLE_NAME;
    for (int column = 0; column < columns; ++column)
    {
        PlainColumn & made = table.columns.emplace_back();
        made.strName = ColumnName(column);
        made.cells.reserve(static_cast<std::size_t>(rows));
        for (int row = 0; row < rows; ++row)
        {
            made.cells.push_back(texts.at(static_cast<std::size_t>(row * KEPT_COLUMNS + column)));
        }
    }
    return table;
}

int CountCharacters(PlainResponse const & response)
{
    int count = 0;
    for (PlainColumn const & column : response.columns)
    {
        for (std::u16string const & cell : column.cells)
        {
            count += static_cast<int>(cell.size());
        }
    }
    return count;
}
} // namespace bench
