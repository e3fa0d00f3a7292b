#include "kvx/platform/export.h"

KVX_MODULE_EXPORT int SomethingElse()
{
    return 1;
}
