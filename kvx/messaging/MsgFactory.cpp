#include "kvx/messaging/MsgFactory.h"

CMsgProvider * CMsgFactory::CreateProvider(LPCTSTR)
{
    return nullptr;
}

CMsgListener * CMsgFactory::CreateListener(LPCTSTR)
{
    return nullptr;
}
