#include "kvx/foundation/RefCounter.h"

DWORD CRefCounter::Release(int bDelete)
{
    LONG const nRefs = m_nRefs.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (nRefs <= 0 && bDelete)
    {
        delete this;
    }
    return static_cast<DWORD>(nRefs);
}
