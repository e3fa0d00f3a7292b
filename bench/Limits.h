#pragma once

/// What the library is held against: the same work over plain blocking sockets, by hand and with the least code that
/// does the job.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace bench
{
using Bytes = std::vector<unsigned char>;

/// A connected TCP socket.
class PlainSocket
{
public:
    explicit PlainSocket(int handle);
    PlainSocket(PlainSocket && other) noexcept : m_nHandle(std::exchange(other.m_nHandle, -1)) {}
    PlainSocket & operator=(PlainSocket &&) = delete;
    ~PlainSocket();

    static PlainSocket Connect(int port);

    /// One send.
    void Send(Bytes const & bytes) const;
    /// One receive; 0 at the end of the link.
    std::size_t Receive(void * buffer, std::size_t size) const;
    /// One receive that waits for all of it; false at the end of the link.
    bool ReceiveAll(void * buffer, std::size_t size) const;
    int GetHandle() const { return m_nHandle; }

private:
    int m_nHandle;
};

/// Listens on a free port of the loopback address and runs `serve` for each client, on a thread of its own. Gives the
/// port.
int ServePlain(std::function<void(PlainSocket &)> serve);

/// Says a byte each time that so many have come.
void AcknowledgeEach(PlainSocket & socket, std::size_t bytes);
/// The nanoseconds of each of so many sends, until the other end has acknowledged them all.
double TimeSends(PlainSocket const & socket, Bytes const & message, int count);

/// Gathers one message: words, and texts behind their lengths.
class PlainWriter
{
public:
    void Word(std::uint32_t word);
    void Text(std::u16string_view text);
    /// Sends the message, and begins the next one.
    void SendTo(PlainSocket const & socket);

private:
    Bytes m_bytes;
};

/// Reads messages from a socket, many bytes at a time. The end of the link is the end of the program's interest:
/// `IsGood` turns false.
class PlainReader
{
public:
    explicit PlainReader(PlainSocket & socket) : m_socket(socket), m_buffer(BUFFER) {}

    std::uint32_t Word();
    std::u16string Text();
    bool IsGood() const { return m_bGood; }

private:
    static constexpr std::size_t BUFFER = 65536;

    PlainSocket & m_socket;
    Bytes m_buffer;
    std::size_t m_nNext = 0;
    std::size_t m_nEnd = 0;
    bool m_bGood = true;

    void Take(void * to, std::size_t count);
};

struct PlainRequest
{
    std::uint32_t nFlags = 0;
    std::u16string strCommand;
    std::vector<std::pair<std::u16string, std::u16string>> parameters;

    void Write(PlainWriter & writer) const;
    void Read(PlainReader & reader);
    int GetNumber(std::u16string_view name) const;
};

struct PlainColumn
{
    std::u16string strName;
    std::vector<std::u16string> cells;
};

struct PlainResponse
{
    std::u16string strStatus;
    std::u16string strTable;
    std::vector<PlainColumn> columns;

    void Write(PlainWriter & writer) const;
    void Read(PlainReader & reader);
};

/// Out of texts that are kept, as the library's service makes its table.
PlainResponse MakePlainTable(int rows, int columns);
/// Reads every cell: the length of all.
int CountCharacters(PlainResponse const & response);
} // namespace bench
