#include "kvx/xml/XmlElement.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/text/StringFile.h"
#include "kvx/text/StringTokenizer.h"
#include "kvx/xml/XmlDocument.h"
#include "kvx/xml/XmlParser.h"
#include "kvx/xml/XmlWriter.h"

#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

IMPLEMENT_DYNAMIC(CXmlElement, CObject)

CXmlElement::CXmlElement(LPCTSTR tag) : m_strTag(tag) {}

CXmlElement::CXmlElement(CXmlElement const & other) : CXmlElement(other.m_strTag.GetString())
{
    CopyContent(other);
    CopyChildren(other);
    m_pParent = other.m_pParent;
    m_pDocument = other.m_pDocument;
    CXmlElement * last = this;
    try
    {
        for (CXmlElement const * sibling = other.m_pNext; sibling; sibling = sibling->m_pNext)
        {
            last->m_pNext = sibling->Clone();
            last = last->m_pNext;
            last->m_pParent = sibling->m_pParent;
            last->m_pDocument = sibling->m_pDocument;
        }
    }
    catch (...)
    {
        DeleteChain(m_pNext);
        throw;
    }
}

CXmlElement::~CXmlElement()
{
    DeleteChain(m_pFirstChild);
}

void CXmlElement::DeleteChain(CXmlElement * first)
{
    // What is below an element goes in front of its siblings, so that each is deleted without children.
    while (first)
    {
        CXmlElement * const element = first;
        first = element->m_pNext;
        if (element->m_pFirstChild)
        {
            element->m_pLastChild->m_pNext = first;
            first = std::exchange(element->m_pFirstChild, nullptr);
            element->m_pLastChild = nullptr;
        }
        delete element;
    }
}

void CXmlElement::CopyContent(CXmlElement const & other)
{
    m_strTag = other.m_strTag;
    m_strData = other.m_strData;
    m_bCData = other.m_bCData;
    if (other.m_attributes.GetStartValuePosition())
    {
        m_attributes.Reserve(other.m_attributes.GetCount());
        m_attributes.MergeValues(other.m_attributes);
    }
}

CXmlElement * CXmlElement::AppendCopy(CXmlElement const & other)
{
    auto copy = std::make_unique<CXmlElement>(nullptr);
    copy->CopyContent(other);
    Append(copy.get());
    return copy.release();
}

void CXmlElement::CopyChildren(CXmlElement const & other)
{
    CXmlElement const * source = &other;
    CXmlElement * target = this;
    for (;;)
    {
        if (source->m_pFirstChild)
        {
            source = source->m_pFirstChild;
            target = target->AppendCopy(*source);
            continue;
        }
        while (source != &other && !source->m_pNext)
        {
            source = source->m_pParent;
            target = target->m_pParent;
        }
        if (source == &other)
        {
            return;
        }
        source = source->m_pNext;
        target = target->m_pParent->AppendCopy(*source);
    }
}

CXmlElement * CXmlElement::Clone() const
{
    auto copy = std::make_unique<CXmlElement>(nullptr);
    copy->CopyContent(*this);
    copy->CopyChildren(*this);
    return copy.release();
}

void CXmlElement::SetTag(CString const & tag)
{
    bool const bCounted = m_counted != COUNTED_NOWHERE;
    if (bCounted)
    {
        m_pParent->Uncount(this);
    }
    m_strTag = tag;
    if (bCounted)
    {
        m_pParent->Count(this);
    }
}

CXmlDocument * CXmlElement::GetDocument() const
{
    CXmlElement const * element = this;
    while (!element->m_pDocument && element->m_pParent)
    {
        element = element->m_pParent;
    }
    return element->m_pDocument;
}

CXmlElement const & CXmlElement::GetTop() const
{
    CXmlElement const * element = this;
    while (element->m_pParent)
    {
        element = element->m_pParent;
    }
    return *element;
}

void CXmlElement::SetData(CStringValue const & data)
{
    m_strData = data;
    m_bCData = 0;
}

void CXmlElement::SetCData(CStringValue const & data)
{
    m_strData = data;
    m_bCData = 1;
}

void CXmlElement::SetAttributes(CValueAccessor const & source)
{
    CAttributeSet values; // the source may be this element
    values.MergeValues(source);
    m_attributes.RemoveAll();
    m_attributes.MergeValues(values);
}

void CXmlElement::Count(CXmlElement * child)
{
    bool const bSpecial = child->IsSpecialElement();
    child->m_counted = bSpecial ? COUNTED_SPECIAL : COUNTED_NORMAL;
    m_nSpecialChildren += bSpecial ? 1 : 0;
    m_nChildren += bSpecial ? 0 : 1;
}

void CXmlElement::Uncount(CXmlElement * child)
{
    m_nSpecialChildren -= child->m_counted == COUNTED_SPECIAL ? 1 : 0;
    m_nChildren -= child->m_counted == COUNTED_NORMAL ? 1 : 0;
    child->m_counted = COUNTED_NOWHERE;
}

void CXmlElement::Append(CXmlElement * child)
{
    child->m_pParent = this;
    Count(child);
    (m_pLastChild ? m_pLastChild->m_pNext : m_pFirstChild) = child;
    m_pLastChild = child;
}

/// Raises CInvalidArgException for what can't become a child here: it, or one of the chain that it leads, would be
/// above itself, or belong to a document too.
void CXmlElement::CheckChild(CXmlElement const & child) const
{
    if (child.m_pDocument && !child.IsChild() && child.m_pDocument->GetRoot() == &child)
    {
        AfxThrowInvalidArgException();
    }
    bool bAnyAbove = &child == this;
    for (CXmlElement const * first = &child; first && !bAnyAbove; first = child.IsChild() ? nullptr : first->m_pNext)
    {
        // What has no children is above nothing, and needs no walk.
        CXmlElement const * above = first->m_pFirstChild ? this : nullptr;
        while (above && above != first)
        {
            above = above->IsChild() ? above->m_pParent : nullptr;
        }
        bAnyAbove = above != nullptr;
    }
    if (bAnyAbove)
    {
        AfxThrowInvalidArgException();
    }
}

void CXmlElement::AddChild(CXmlElement * child, int atFront)
{
    if (!child)
    {
        return;
    }
    CheckChild(*child);
    if (child->IsChild())
    {
        child->m_pParent->Unlink(child);
    }
    AddChain(child, atFront != 0);
}

void CXmlElement::AddChain(CXmlElement * first, bool atFront)
{
    m_strData.Empty();
    CXmlElement * last = first;
    for (CXmlElement * element = first; element; element = element->m_pNext)
    {
        element->m_pParent = this;
        element->m_pDocument = nullptr; // the document of a copy may be another one
        Count(element);
        last = element;
    }
    if (atFront && m_pFirstChild)
    {
        last->m_pNext = m_pFirstChild;
        m_pFirstChild = first;
        return;
    }
    (m_pLastChild ? m_pLastChild->m_pNext : m_pFirstChild) = first;
    m_pLastChild = last;
}

CXmlElement * CXmlElement::CreateChild(LPCTSTR tag, int atFront, CXmlElement * source, int acquire)
{
    auto child = std::make_unique<CXmlElement>(tag);
    if (source)
    {
        child->SetAttributes(source->m_attributes);
        if (acquire)
        {
            child->AcquireChildren(source);
        }
    }
    AddChild(child.get(), atFront);
    return child.release();
}

void CXmlElement::AcquireChildren(CXmlElement * from)
{
    if (!from || from == this || !from->m_pFirstChild)
    {
        return;
    }
    if (IsChild())
    {
        CheckChild(*from); // whose children this element may be among
    }
    CXmlElement * const first = std::exchange(from->m_pFirstChild, nullptr);
    from->m_pLastChild = nullptr;
    from->m_nChildren = 0;
    from->m_nSpecialChildren = 0;
    AddChain(first, false);
}

void CXmlElement::InsertChild(CXmlElement * child, CXmlElement * before)
{
    if (child)
    {
        CheckChild(*child); // before anything is done
    }
    CXmlElement * const moved = before ? before : m_pFirstChild;
    if (moved && !Unlink(moved))
    {
        return;
    }
    AddChild(child);
    AddChild(moved != child ? moved : nullptr);
}

int CXmlElement::InsertChildBefore(CXmlElement * child, CXmlElement * before)
{
    if (!child || child == before || (before && (before->m_pParent != this || !before->IsChild())))
    {
        return 0;
    }
    CheckChild(*child);
    if (child->IsChild())
    {
        child->m_pParent->Unlink(child);
    }
    CXmlElement * previous = nullptr;
    for (CXmlElement * at = m_pFirstChild; at != before; at = at->m_pNext)
    {
        previous = at;
    }
    if (!previous || !before)
    {
        AddChain(child, before != nullptr);
        return 1;
    }
    // As if the children ended before the place.
    CXmlElement * const last = std::exchange(m_pLastChild, previous);
    AddChain(child, false);
    std::exchange(m_pLastChild, last)->m_pNext = before;
    return 1;
}

/// Takes a child off the chain; null if it is none.
CXmlElement * CXmlElement::Unlink(CXmlElement * child)
{
    if (!child || child->m_pParent != this || !child->IsChild())
    {
        return nullptr;
    }
    CXmlElement * previous = nullptr;
    for (CXmlElement * at = m_pFirstChild; at != child; at = at->m_pNext)
    {
        previous = at;
    }
    (previous ? previous->m_pNext : m_pFirstChild) = child->m_pNext;
    if (m_pLastChild == child)
    {
        m_pLastChild = previous;
    }
    Uncount(child);
    child->m_pNext = nullptr;
    child->m_pParent = nullptr;
    return child;
}

CXmlElement * CXmlElement::DetachChild(CXmlElement * child)
{
    return Unlink(child ? child : m_pFirstChild);
}

int CXmlElement::RemoveChild(CXmlElement * child, int deleteIt)
{
    CXmlElement * const removed = Unlink(child);
    if (deleteIt)
    {
        delete removed;
    }
    return removed != nullptr;
}

int CXmlElement::RemoveChild(LPCTSTR tag, int deleteIt)
{
    return RemoveChild(FindChild(tag), deleteIt);
}

void CXmlElement::RemoveAllChildren()
{
    DeleteChain(std::exchange(m_pFirstChild, nullptr));
    m_pLastChild = nullptr;
    m_nChildren = 0;
    m_nSpecialChildren = 0;
}

CXmlElement * CXmlElement::Find(CXmlElement * element, LPCTSTR tag)
{
    CString const wanted(tag);
    while (element && element->m_strTag.CompareNoCase(wanted.AsView()) != 0)
    {
        element = element->m_pNext;
    }
    return element;
}

CXmlElement * CXmlElement::FindChild(LPCTSTR tag) const
{
    return Find(m_pFirstChild, tag);
}

CXmlElement * CXmlElement::FindNext(LPCTSTR tag) const
{
    return Find(m_pNext, tag);
}

CXmlElement * CXmlElement::FindElement(CString const & path, LPCTSTR delimiters) const
{
    auto * element = const_cast<CXmlElement *>(this);
    CStringTokenizer tokens(path, delimiters);
    for (CString token; element && tokens.GetNextString(token);)
    {
        element = element->FindChild(token);
    }
    return element;
}

int CXmlElement::EvaluateMerge(CXmlElement const * other) const
{
    if (m_attributes.GetCount() != other->m_attributes.GetCount() || !(m_strData == other->m_strData) ||
        m_strTag.CompareNoCase(other->m_strTag.AsView()) != 0)
    {
        return 0;
    }
    CString name;
    CString value;
    CString theirs;
    for (POSITION pos = GetStartAttributePosition(); pos;)
    {
        GetNextAttribute(pos, name, value);
        if (m_attributes.HasValue(name) && (!other->m_attributes.GetValue(name, theirs) || theirs != value))
        {
            return 0;
        }
    }
    return 1;
}

int CXmlElement::Merge(CXmlElement const * other)
{
    if (!other)
    {
        return 0;
    }
    if (!EvaluateMerge(other))
    {
        if (m_pParent)
        {
            m_pParent->AddChild(new CXmlElement(*other));
            return 1;
        }
        if (!m_strTag.IsEmpty() || GetAttributeCount() > 0 || !IsEmpty())
        {
            return 0;
        }
        SetTag(other->m_strTag);
        SetAttributes(other->m_attributes);
    }
    MergeChildren(other);
    return 1;
}

namespace
{
/// What is equal for elements that are the same.
std::size_t HashForMerge(CXmlElement const & element)
{
    auto const hash = [](CString const & text)
    { return std::size_t{kvx::HashText(text.GetString(), static_cast<std::size_t>(text.GetLength()))}; };
    CString tag = element.GetTag();
    std::size_t sum = hash(tag.MakeLower()) * 31 + hash(element.GetData());
    CString name;
    CString value;
    for (POSITION pos = element.GetStartAttributePosition(); pos;)
    {
        element.GetNextAttribute(pos, name, value);
        if (element.HasAttribute(name))
        {
            sum += (hash(name) * 0x9E3779B1 + 1) * (hash(value) | 1); // in any order
        }
    }
    return sum;
}

/// An element's children that nothing has been merged into yet.
class MergeTargets
{
public:
    explicit MergeTargets(CXmlElement const & parent)
    {
        for (CXmlElement * child = parent.GetChild(0); child; child = child->GetNext(0))
        {
            m_sameHash[HashForMerge(*child)].children.push_back(child);
        }
    }

    /// The first that is the same, which is taken off; null without one.
    template <class TEST>
    CXmlElement * Take(CXmlElement const & incoming, TEST const & isSame)
    {
        auto const found = m_sameHash.empty() ? m_sameHash.end() : m_sameHash.find(HashForMerge(incoming));
        if (found == m_sameHash.end())
        {
            return nullptr;
        }
        auto & [children, nFirst] = found->second;
        for (std::size_t i = nFirst; i < children.size(); ++i)
        {
            if (children[i] && isSame(*children[i]))
            {
                CXmlElement * const taken = std::exchange(children[i], nullptr);
                nFirst += i == nFirst ? 1 : 0;
                return taken;
            }
        }
        return nullptr;
    }

private:
    struct Candidates
    {
        std::vector<CXmlElement *> children; // null where one was taken
        std::size_t nFirst = 0;
    };
    std::unordered_map<std::size_t, Candidates> m_sameHash;
};
} // namespace

void CXmlElement::MergeChildren(CXmlElement const * other)
{
    if (!other)
    {
        return;
    }
    kvx::MemoryGuarded([&] { MergeEachChild(other); });
}

void CXmlElement::MergeEachChild(CXmlElement const * other)
{
    // A part of this very tree would grow while it is walked.
    std::unique_ptr<CXmlElement> const copy(&GetTop() == &other->GetTop() ? other->Clone() : nullptr);
    std::vector<std::pair<CXmlElement *, CXmlElement const *>> pairs{{this, copy ? copy.get() : other}};
    while (!pairs.empty())
    {
        auto const [target, source] = pairs.back();
        pairs.pop_back();
        MergeTargets targets(*target);
        for (CXmlElement const * incoming = source->GetChild(0); incoming; incoming = incoming->GetNext(0))
        {
            CXmlElement * child =
                targets.Take(*incoming, [&](CXmlElement const & mine) { return mine.EvaluateMerge(incoming) != 0; });
            if (!child)
            {
                child = target->CreateChild(incoming->m_strTag);
                child->SetAttributes(incoming->m_attributes);
                if (!incoming->HasChildren(0))
                {
                    child->SetData(incoming->m_strData);
                }
            }
            if (incoming->HasChildren(0))
            {
                pairs.emplace_back(child, incoming);
            }
        }
    }
}

void CXmlElement::Load(CArchive & archive)
{
    kvx::MemoryGuarded([&] { kvx::XmlParser(archive, GetDocument()).Load(*this); });
}

void CXmlElement::Store(CArchive & archive) const
{
    kvx::XmlWriter(archive, GetTop().m_pDocument).Write(*this);
}

void CXmlElement::Serialize(CArchive & archive)
{
    if (archive.IsStoring())
    {
        Store(archive);
    }
    else
    {
        Load(archive);
    }
}

void CXmlElement::FromFile(CFile & file)
{
    CArchive archive(&file, CArchive::load, kvx::XML_BUFFER);
    Serialize(archive);
    archive.Close();
}

void CXmlElement::ToFile(CFile & file) const
{
    CArchive archive(&file, CArchive::store, kvx::XML_BUFFER);
    Store(archive);
    archive.Close();
}

void CXmlElement::FromString(CString const & text)
{
    CStringA narrow = CUtilities::StringToAnsi(text);
    CStringFileA file(narrow);
    FromFile(file);
}

void CXmlElement::ToString(CString & text) const
{
    CStringA narrow;
    CStringFileA file(narrow);
    ToFile(file);
    text = CUtilities::AnsiToString(narrow);
}
