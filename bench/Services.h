#pragma once

/// The services that the measurements call, and the ends that library and callers have of them.

#include "kvx/messaging/MsgRequest.h"
#include "kvx/transport/MsgStream.h"

#include <vector>

namespace bench
{
/// Registers below "host":
///   table.get    rows, columns: a table made for this call, out of texts that the service keeps
///   table.kept   the same from one that is kept, and shared by every response
///   count.add    one more
///   count.wait   total: answers when that many have been counted, and begins at 0 again
///   ping         nothing
/// and a listener on a free port of the loopback address, which is given back.
int StartServices();
/// Ends the library too.
void StopServices();

/// Registers a connection to the port at "host", until the other call.
void ConnectServices(int port);
void LeaveServices();

/// The last call of a program that has used the library.
void EndLibrary();

/// Three parameters, as the callers of tables give them.
void FillTableRequest(CMsgRequest & request, int rows, int columns);

/// Reads every cell of the table that came: the length of all.
int CountCharacters(CMsgResponse & response);

/// Keeps what a message writes.
class ByteStream : public CMsgStream
{
public:
    explicit ByteStream(int unicode = 1, bool bCompact = true) : CMsgStream(unicode)
    {
        if (bCompact)
        {
            EnableCompact();
        }
    }
    ~ByteStream() override { DeleteCompact(); }

    int ReadData(void *, DWORD) override { return 0; }
    int WriteData(void const * buffer, DWORD count) override;

    std::vector<unsigned char> m_bytes;
};

/// One-way requests that the service counts.
class OneWayCalls
{
public:
    explicit OneWayCalls(int count) : m_nCount(count) {}

    /// The nanoseconds of each, until the service has served them all.
    double Time() const;
    /// What each is on the wire.
    std::vector<unsigned char> GetBytes(int unicode, bool bCompact) const;

private:
    int m_nCount;
};
} // namespace bench
