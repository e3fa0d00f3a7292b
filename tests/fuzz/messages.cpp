// Feeds arbitrary bytes to the readers of requests and responses. Whatever is read must be writable, and read back the
// same.

#include "Require.h"

#include "kvx/messaging/MsgRequest.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "tests/transport/MemoryStream.h"

#include <array>
#include <cstdint>

namespace
{
// Some 128 blocks of 32 rows: whole, partial and missing ones in all orders come in far fewer.
constexpr std::uint64_t MAX_CELLS = 4096;

/// A few bytes may claim two billion empty rows: they are read, whatever they claim, but take long to write.
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
    CMemoryStream first;
    CMemoryStream second;
    if (bCompact)
    {
        first.EnableCompact();
        second.EnableCompact();
    }
    Require(message.Write(first));
    MESSAGE again;
    Require(again.Read(first) && again.Write(second) && first.m_bytes == second.m_bytes);
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
    constexpr std::array<std::size_t, 4> PIECES{65536, 0, 5, 64};
    CMemoryStream stream(1, PIECES[data[0] >> 2 & 3]);
    stream.SetBytes({data + 1, data + size});
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
