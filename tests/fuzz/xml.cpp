// Reads arbitrary bytes as a document, in every mode and with a preprocessor. What parses is written, read again,
// copied and merged; what is its own writing with standard tags reads back the same.

#include "Require.h"

#include "kvx/xml/XmlDocument.h"
#include "kvx/xml/XmlPreprocessor.h"

#include <algorithm>
#include <cstdint>

namespace
{
/// Values are expressions again for names that end in a digit, one less each time, and for `0` without end.
class Preprocessor : public CXmlPreprocessor
{
protected:
    CString EvaluateExpression(CString const & expression) override
    {
        // What stood in it may have become nothing.
        WCHAR const last = expression.IsEmpty() ? WCHAR() : expression[expression.GetLength() - 1];
        CString const shorter = expression.Left(std::max(expression.GetLength() - 1, 0));
        return last == '0' ? _T("$(0)") : last > '0' && last <= '9' ? _T("$(x)") + shorter + _T("$") : shorter;
    }
    void ProcessInstruction(CString const & target, CValueAccessor & attributes, CXmlElement * element, CXmlDocument *,
                            CArchive &) override
    {
        element->SetData(target + attributes.ToString(0, _T(" ")));
    }
    void ProcessOrdinaryElement(CXmlElement * element, CXmlDocument *, CArchive & archive) override
    {
        char skipped;
        if (element->HasAttribute(_T("skip")))
        {
            archive.Read(&skipped, 1);
        }
        if (element->HasAttribute(_T("gone")))
        {
            element->GetParent()->RemoveChild(element);
        }
    }
};

bool Read(CXmlDocument & document, CStringA const & text)
{
    try
    {
        document.FromString(text);
        return true;
    }
    catch (CArchiveException * failure)
    {
        Require(failure->m_cause == CArchiveException::badIndex && !document.GetRoot());
        failure->Delete();
        return false;
    }
}

int Count(CXmlElement * element, void * context)
{
    int normal = 0;
    int special = 0;
    for (CXmlElement * child = element->GetChild(1); child; child = child->GetNext(1))
    {
        Require(child->GetParent() == element);
        (child->IsSpecialElement() ? special : normal) += 1;
    }
    Require(element->GetChildCount(0) == normal && element->GetChildCount(1) == normal + special);
    return ++*static_cast<int *>(context);
}

void SetModes(CXmlDocument & document, std::uint8_t modes)
{
    document.ProcessSpecialTags(modes & 1);
    document.ProcessUtf8(modes & 2);
    document.ProcessStandardTags(modes & 4);
    document.SetOutputIndent((modes >> 4) & 3, '\t');
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    Preprocessor preprocessor;
    CXmlDocument document;
    SetModes(document, data[0]);
    document.SetPreprocessor(data[0] & 8 ? &preprocessor : nullptr);
    CStringA const text(reinterpret_cast<char const *>(data + 1), static_cast<int>(size - 1));
    if (text.IsEmpty() || !Read(document, text))
    {
        return 0;
    }
    int count = 0;
    document.ForEachElement(Count, &count);
    Require(count > 0);

    CStringA const written = document.ToString();
    CXmlDocument again;
    SetModes(again, data[0]);
    bool const bAgain = Read(again, written);
    CXmlDocument copy;
    SetModes(copy, data[0]);
    copy = document;
    CXmlDocument bare;
    SetModes(bare, data[0]);
    bare.AttachRoot(document.GetRoot()->Clone(), 1);
    Require(copy.ToString() == bare.ToString());
    if (bAgain)
    {
        copy.Merge(again);
        document.Merge(again);
        count = 0;
        document.ForEachElement(Count, &count);
        copy.GetRoot()->Merge(copy.GetRoot()->GetChild(0));
    }
    return 0;
}
