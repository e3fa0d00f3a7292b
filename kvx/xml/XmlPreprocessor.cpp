#include "kvx/xml/XmlPreprocessor.h"

#include "kvx/foundation/Dictionary.h"
#include "kvx/xml/XmlElement.h"

#include <algorithm>
#include <vector>

namespace
{
using View = CString::View;

constexpr int FAILURE = CArchiveException::badIndex;
constexpr WCHAR OPENING[] = {'$', '('};
constexpr View OPENING_VIEW(OPENING, 2);

constexpr std::size_t SHOWN = 256;

[[noreturn]] void Fail(LPCTSTR reason, CString const & text)
{
    AfxThrowArchiveException(FAILURE, reason + text);
}

[[noreturn]] void FailNested(CString const & text)
{
    Fail(_T("Expressions are nested too deeply: "), text);
}

/// How deep the expressions of a text are nested, while it is scanned.
class Nesting
{
public:
    /// False if it is too deep.
    bool Step(View text, std::size_t i)
    {
        if (text[i] == '(')
        {
            m_expressions.push_back(i > 0 && text[i - 1] == '$');
            m_nDepth += m_expressions.back() ? 1 : 0;
        }
        else if (text[i] == ')' && !m_expressions.empty())
        {
            m_nDepth -= m_expressions.back() ? 1 : 0;
            m_expressions.pop_back();
        }
        return m_nDepth < CXmlPreprocessor::MAX_DEPTH;
    }

private:
    std::vector<bool> m_expressions; // for each bracket that is open
    int m_nDepth = 0;
};

/// The closing bracket for one before `start`. With `bBounded` expressions that are nested too deeply are a failure.
std::size_t FindClosing(View text, std::size_t start, bool bBounded)
{
    Nesting nesting;
    int depth = 1;
    for (std::size_t i = start; i < text.size(); ++i)
    {
        depth += text[i] == '(' ? 1 : text[i] == ')' ? -1 : 0;
        if (depth == 0)
        {
            return i;
        }
        if (bBounded && !nesting.Step(text, i))
        {
            FailNested(CString(text.substr(0, SHOWN)));
        }
    }
    return View::npos;
}

/// How many expressions are being evaluated inside of each other on this thread.
constinit thread_local int t_depth = 0;

class DepthScope
{
public:
    explicit DepthScope(CString const & text)
    {
        if (t_depth >= CXmlPreprocessor::MAX_DEPTH)
        {
            FailNested(text.Left(SHOWN));
        }
        ++t_depth;
    }
    DepthScope(DepthScope const &) = delete;
    DepthScope & operator=(DepthScope const &) = delete;
    ~DepthScope() { --t_depth; }
};

/// A text with a gap between what is done and what is still to be looked at, so that a replacement moves nothing but
/// its value.
class GapText
{
public:
    explicit GapText(View text) : m_units(text.begin(), text.end()) {}

    View GetRest() const { return View(m_units.data() + m_nRest, m_units.size() - m_nRest); }
    std::size_t GetSize() const { return m_nDone + GetRest().size(); }
    /// The first units of the rest are done.
    void Accept(std::size_t count)
    {
        std::copy_n(m_units.begin() + static_cast<std::ptrdiff_t>(m_nRest), count,
                    m_units.begin() + static_cast<std::ptrdiff_t>(m_nDone));
        m_nDone += count;
        m_nRest += count;
    }
    /// Puts a value in the place of the first units of the rest.
    void Replace(std::size_t count, View value)
    {
        m_nRest += count;
        std::size_t const gap = m_nRest - m_nDone;
        if (value.size() > gap)
        {
            std::size_t const more = value.size() - gap + m_units.size();
            m_units.insert(m_units.begin() + static_cast<std::ptrdiff_t>(m_nRest), more, WCHAR());
            m_nRest += more;
        }
        m_nRest -= value.size();
        std::ranges::copy(value, m_units.begin() + static_cast<std::ptrdiff_t>(m_nRest));
    }
    /// A `$` at the end of what is done may begin an expression now.
    void TakeBackDollar()
    {
        if (m_nDone > 0 && m_units[m_nDone - 1] == '$')
        {
            --m_nDone;
            m_units[--m_nRest] = '$';
        }
    }
    CString ToText() const
    {
        CString text(View(m_units.data(), m_nDone));
        text.Append(GetRest());
        return text;
    }

private:
    std::vector<WCHAR> m_units;
    std::size_t m_nDone = 0;
    std::size_t m_nRest = 0;
};
} // namespace

int CXmlPreprocessor::FindClosingBracket(CString const & text, int start)
{
    std::size_t const found = FindClosing(text.AsView(), static_cast<std::size_t>(std::max(start, 0)), false);
    return found == View::npos ? -1 : static_cast<int>(found);
}

void CXmlPreprocessor::ProcessElement(CXmlElement * element, CXmlDocument * document, CArchive & archive)
{
    if (!element)
    {
        return;
    }
    if (!element->IsSpecialElement())
    {
        ProcessOrdinaryElement(element, document, archive);
    }
    else if (element->GetTag() == _T("?"))
    {
        CString text = element->GetData();
        ProcessString(text);
        CString target;
        CAttributeSet attributes;
        ParseProcessingInstruction(text, target, attributes);
        ProcessInstruction(target, attributes, element, document, archive);
    }
}

void CXmlPreprocessor::ParseProcessingInstruction(CString const & text, CString & target, CValueAccessor & attributes)
{
    attributes.RemoveAllValues();
    int const blank = text.Find(' ');
    if (blank < 0)
    {
        target = text;
        return;
    }
    CString rest = text.Mid(blank);
    target = text.Left(blank);
    attributes.FromString(rest.Trim());
}

void CXmlPreprocessor::ProcessString(CString & text)
{
    if (text.AsView().find(OPENING_VIEW) == View::npos)
    {
        return;
    }
    GapText work(text.AsView());
    int chained = 0;                                  // replacements in what replacements brought
    std::size_t originalLeft = work.GetRest().size(); // units of the rest behind those
    for (;;)
    {
        View const rest = work.GetRest();
        std::size_t const opening = rest.find(OPENING_VIEW);
        if (opening == View::npos)
        {
            break;
        }
        std::size_t const closing = FindClosing(rest, opening + 2, true);
        if (closing == View::npos || closing == opening + 2)
        {
            Fail(_T("Matching closing bracket not found in expression: "), work.ToText());
        }
        bool const bOriginal = rest.size() - opening <= originalLeft;
        chained = bOriginal ? 0 : chained + 1;
        originalLeft = std::min(originalLeft, rest.size() - closing - 1);
        CString const expression(rest.substr(opening + 2, closing - opening - 2));
        work.Accept(opening);
        CString const value = ProcessExpression(expression);
        work.Replace(closing - opening + 1, value.AsView());
        work.TakeBackDollar();
        if (chained >= MAX_DEPTH || work.GetSize() > MAX_SIZE / sizeof(WCHAR))
        {
            Fail(_T("The expansion of an expression does not end: "), text.Left(SHOWN));
        }
    }
    text = work.ToText();
}

CString CXmlPreprocessor::ProcessExpression(CString const & expression)
{
    DepthScope const scope(expression);
    CString inner = expression;
    if (inner.AsView().find(OPENING_VIEW) != View::npos)
    {
        ProcessString(inner);
    }
    return EvaluateExpression(inner);
}
