#pragma once

#include "kvx/platform/host.h"

#include <cstddef>
#include <new>

/// Templates that exported classes derive from must be as visible as those classes. A DLL needs no such
/// mark: every module there instantiates its own copy.
#if defined(_WIN32)
#define AFX_TEMPLATE_API
#else
#define AFX_TEMPLATE_API KVX_API
#endif

class CArchive;
class CObject;

/// Memory for objects and collections: a failure is a CMemoryException, never null.
KVX_API void * AfxAllocate(std::size_t nBytes);
KVX_API void AfxFree(void * p) noexcept;

/// A place in a collection. Only the collection that gave it knows what it points to; null is "none".
struct __POSITION;
using POSITION = __POSITION *;

/// What maps give as the start of a walk when they aren't empty.
#define BEFORE_START_POSITION (reinterpret_cast<POSITION>(static_cast<INT_PTR>(-1)))

/// Added to a schema number in IMPLEMENT_SERIAL: the class reads older schemas than its own.
inline constexpr UINT VERSIONABLE_SCHEMA = 0x80000000;

/// What is known about a class at run time: one static object a class, made by the IMPLEMENT_ macros.
/// All members are constants after load but for the link of the class list, which has its own lock.
struct KVX_API CRuntimeClass
{
    LPCSTR m_lpszClassName;
    int m_nObjectSize; ///< bytes
    UINT m_wSchema;    ///< 0xFFFF: objects of the class can't be archived
    CObject * (*m_pfnCreateObject)();
    CRuntimeClass * (*m_pfnGetBaseClass)();
    CRuntimeClass * m_pNextClass = nullptr;

    /// A new object, owned by the caller; null if the class can't be created by name.
    CObject * CreateObject() const;

    BOOL IsDerivedFrom(CRuntimeClass const * pBaseClass) const;

    /// The serial class of that name, or null. Any thread may call it.
    static CRuntimeClass * FromName(LPCSTR lpszClassName);

    /// A new object of the serial class of that name; null if there is none.
    static CObject * CreateObject(LPCSTR lpszClassName);

    /// The form of a class in an archive: schema, length of the name, name.
    void Store(CArchive & ar) const;
    /// Null if no class of the name read is registered, or the name is malformed.
    static CRuntimeClass * Load(CArchive & ar, UINT * pwSchemaNum);
};

/// Enters a class into the list that archives look names up in, and takes it off again when the module
/// that holds the class is unloaded. Works at any time of static initialisation.
class KVX_API AFX_CLASSINIT
{
public:
    explicit AFX_CLASSINIT(CRuntimeClass * pNewClass);
    ~AFX_CLASSINIT();
    AFX_CLASSINIT(AFX_CLASSINIT const &) = delete;
    AFX_CLASSINIT & operator=(AFX_CLASSINIT const &) = delete;

private:
    CRuntimeClass * m_pClass;
};

/// Where `CObject::Dump` writes to: the debugger, or a caller's buffer of `nMaximum` characters, which is
/// always terminated.
class KVX_API CDumpContext
{
public:
    CDumpContext() = default;
    CDumpContext(LPTSTR pszTarget, std::size_t nMaximum);

    CDumpContext & operator<<(LPCTSTR lpsz);
    CDumpContext & operator<<(LPCSTR lpsz);
    CDumpContext & operator<<(LONGLONG nValue);
    CDumpContext & operator<<(int nValue) { return *this << static_cast<LONGLONG>(nValue); }
    CDumpContext & operator<<(void const * pAddress);

private:
    LPTSTR m_pszTarget = nullptr;
    std::size_t m_nLeft = 0;
};

/// The root of the class tree: run-time class, archiving, diagnostics.
class KVX_API CObject
{
public:
    constexpr CObject() = default;
    virtual CRuntimeClass * GetRuntimeClass() const;
    virtual ~CObject() = default;

    /// Reads or writes the object's content, by the direction of the archive. The base has none.
    virtual void Serialize(CArchive & ar);
    virtual void AssertValid() const;
    virtual void Dump(CDumpContext & dc) const;

    BOOL IsKindOf(CRuntimeClass const * pClass) const { return GetRuntimeClass()->IsDerivedFrom(pClass); }
    BOOL IsSerializable() const { return GetRuntimeClass()->m_wSchema != 0xFFFF; }

    static CRuntimeClass * GetThisClass() { return &classCObject; }
    static CRuntimeClass classCObject;

    // An object that there is no memory for raises CMemoryException, as all that this library allocates.
    static void * operator new(std::size_t nBytes) { return AfxAllocate(nBytes); }
    static void * operator new(std::size_t nBytes, std::nothrow_t const & noThrow) noexcept
    {
        return ::operator new(nBytes, noThrow);
    }
    static void * operator new(std::size_t nBytes, std::align_val_t nAlignment);
    static void * operator new(std::size_t, void * pPlace) noexcept { return pPlace; }
    static void operator delete(void * p) noexcept { AfxFree(p); }
    static void operator delete(void * p, std::nothrow_t const &) noexcept { AfxFree(p); }
    static void operator delete(void * p, std::align_val_t nAlignment) noexcept { ::operator delete(p, nAlignment); }
    static void operator delete(void *, void *) noexcept {}

protected:
    CObject(CObject const &) = default;
    CObject & operator=(CObject const &) = default;
};

#define RUNTIME_CLASS(class_name) (class_name::GetThisClass())

#define DECLARE_DYNAMIC(class_name)                                                                                    \
public:                                                                                                                \
    static CRuntimeClass class##class_name;                                                                            \
    static CRuntimeClass * GetThisClass();                                                                             \
    CRuntimeClass * GetRuntimeClass() const override;

#define DECLARE_DYNCREATE(class_name)                                                                                  \
    DECLARE_DYNAMIC(class_name)                                                                                        \
    static CObject * CreateObject();

#define DECLARE_SERIAL(class_name)                                                                                     \
    DECLARE_DYNCREATE(class_name)                                                                                      \
    friend CArchive & operator>>(CArchive & ar, class_name *& pObject)                                                 \
    {                                                                                                                  \
        pObject = static_cast<class_name *>(AfxReadObject(ar, GetThisClass()));                                        \
        return ar;                                                                                                     \
    }

#define IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, wSchema, pfnNew)                                           \
    constinit CRuntimeClass class_name::class##class_name = {                                                          \
        #class_name, static_cast<int>(sizeof(class_name)), wSchema, pfnNew, &base_class_name::GetThisClass, nullptr};  \
    CRuntimeClass * class_name::GetThisClass()                                                                         \
    {                                                                                                                  \
        return &class##class_name;                                                                                     \
    }                                                                                                                  \
    CRuntimeClass * class_name::GetRuntimeClass() const                                                                \
    {                                                                                                                  \
        return &class##class_name;                                                                                     \
    }

#define IMPLEMENT_DYNAMIC(class_name, base_class_name)                                                                 \
    IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, 0xFFFF, nullptr)

#define IMPLEMENT_DYNCREATE(class_name, base_class_name)                                                               \
    CObject * class_name::CreateObject()                                                                               \
    {                                                                                                                  \
        return new class_name;                                                                                         \
    }                                                                                                                  \
    IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, 0xFFFF, &class_name::CreateObject)

#define IMPLEMENT_SERIAL(class_name, base_class_name, wSchema)                                                         \
    CObject * class_name::CreateObject()                                                                               \
    {                                                                                                                  \
        return new class_name;                                                                                         \
    }                                                                                                                  \
    IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, wSchema, &class_name::CreateObject)                            \
    static AFX_CLASSINIT const g_classInit##class_name(class_name::GetThisClass());

/// `CArchive::ReadObject`, for the operators that DECLARE_SERIAL makes.
KVX_API CObject * AfxReadObject(CArchive & ar, CRuntimeClass const * pClass);

/// The object, if it is of the class or derives from it; else null (also for null).
KVX_API CObject * AfxDynamicDownCast(CRuntimeClass const * pClass, CObject * pObject);

#define DYNAMIC_DOWNCAST(class_name, object)                                                                           \
    (static_cast<class_name *>(AfxDynamicDownCast(RUNTIME_CLASS(class_name), object)))
#define STATIC_DOWNCAST(class_name, object) (static_cast<class_name *>(object))
