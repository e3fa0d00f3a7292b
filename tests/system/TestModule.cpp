#include "kvx/platform/mfc/Afx.h"

KVX_MODULE_EXPORT CObject * KVX_Create_One()
{
    return new CObject;
}

KVX_MODULE_EXPORT CObject * KVX_Create_None()
{
    return nullptr;
}

KVX_MODULE_EXPORT int KVX_Add(int a, int b)
{
    return a + b;
}
