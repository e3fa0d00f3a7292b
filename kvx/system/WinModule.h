#pragma once

/// A loaded module (a DLL or shared object) and its resources.

#include "kvx/platform/mfc/Afx.h"

/// Owns its handle: the destructor frees a loaded module, and code and data of it are gone then. Nothing that comes
/// from the module may live longer. Threads: one at a time changes the object; look-ups may come from any thread.
class KVX_API CWinModule : public CObject
{
public:
    CWinModule() = default;
    explicit CWinModule(HINSTANCE hModule) : m_hModule(hModule) {}
    /// Loads; throws a CFileException * with cause 2, the system's error and the path.
    explicit CWinModule(CString const & path);
    CWinModule(CWinModule const &) = delete;
    CWinModule & operator=(CWinModule const &) = delete;
    ~CWinModule() override { Free(); }

    /// Loads, after freeing what it held; 0 with the reason as the last error: 126 no such file, 193 no module for this
    /// machine, 127 a symbol that it needs is missing.
    int Load(CString const & path);
    /// 0 if nothing was loaded.
    int Free();
    /// Takes over a handle; what it held is freed.
    void Attach(HINSTANCE hModule);
    /// Gives up the handle without freeing it.
    HINSTANCE Detach();
    int IsLoaded() const { return m_hModule != nullptr; }
    HINSTANCE GetHandle() const { return m_hModule; }

    /// The address of an exported function, or null: with last error 127 if the module has none of that name.
    FARPROC GetProcAddress(CString const & name) const;

    // Null if the module has no such resource: see the platform's calls.
    HRSRC FindResourceW(LPCTSTR name, LPCTSTR type, WORD language = 0) const;
    HGLOBAL LoadResource(HRSRC resource) const;
    LPVOID LockResource(HGLOBAL data) const { return ::LockResource(data); }
    DWORD SizeofResource(HRSRC resource) const;
    /// All of it at once: the bytes, which live as long as the module; size 0 and null on any failure.
    LPVOID LockResource(DWORD & size, LPCTSTR name, LPCTSTR type, WORD language = 0) const;

private:
    HINSTANCE m_hModule = nullptr;
};
