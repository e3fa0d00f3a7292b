#include "kvx/kvx.h"

namespace
{
/// Of what a module defines, something of each kind.
class CAnswer : public CMsgProvider
{
public:
    void RegisterProviderMap() override
    {
        CMsgProvider::RegisterProviderMap();
        AddProvider(_T("six"), new _MsgMapEntry<CAnswer>(this, &CAnswer::OnSix));
    }
    void OnSix(CMsgRequest & request)
    {
        CDictionary values;
        values[_T("value")] = static_cast<int>(request[_T("factor")]) * 6;
        request.SetResponseValues(values);
    }
};
} // namespace

class CNote : public CObject
{
    DECLARE_SERIAL(CNote)
public:
    void Serialize(CArchive & archive) override
    {
        CObject::Serialize(archive);
        archive << m_text;
    }
    CString m_text;
};
IMPLEMENT_SERIAL(CNote, CObject, 1)

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

/// Uses a good share of the library's headers. The answer is 42.
KVX_MODULE_EXPORT int KVX_Work()
{
    CString text;
    text.Format(_T("%d %s %S"), 6, _T("times"), "7");
    CStringA const narrow(text);
    CArray<CString> array;
    array.Add(text);
    CList<CStringA> list;
    list.AddTail(narrow);
    CMap<CString, LPCTSTR, int, int> map;
    map.SetAt(text.Mid(2), array.GetSize() == list.GetCount() ? 7 : 0);
    CObStringLookup lookup;
    CCache<CNote> cache;
    CAttributeSet attributes;
    attributes[_T("factor")] = map[_T("times 7")];
    CDictionaryTree tree;
    CMsgTable table;
    table.AddColumn(_T("column"));
    CMemFile file;
    {
        CArchive archive(&file, CArchive::store);
        CNote note;
        note.Serialize(archive);
    }
    CSingleLock lock(lookup);
    lock.Lock();
    CMsgTarget target;
    target.RegisterProvider(_T("answer"), new CAnswer);
    CMsgRequest request;
    request[_T("factor")] = attributes[_T("factor")];
    target.Service(_T("answer.six"), request);
    CDictionary values;
    request.GetResponseValues(values);
    try
    {
        AfxThrowInvalidArgException();
    }
    catch (CInvalidArgException * failure)
    {
        failure->Delete();
    }
    LogInfo(_T("%s"), text);
    return static_cast<int>(values[_T("value")]);
}
