#pragma once

#include "kvx/foundation/Dictionary.h"
#include "kvx/threads/ThreadPool.h"

#include <thread>

/// Waits until what other tests have begun is over: every thread of the pool is parked.
inline void WaitUntilAllHaveParked()
{
    for (bool bAll = false; !bAll; std::this_thread::yield())
    {
        CDictionary all;
        CThreadPool::GetThreadDescriptions(all);
        CString id;
        CString text;
        bAll = true;
        for (POSITION pos = all.GetStartPosition(); pos;)
        {
            all.GetNextValue(pos, id, text);
            DWORD const number = CStringValue(id);
            bAll &= !CThreadPool::GetContextFromThreadId(number) || CThreadPool::IsThreadFree(static_cast<int>(number));
        }
    }
}
