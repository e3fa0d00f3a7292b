#pragma once

#include "kvx/cabinet/CabTypes.h"

#include <memory>

namespace kvx::cabinet
{
class KVX_API CabDecompression
{
public:
    struct Callbacks
    {
        PFNALLOC alloc;
        PFNFREE free;
        PFNOPEN open;
        PFNREAD read;
        PFNWRITE write;
        PFNCLOSE close;
        PFNSEEK seek;
    };

    static std::unique_ptr<CabDecompression> Create(Callbacks const & callbacks, ERF * erf);
    ~CabDecompression();

    BOOL IsCabinet(INT_PTR hf, FDICABINETINFO * info);
    BOOL Copy(char const * cabinet, char const * path, PFNFDINOTIFY notify, void * context);

private:
    class Impl;
    explicit CabDecompression(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};
} // namespace kvx::cabinet
