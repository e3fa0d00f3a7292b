#pragma once

#include "kvx/cabinet/CabTypes.h"

#include <memory>

namespace kvx::cabinet
{
/// How hard the compressors try; any level gives what any reader takes.
enum class Level
{
    Fast,
    Default,
    Best,
};

/// The writing half of the engine: makes a cabinet, or a set of them, from files that callbacks read. (Placeholder
/// docstring: the helper who builds this writes it.)
class KVX_API CabCompression
{
public:
    struct Callbacks
    {
        PFNFCIFILEPLACED filePlaced;
        PFNFCIALLOC alloc;
        PFNFCIFREE free;
        PFNFCIOPEN open;
        PFNFCIREAD read;
        PFNFCIWRITE write;
        PFNFCICLOSE close;
        PFNFCISEEK seek;
        PFNFCIDELETE remove;
        PFNFCIGETTEMPFILE getTempFile;
    };
    /// Beyond the published interface.
    struct Options
    {
        Level level = Level::Default;
        bool translateCalls = true; ///< LZX: addresses of x86 calls become absolute, which compresses programs better
        unsigned jobs = 1;          ///< threads that compress ahead; the bytes of the cabinets don't depend on it
    };

    /// Null with the error in `erf`.
    static std::unique_ptr<CabCompression> Create(ERF * erf, Callbacks const & callbacks, CCAB const * ccab,
                                                  void * context);
    ~CabCompression();

    /// Before the first file.
    void SetOptions(Options const & options);

    int AddFile(char const * sourceFile, char const * fileName, BOOL execute, PFNFCIGETNEXTCABINET getNextCabinet,
                PFNFCISTATUS status, PFNFCIGETOPENINFO getOpenInfo, USHORT typeCompress);
    int FlushCabinet(BOOL getNextCab, PFNFCIGETNEXTCABINET getNextCabinet, PFNFCISTATUS status);
    int FlushFolder(PFNFCIGETNEXTCABINET getNextCabinet, PFNFCISTATUS status);

private:
    class Impl;
    explicit CabCompression(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};
} // namespace kvx::cabinet
