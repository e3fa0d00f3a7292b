#include "kvx/xml/XmlReader.h"
#include "kvx/xml/XmlDocument.h"
#include "kvx/xml/XmlPreprocessor.h"

#include <gtest/gtest.h>

namespace
{
/// Expressions are their own values but for `loop` and `grow`, which never end, and `twice(x)`.
class Preprocessor : public CXmlPreprocessor
{
public:
    CString m_strSeen;

    using CXmlPreprocessor::FindClosingBracket;

    CString Expand(CString text)
    {
        try
        {
            ProcessString(text);
        }
        catch (CArchiveException * failure)
        {
            EXPECT_EQ(failure->m_cause, 5);
            text = _T("!") + failure->m_strFileName;
            failure->Delete();
        }
        return text;
    }

protected:
    CString EvaluateExpression(CString const & expression) override
    {
        if (expression == _T("loop"))
        {
            return _T("$(loop)");
        }
        if (expression == _T("grow"))
        {
            return CString('x', 1000000) + _T("$(grow)");
        }
        if (expression.Left(6) == _T("twice "))
        {
            CString const value = expression.Mid(6);
            return _T("$(") + value + _T(")$(") + value + _T(")");
        }
        return _T("[") + expression + _T("]");
    }
    void ProcessInstruction(CString const & target, CValueAccessor & attributes, CXmlElement *, CXmlDocument *,
                            CArchive &) override
    {
        m_strSeen += target + _T("(") + attributes.ToString(0, _T(",")) + _T(") ");
    }
    void ProcessOrdinaryElement(CXmlElement * element, CXmlDocument *, CArchive &) override
    {
        m_strSeen += element->GetParent()->GetTag() + _T("/") + element->GetTag() + _T(" ");
    }
};

class Reader : public CXmlReader
{
public:
    CString m_strSeen;
    CString m_strSkipped;
    int m_nRegistered = 0;

protected:
    void ProcessUnhandledElement(CXmlElement * element) override
    {
        m_strSeen += element->GetTag() + _T(" ");
        SkipChildren(element->GetTag() == m_strSkipped);
    }
    void RegisterHandlers() override { ++m_nRegistered; }
};

class Handler : public CXmlReadHandler
{
public:
    explicit Handler(int & count) : m_nCount(count) {}
    ~Handler() override { m_nCount += 100; }
    void ProcessElement(CXmlElement *) override { ++m_nCount; }

private:
    int & m_nCount;
};
} // namespace

TEST(XmlPreprocessor, ExpandsExpressions)
{
    Preprocessor preprocessor;
    EXPECT_EQ(preprocessor.Expand(_T("x$(a(b)c)y$z")), _T("x[a(b)c]y$z"));
    EXPECT_EQ(preprocessor.Expand(_T("$(a$(b))$(twice c)")), _T("[a[b]][c][c]"));
    EXPECT_EQ(preprocessor.Expand(_T("$$(x)(y)")), _T("$[x](y)"));
    LPCTSTR const missing = _T("!Matching closing bracket not found in expression: ");
    EXPECT_EQ(preprocessor.Expand(_T("$(a)$(b")), missing + CString(_T("[a]$(b")));
    EXPECT_EQ(preprocessor.Expand(_T("a$()")), missing + CString(_T("a$()")));
    EXPECT_EQ(preprocessor.Expand(_T("$(loop)"))[0], '!');
    EXPECT_EQ(preprocessor.Expand(_T("$(grow)"))[0], '!');
    EXPECT_EQ(Preprocessor::FindClosingBracket(_T("$(a(b))"), 2), 6);

    CString nested;
    CString row;
    for (int i = 0; i < 100000; ++i)
    {
        nested += _T("$(");
        row += _T("$(a)");
    }
    EXPECT_EQ(preprocessor.Expand(nested + CString(')', 100000))[0], '!');
    EXPECT_EQ(preprocessor.Expand(row).GetLength(), 300000);
}

TEST(XmlPreprocessor, SeesALoad)
{
    Preprocessor preprocessor;
    CXmlDocument document;
    document.SetPreprocessor(&preprocessor);
    document.FromString("<?target a='$(v)' b=2?><!-- no --><root x='&#36;(y)'><abc>$(t)</abc><in><?i?></in></root>");
    EXPECT_EQ(preprocessor.m_strSeen, _T("target(a=[v],b=2) root/abc i() root/in "));
    EXPECT_EQ(document.ToString(),
              "<?target a='[v]' b=2?><!-- no --><root x=\"[y]\"><abc>[t]</abc><in><?i?></in></root>");
}

TEST(XmlReader, HandsElementsToHandlers)
{
    CXmlDocument document;
    document.FromString("<root><one><skip><not/></skip><!-- c --></one><Two/></root>");
    int handled = 0;
    {
        Reader reader;
        reader.m_strSkipped = _T("skip");
        reader.Analyze(&document);
        reader.Analyze(static_cast<CXmlDocument *>(nullptr));
        EXPECT_EQ(reader.m_strSeen, _T("root one skip Two "));
        EXPECT_EQ(reader.m_nRegistered, 4);
        reader.ReplaceHandler(_T("TWO"), new Handler(handled));
        reader.ReplaceHandler(_T("two"), new Handler(handled));
        reader.Analyze(document.GetRoot());
        EXPECT_EQ(handled, 101);
        EXPECT_EQ(reader.LookupHandler(_T("TWO")), nullptr);
        Handler other(handled);
        reader.SetDefaultHandler(&other);
        reader.Analyze(&document);
        EXPECT_EQ(handled, 106); // the handler for two, and the default one for the rest, which skips nothing
        CXmlElement * deepest = document.GetRoot();
        for (int i = 0; i < CXmlReader::MAX_DEPTH; ++i)
        {
            deepest = deepest->CreateChild(_T("deep"));
        }
        EXPECT_ANY_THROW(
            try { reader.Analyze(&document); } catch (CArchiveException * failure) {
                failure->Delete();
                throw 0;
            });
    }
}
