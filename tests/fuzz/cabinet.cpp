// Arbitrary bytes as cabinets, of which the second may follow the first: they are read with bounded memory, or refused
// with a code, and nothing stays open.

#include "Require.h"

#include "../cabinet/ReaderHost.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    ReaderHost host;
    std::string const bytes(reinterpret_cast<char const *>(data), size);
    // A second cabinet begins where another signature does.
    std::size_t const second = bytes.find("MSCF", 1);
    host.cabinets["1.cab"] = bytes.substr(0, second);
    host.cabinets["2.cab"] = second == bytes.npos ? "" : bytes.substr(second);
    std::size_t wanted = 0;
    host.isWanted = [&](std::string const & name) { return ++wanted < 50 && !name.starts_with("n"); };
    FDIERROR const error = host.Copy({"1.cab", "2.cab"});
    Require(error >= FDIERROR_NONE && error <= FDIERROR_USER_ABORT);
    Require((error != FDIERROR_NONE) == (host.erf.fError != FALSE));
    Require(host.open.empty() && host.memory == 0);
    Require(host.memoryPeak < (std::size_t{2} << 20) + (std::size_t{1} << 20));
    return 0;
}
