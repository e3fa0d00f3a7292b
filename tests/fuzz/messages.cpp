// Feeds arbitrary bytes to the readers of requests and responses. Whatever is read must be writable, and read back the
// same.

#include "kvx/messaging/MsgRequest.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/transport/MsgStream.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

namespace
{
constexpr std::uint64_t MAX_CELLS = 1 << 20;

class CBytesStream : public CMsgStream
{
public:
    explicit CBytesStream(std::span<std::uint8_t const> bytes) : CMsgStream(1), m_bytes(bytes.begin(), bytes.end()) {}
    ~CBytesStream() override { DeleteCompact(); }

    int ReadData(void * buffer, DWORD count) override
    {
        if (count > m_bytes.size() - m_nPos)
        {
            SetLastError(WSAEDISCON);
            return 0;
        }
        std::copy_n(m_bytes.begin() + static_cast<std::ptrdiff_t>(m_nPos), count, static_cast<std::uint8_t *>(buffer));
        m_nPos += count;
        return 1;
    }
    int WriteData(void const * buffer, DWORD count) override
    {
        auto const * const from = static_cast<std::uint8_t const *>(buffer);
        m_bytes.insert(m_bytes.end(), from, from + count);
        return 1;
    }
    std::vector<std::uint8_t> const & GetBytes() const { return m_bytes; }

private:
    std::vector<std::uint8_t> m_bytes;
    std::size_t m_nPos = 0;
};

/// A few bytes may claim two billion empty rows, which would take long to write.
bool IsLarge(CMsgMultipleRowSets const & rowSets)
{
    if (rowSets.IsEmpty())
    {
        return false;
    }
    std::uint64_t cells = 0;
    for (POSITION pos = rowSets.GetFirstPosition(); pos; rowSets.GetNextPosition(pos))
    {
        CMsgRowSet const & rowSet = *rowSets.GetAt(pos);
        cells += std::uint64_t{rowSet.GetRowCount()} * static_cast<std::uint64_t>(rowSet.GetColumnCount());
    }
    return cells > MAX_CELLS;
}

template <class MESSAGE>
void RoundTrip(MESSAGE & message, bool bCompact)
{
    CBytesStream first({});
    CBytesStream second({});
    if (bCompact)
    {
        first.EnableCompact();
        second.EnableCompact();
    }
    if (!message.Write(first))
    {
        std::abort();
    }
    MESSAGE again;
    if (!again.Read(first) || !again.Write(second) || first.GetBytes() != second.GetBytes())
    {
        std::abort();
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    bool const bCompact = (data[0] & 1) != 0;
    bool const bResponse = (data[0] & 2) != 0;
    CBytesStream stream({data + 1, size - 1});
    if (bCompact)
    {
        stream.EnableCompact();
    }
    if (bResponse)
    {
        CMsgResponse response;
        if (response.Read(stream) && !IsLarge(response.GetRowSets()))
        {
            RoundTrip(response, bCompact);
        }
    }
    else
    {
        CMsgRequest request;
        if (request.Read(stream) && !IsLarge(*request.GetExParams()))
        {
            RoundTrip(request, bCompact);
        }
    }
    return 0;
}
