/// The static objects of the library that depend on each other, in one place: they are constructed from top to bottom
/// when the library is loaded, before any of an application that the library is linked into, and go from bottom to top.
/// The dispatcher goes first, while all that its providers and connections may need is there; and it stays, with the
/// tables of the streams, when threads are left that may be inside: those that had to be killed, the application's own,
/// or the rest when a thread of the pool has called exit.
///
/// Everything else that is static is constant-initialised, or made at its first use and never destroyed.

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgInProcFactory.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/messaging/MsgRequest.h"
#include "kvx/msgdata/MsgDataSet.h"
#include "kvx/platform/HostInfo.h"
#include "kvx/system/WinSecurity.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgCompactInfo.h"

#define KVX_EARLY __attribute__((init_priority(1000)))

/// What the library does when it is loaded and unloaded. It is the last of the statics, so that it sees all of them
/// alive.
class CLibraryEntry
{
public:
    CLibraryEntry()
        : m_pModule((AfxInitExtensionModule(m_extension, GetModuleHandleW(nullptr)), new CDynLinkLibrary(m_extension)))
    {
    }
    CLibraryEntry(CLibraryEntry const &) = delete;
    CLibraryEntry & operator=(CLibraryEntry const &) = delete;

    /// An application that hasn't ended the pool's threads has them ended here, while all that they may use is there.
    ~CLibraryEntry()
    {
        constexpr DWORD PATIENCE = 1000; // milliseconds for each thread
        CThreadPool::BeginEnd();
        if (!CKVXBaseApp::IsShuttingDown())
        {
            CKVXBaseApp::InitShutdown();
            CThreadPool::TerminateAllThreads(PATIENCE);
        }
        if (IsAlone())
        {
            CMsgDispatcher::sm_instance.Destroy();
            CMsgStream::sm_cacheCompact.Destroy();
        }
        delete m_pModule;
        AfxTermExtensionModule(m_extension);
    }

private:
    AFX_EXTENSION_MODULE m_extension{};
    CDynLinkLibrary * m_pModule;

    static bool IsAlone()
    {
        DWORD const own = CLogManager::GetInstance()->HasThread() ? 2 : 1;
        return !CThreadPool::HasLeftThreads() && CountThreads() <= own;
    }
};

KVX_EARLY CWinSecurityDescriptor CWinSecurityDescriptor::NULL_DACL(1);
KVX_EARLY CWinSecurityAttributes CWinSecurityAttributes::NULL_DACL(0, CWinSecurityDescriptor::NULL_DACL);

// The log lies below the requests that it prints.
KVX_EARLY CLogManager CLogManager::sm_instance([](CMsgRequest & request) { return request.GetLogText(); });

KVX_EARLY CStringValue const CMsgDataSet::EMPTY_DATA;

KVX_EARLY kvx::Immortal<CMsgDispatcher> CMsgDispatcher::sm_instance;

KVX_EARLY CString const CMsgInProcFactory::CREATE_PROVIDER = _T("KVXMSG_CreateInProcProvider");

KVX_EARLY CString const CMsgProvider::PROVIDER_STARTING = _T("starting");
KVX_EARLY CString const CMsgProvider::PROVIDER_STARTED = _T("started");
KVX_EARLY CString const CMsgProvider::PROVIDER_STOPPING = _T("stopping");
KVX_EARLY CString const CMsgProvider::PROVIDER_STOPPED = _T("stopped");

KVX_EARLY kvx::Immortal<CCache<CMsgStream::CCompactInfo>> CMsgStream::sm_cacheCompact;

KVX_EARLY CIntToStrLookup CThreadPool::sm_threadMap;
constinit DWORD CThreadPool::sm_dwThreadCtxTLS = 0;
KVX_EARLY CThreadPool CThreadPool::sm_instance;

KVX_EARLY static CLibraryEntry const s_entry;
