#pragma once

#include "kvx/platform/ThreadEnd.h"
#include "kvx/platform/mfc/Exception.h"

// <windows.h> spells these as macros.
#undef CreateEvent
#undef CreateMutex

/// What can be locked or waited for. Time-outs are milliseconds; INFINITE waits for ever.
class KVX_API CSyncObject : public CObject
{
    DECLARE_DYNAMIC(CSyncObject)

public:
    constexpr CSyncObject() = default;
    explicit CSyncObject(HANDLE hObject) : m_hObject(hObject) {}
    ~CSyncObject() override;
    CSyncObject(CSyncObject const &) = delete;
    CSyncObject & operator=(CSyncObject const &) = delete;

    operator HANDLE() const { return m_hObject; }

    /// TRUE if the object was had in time; also a mutex that its owner left behind.
    virtual BOOL Lock(DWORD dwTimeout = INFINITE);
    virtual BOOL Unlock() = 0;
    virtual BOOL Unlock(LONG lCount, LONG * lpPrevCount = nullptr);

    HANDLE m_hObject = nullptr;
};

/// A lock between the threads of the process, which its owner may take again. It has no handle and needs no memory. On
/// POSIX hosts a static one is ready before any constructor has run.
class KVX_API CCriticalSection final : public CSyncObject
{
    DECLARE_DYNAMIC(CCriticalSection)

public:
#if defined(_WIN32)
    CCriticalSection() { InitializeCriticalSection(&m_sect); }
#else
    constexpr CCriticalSection() = default; // all zeros is a free section there
#endif
    ~CCriticalSection() override { DeleteCriticalSection(&m_sect); }

    operator CRITICAL_SECTION *() { return &m_sect; }

    BOOL Lock()
    {
        kvx::BeginSection();
        EnterCriticalSection(&m_sect);
        return TRUE;
    }
    /// The time-out is ignored: it waits as long as it takes.
    BOOL Lock(DWORD dwTimeout) override;
    BOOL Unlock() override;
    using CSyncObject::Unlock;

    CRITICAL_SECTION m_sect{};
};

/// An event. An automatic one frees one waiter for each SetEvent; a manual one stays set until ResetEvent. A name
/// is known to all processes of the user. An event that can't be made raises CResourceException.
class KVX_API CEvent : public CSyncObject
{
    DECLARE_DYNAMIC(CEvent)

public:
    explicit CEvent(BOOL bInitiallyOwn = FALSE, BOOL bManualReset = FALSE, LPCTSTR lpszName = nullptr,
                    SECURITY_ATTRIBUTES * lpsaAttribute = nullptr);

    BOOL SetEvent() { return ::SetEvent(m_hObject); }
    BOOL ResetEvent() { return ::ResetEvent(m_hObject); }
    /// Nothing to give back: always TRUE.
    BOOL Unlock() override;
    using CSyncObject::Unlock;
};

/// A mutex, which a name makes known to all processes of the user. One that can't be made raises
/// CResourceException.
class KVX_API CMutex : public CSyncObject
{
    DECLARE_DYNAMIC(CMutex)

public:
    explicit CMutex(BOOL bInitiallyOwn = FALSE, LPCTSTR lpszName = nullptr,
                    SECURITY_ATTRIBUTES * lpsaAttribute = nullptr);

    BOOL Unlock() override;
    using CSyncObject::Unlock;
};

/// Locks an object, and unlocks it at the end of the scope. A null object raises CInvalidArgException.
class CSingleLock
{
public:
    explicit CSingleLock(CSyncObject * pObject, BOOL bInitialLock = FALSE) : m_pObject(pObject)
    {
        if (!pObject) [[unlikely]]
        {
            AfxThrowInvalidArgException();
        }
        if (bInitialLock)
        {
            Lock();
        }
    }
    ~CSingleLock()
    {
        if (m_bAcquired)
        {
            m_pObject->Unlock();
        }
    }
    CSingleLock(CSingleLock const &) = delete;
    CSingleLock & operator=(CSingleLock const &) = delete;

    /// Locks once; TRUE without waiting if it has the lock already.
    BOOL Lock(DWORD dwTimeOut = INFINITE)
    {
        if (!m_bAcquired)
        {
            m_bAcquired = m_pObject->Lock(dwTimeOut);
        }
        return m_bAcquired;
    }
    /// FALSE: the object could not be unlocked.
    BOOL Unlock()
    {
        if (m_bAcquired)
        {
            m_bAcquired = !m_pObject->Unlock();
        }
        return !m_bAcquired;
    }
    BOOL IsLocked() const { return m_bAcquired; }

private:
    CSyncObject * m_pObject;
    BOOL m_bAcquired = FALSE;
};
