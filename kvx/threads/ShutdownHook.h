#pragma once

/// What has to happen before the library can end its threads.

#include "kvx/platform/export.h"

/// A member of an object whose threads, or whose callers' threads, wait for somebody outside this process: the
/// procedure makes them come back at once. It is called on whatever thread ends the library's threads, and may wait for
/// nobody.
///
/// To be the last member of its class, so that the object is whole for as long as the procedure may be called: neither
/// constructor nor destructor returns while it runs on another thread.
class KVX_API CShutdownHook
{
public:
    using Proc = void (*)(void * object);

    CShutdownHook(Proc proc, void * object);
    CShutdownHook(CShutdownHook const &) = delete;
    CShutdownHook & operator=(CShutdownHook const &) = delete;
    ~CShutdownHook();

    /// While one lives the library ends its threads. It begins by calling the procedures of all hooks there are, the
    /// newest first.
    class KVX_API Ending
    {
    public:
        Ending();
        Ending(Ending const &) = delete;
        Ending & operator=(Ending const &) = delete;
        ~Ending();
    };
    /// Whether one lives: nobody should begin to wait for somebody outside this process. Afterwards, on the one thread
    /// that is left, it does no harm again.
    static bool IsEnding();

private:
    Proc m_pProc;
    void * m_pObject;
    CShutdownHook * m_pNext = nullptr;
    CShutdownHook * m_pPrevious = nullptr;
};
