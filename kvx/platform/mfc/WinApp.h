#pragma once

#include "kvx/platform/mfc/Object.h"

/// One line of a message map: which window message or command goes to which member function.
struct AFX_MSGMAP_ENTRY
{
    UINT nMessage;
    UINT nCode;
    UINT nID;
    UINT nLastID;
    UINT_PTR nSig;
    void (CObject::*pfn)();
};

struct AFX_MSGMAP
{
    AFX_MSGMAP const * (*pfnGetBaseMap)();
    AFX_MSGMAP_ENTRY const * lpEntries; ///< ended by an entry of zeros
};

/// The application object of a program: start and end of its work.
class KVX_API CWinApp : public CObject
{
    DECLARE_DYNAMIC(CWinApp)

public:
    CWinApp() = default;
    CWinApp(CWinApp const &) = delete;
    CWinApp & operator=(CWinApp const &) = delete;

    /// FALSE: the program ends at once.
    virtual BOOL InitInstance();
    /// The exit code of the process.
    virtual int ExitInstance();

protected:
    virtual AFX_MSGMAP const * GetMessageMap() const;
};

/// Starts the sockets of the process, once; further calls only give the first result. Any thread.
KVX_API BOOL AfxSocketInit();

/// The state of a dynamic library that extends the program: one static object, zero at first.
struct AFX_EXTENSION_MODULE
{
    BOOL bInitialized;
    HMODULE hModule;
    HMODULE hResource;
};

/// To be called when the library has been loaded. FALSE: it can't be used.
KVX_API BOOL AfxInitExtensionModule(AFX_EXTENSION_MODULE & state, HMODULE hModule);
/// To be called before it is unloaded: deletes its CDynLinkLibrary objects.
KVX_API void AfxTermExtensionModule(AFX_EXTENSION_MODULE & state);

/// One extending library in the list that the process keeps of them. Made with `new`, and deleted by
/// AfxTermExtensionModule.
class KVX_API CDynLinkLibrary : public CObject
{
    DECLARE_DYNAMIC(CDynLinkLibrary)

public:
    explicit CDynLinkLibrary(AFX_EXTENSION_MODULE const & state);
    ~CDynLinkLibrary() override;
    CDynLinkLibrary(CDynLinkLibrary const &) = delete;
    CDynLinkLibrary & operator=(CDynLinkLibrary const &) = delete;

    /// The newest object of that module, or null.
    static CDynLinkLibrary * FromModule(HMODULE hModule);

    HMODULE m_hModule;
    HMODULE m_hResource;
    CDynLinkLibrary * m_pNextDLL;
};
