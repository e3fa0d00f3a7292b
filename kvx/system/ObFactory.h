#pragma once

/// Objects made by procedures of libraries that are loaded on demand. A library exports, without name mangling,
/// `CObject * KVX_Create_NAME()` for each kind of object that it makes.

#include "kvx/foundation/ObLookup.h"
#include "kvx/system/WinModule.h"

/// Makes objects of one kind; keeps the library loaded as long as it lives. Only CObFactoryMap makes factories.
class KVX_API CObFactory : public CObject
{
public:
    using CreateProc = CObject * (*)();

    /// A new object, which is the caller's; null if the procedure makes none. It must go before the factory.
    CObject * CreateObject() const { return m_pCreate ? m_pCreate() : nullptr; }
    /// Whether it comes from that library, without regard to case.
    int HasLibrary(LPCTSTR library) const { return m_strLibrary.CompareNoCase(library) == 0; }

protected:
    CObFactory(LPCTSTR library, HINSTANCE module, CreateProc create)
        : m_strLibrary(library), m_module(module), m_pCreate(create)
    {
    }

private:
    friend class CObFactoryMap;

    CString m_strLibrary;
    CWinModule m_module;
    CreateProc m_pCreate;
};

/// Factories by name.
/// Threads: any, but for walks, which don't lock; and no factory may be unloaded while another thread uses it.
class KVX_API CObFactoryMap
{
public:
    CObFactoryMap() = default;
    CObFactoryMap(CObFactoryMap const &) = delete;
    CObFactoryMap & operator=(CObFactoryMap const &) = delete;
    virtual ~CObFactoryMap() = default;

    /// The factory of that name, loaded from the library if it isn't there yet, whatever library it came from then.
    /// Null with the last error if the library or its procedure can't be had.
    CObFactory * LoadFactory(LPCTSTR library, LPCTSTR name);
    /// A new object of the caller's; null without such a factory. With a library the factory is loaded if need be.
    CObject * CreateObject(LPCTSTR name, LPCTSTR library = nullptr);
    void UnloadFactory(LPCTSTR name);
    /// All factories of a library; of every library for null or an empty text.
    void UnloadFactories(LPCTSTR library);

    POSITION GetStartPosition() const { return m_factories.GetStartPosition(); }
    CObFactory * GetNext(POSITION & pos) const;
    void GetNext(POSITION & pos, CString & name, CObFactory *& factory) const;

private:
    CObStringLookup m_factories{1};

    static CObFactory * CreateFactory(LPCTSTR library, LPCTSTR name);
};
