#include "kvx/kvx.h"

#include <cstdio>

namespace
{
struct Pair
{
    CString strName;
    int nValue = 0;
};

class CMine : public CObject
{
    DECLARE_DYNAMIC(CMine)
};
IMPLEMENT_DYNAMIC(CMine, CObject)

CString JoinNames()
{
    CArray<Pair> pairs;
    CMap<CString, LPCTSTR, int, int> numbers;
    CList<CStringA> names;
    CString text(_T("one,two,,three"));
    int at = 0;
    for (CString name = text.Tokenize(_T(","), at); at >= 0; name = text.Tokenize(_T(","), at))
    {
        numbers[name] = static_cast<int>(pairs.Add({name, at}));
        names.AddTail(CStringA(kvx::ToUtf8(name).c_str()));
    }
    CString joined;
    for (POSITION position = names.GetHeadPosition(); position;)
    {
        CString const name = kvx::FromUtf8(names.GetNext(position).AsView());
        joined.AppendFormat(_T("%s=%d/%d "), name, numbers[name], pairs[numbers[name]].nValue);
    }
    return joined.TrimRight();
}

/// What the library throws is caught here, by its class.
bool Catches()
{
    try
    {
        CFile file(_T("no such file"), CFile::modeRead);
    }
    catch (CFileException * failure)
    {
        bool const isFile = failure->IsKindOf(RUNTIME_CLASS(CFileException)) && dynamic_cast<CException *>(failure);
        bool const isRight = failure->m_cause == CFileException::fileNotFound;
        failure->Delete();
        return isFile && isRight;
    }
    return false;
}

/// And what is thrown here goes through the library.
bool PassesThrough()
{
    class CThrower : public CFile
    {
        void Write(void const *, UINT) override { throw 7; }
    } file;
    try
    {
        CXmlDocument document(_T("root"));
        document.ToFile(file);
    }
    catch (int nThrown)
    {
        return nThrown == 7;
    }
    return false;
}
} // namespace

int main()
{
    CString const joined = JoinNames();
    CDictionary values;
    values[_T("a")] = 5;
    CMine mine;
    bool const isGood = joined == _T("one=0/4 two=1/8 three=2/14") && values[_T("a")].ToInteger() == 5 &&
                        mine.IsKindOf(RUNTIME_CLASS(CObject)) &&
                        CString(mine.GetRuntimeClass()->m_lpszClassName) == "CMine";
    std::printf("%s %d%d%d\n", kvx::ToUtf8(joined).c_str(), isGood, Catches(), PassesThrough());
    return 0;
}
