#include "kvx/xml/ElementProxy.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/foundation/ValueAccessor.h"
#include "kvx/logging/LogManager.h"
#include "kvx/xml/XMLDocumentKVX.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tinyxml2
{
namespace
{
CStringA ToUtf8(CString const & text)
{
    return CUtilities::T2MB(text, CP_UTF8);
}

CString FromUtf8(char const * text)
{
    return CUtilities::MB2T(text, CP_UTF8);
}

// Two names that differ in case only have the same one.
std::string Folded(std::string_view name)
{
    if (std::ranges::all_of(name, [](char c) { return static_cast<unsigned char>(c) < 0x80; }))
    {
        std::string folded(name);
        for (char & c : folded)
        {
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
        return folded;
    }
    CString wide = CUtilities::MB2T(CStringA(name.data(), static_cast<int>(name.size())), CP_UTF8);
    return ToUtf8(wide.MakeLower()).GetString();
}

bool EqualNames(char const * name, std::string const & folded)
{
    return Folded(name) == folded;
}

// Two elements are equal if they have the same one of these. None of the texts contains a 0.
std::string KeyOf(XMLElement const & element)
{
    std::vector<std::pair<std::string_view, std::string_view>> attributes;
    for (XMLAttribute const * at = element.FirstAttribute(); at; at = at->Next())
    {
        attributes.emplace_back(at->Name(), at->Value());
    }
    std::ranges::sort(attributes);
    std::string key = Folded(element.Name());
    char const * const text = element.GetText();
    key.append(1, '\0').append(text ? "=" : "").append(text ? text : "");
    for (auto const & [name, value] : attributes)
    {
        key.append(1, '\0').append(name).append(1, '\0').append(value);
    }
    return key;
}

template <class NODE>
bool IsAbove(NODE const * upper, XMLNode const * lower)
{
    while (lower && lower != upper)
    {
        lower = lower->Parent();
    }
    return lower != nullptr;
}

// The elements below another one that nothing has been merged into yet, found by what they are equal to.
class CUnmatched
{
public:
    explicit CUnmatched(XMLElement & parent)
    {
        for (XMLElement * at = parent.FirstChildElement(); at; at = at->NextSiblingElement())
        {
            m_elements[KeyOf(*at)].push_back(at);
        }
    }

    // The first of them, which then counts as found; null if there is none.
    XMLElement * Take(XMLElement const & equal)
    {
        if (m_elements.empty())
        {
            return nullptr;
        }
        auto const found = m_elements.find(KeyOf(equal));
        if (found == m_elements.end())
        {
            return nullptr;
        }
        XMLElement * const element = found->second.front();
        found->second.pop_front();
        if (found->second.empty())
        {
            m_elements.erase(found);
        }
        return element;
    }

private:
    std::unordered_map<std::string, std::list<XMLElement *>> m_elements;
};

XMLElement * AddCopy(XMLElement const & element, XMLElement & parent)
{
    XMLElement * const copy = parent.GetDocument()->NewElement(element.Name());
    parent.InsertEndChild(copy);
    ElementProxy(copy).CopyAttributes(&element);
    return copy;
}

// The source isn't changed by what happens to the target.
void MergeApart(XMLElement const & source, XMLElement & target)
{
    struct Level
    {
        XMLElement const * incoming; // that comes next
        XMLElement * target;
        CUnmatched unmatched;
    };
    std::list<Level> levels;
    levels.push_back({source.FirstChildElement(), &target, CUnmatched(target)});
    while (!levels.empty())
    {
        Level & level = levels.back();
        XMLElement const * const incoming = level.incoming;
        if (!incoming)
        {
            levels.pop_back();
            continue;
        }
        level.incoming = incoming->NextSiblingElement();
        XMLElement const * const children = incoming->FirstChildElement();
        XMLElement * place = level.unmatched.Take(*incoming);
        if (!place)
        {
            place = AddCopy(*incoming, *level.target);
            if (!children)
            {
                ElementProxy(place).SetText(incoming->GetText());
            }
        }
        if (children)
        {
            levels.push_back({children, place, CUnmatched(*place)});
        }
    }
}

// Appends copies of all that is below a node to one that isn't below it.
void CopyChildNodes(XMLNode const & source, XMLNode & target)
{
    XMLDocument * const document = target.GetDocument();
    XMLNode const * const last = source.LastChild();
    XMLNode const * from = source.FirstChild();
    XMLNode * to = &target;
    while (from)
    {
        XMLNode * const copy = from->ShallowClone(document);
        to->InsertEndChild(copy);
        if (from->FirstChild())
        {
            from = from->FirstChild();
            to = copy;
            continue;
        }
        while (from != last && !from->NextSibling())
        {
            from = from->Parent();
            to = to->Parent();
        }
        from = from == last ? nullptr : from->NextSibling();
    }
}
} // namespace

XMLElement * ElementProxy::operator->()
{
    ValidateElement(_T("operator -> ()"));
    return m_pElement;
}

XMLElement const * ElementProxy::operator->() const
{
    ValidateElement(_T("operator -> ()"));
    return m_pElement;
}

XMLElement & ElementProxy::operator*()
{
    ValidateElement(_T("operator * ()"));
    return *m_pElement;
}

XMLElement const & ElementProxy::operator*() const
{
    ValidateElement(_T("operator * ()"));
    return *m_pElement;
}

bool ElementProxy::operator==(XMLElement const & other) const
{
    return m_pElement && (m_pElement == &other || KeyOf(*m_pElement) == KeyOf(other));
}

XMLElement * ElementProxy::AddChild(char const * name, char const * text)
{
    if (!m_pElement || !name)
    {
        return nullptr;
    }
    XMLDocument * const document = m_pElement->GetDocument();
    XMLElement * const child = document->NewElement(name);
    m_pElement->InsertEndChild(child);
    if (text)
    {
        child->InsertEndChild(document->NewText(text));
    }
    return child;
}

XMLElement * ElementProxy::AddChild(char const * name, CStringValue const & text)
{
    return AddChild(name, ToUtf8(text).GetString());
}

void ElementProxy::SetText(char const * text)
{
    // It may be a part of what goes.
    std::string const kept(text ? text : "");
    ClearText();
    if (m_pElement && text)
    {
        m_pElement->InsertFirstChild(m_pElement->GetDocument()->NewText(kept.c_str()));
    }
}

void ElementProxy::SetText(LPCTSTR text)
{
    if (text)
    {
        SetText(ToUtf8(text).GetString());
    }
    else
    {
        ClearText();
    }
}

void ElementProxy::ClearText()
{
    for (XMLNode * at = m_pElement ? m_pElement->FirstChild() : nullptr; at;)
    {
        XMLNode * const next = at->NextSibling();
        if (at->ToText())
        {
            m_pElement->DeleteChild(at);
        }
        at = next;
    }
}

XMLElement * ElementProxy::FindChildElement(char const * name) const
{
    if (!m_pElement || !name)
    {
        return nullptr;
    }
    std::string const folded = Folded(name);
    XMLElement * at = m_pElement->FirstChildElement();
    while (at && !EqualNames(at->Name(), folded))
    {
        at = at->NextSiblingElement();
    }
    return at;
}

XMLElement * ElementProxy::FindChildElement(LPCTSTR name) const
{
    return name ? FindChildElement(ToUtf8(name).GetString()) : nullptr;
}

int ElementProxy::GetChildCount() const
{
    int count = 0;
    for (XMLNode const * at = m_pElement ? m_pElement->FirstChild() : nullptr; at; at = at->NextSibling())
    {
        ++count;
    }
    return count;
}

int ElementProxy::GetChildElementCount() const
{
    return GetChildElementCount(static_cast<char const *>(nullptr));
}

int ElementProxy::GetChildElementCount(char const * name) const
{
    std::string const folded = name ? Folded(name) : std::string();
    int count = 0;
    XMLElement const * at = m_pElement ? m_pElement->FirstChildElement() : nullptr;
    for (; at; at = at->NextSiblingElement())
    {
        count += !name || EqualNames(at->Name(), folded);
    }
    return count;
}

int ElementProxy::GetChildElementCount(LPCTSTR name) const
{
    return name ? GetChildElementCount(ToUtf8(name).GetString()) : GetChildElementCount();
}

bool ElementProxy::HasChildren() const
{
    return m_pElement && m_pElement->FirstChild();
}

bool ElementProxy::HasChildElements() const
{
    return m_pElement && m_pElement->FirstChildElement();
}

bool ElementProxy::HasChildElements(char const * name) const
{
    return name ? FindChildElement(name) != nullptr : HasChildElements();
}

bool ElementProxy::HasChildElements(LPCTSTR name) const
{
    return name ? FindChildElement(name) != nullptr : HasChildElements();
}

int ElementProxy::GetAttributeCount() const
{
    int count = 0;
    for (XMLAttribute const * at = m_pElement ? m_pElement->FirstAttribute() : nullptr; at; at = at->Next())
    {
        ++count;
    }
    return count;
}

bool ElementProxy::HasAttribute(char const * name) const
{
    return m_pElement && name && m_pElement->FindAttribute(name);
}

bool ElementProxy::HasAttribute(LPCTSTR name) const
{
    return name && HasAttribute(ToUtf8(name).GetString());
}

void ElementProxy::GetAttributes(CValueAccessor & target) const
{
    for (XMLAttribute const * at = m_pElement ? m_pElement->FirstAttribute() : nullptr; at; at = at->Next())
    {
        target.CreateValue(FromUtf8(at->Name())) = FromUtf8(at->Value());
    }
}

void ElementProxy::MergeAttributes(CValueAccessor const & source)
{
    if (!m_pElement)
    {
        return;
    }
    CString name;
    CString value;
    for (POSITION pos = source.GetStartValuePosition(); pos;)
    {
        source.GetNextValue(pos, name, value);
        m_pElement->SetAttribute(ToUtf8(name), ToUtf8(value).GetString());
    }
}

void ElementProxy::SetAttributes(CValueAccessor const & source)
{
    for (XMLAttribute const * at = m_pElement ? m_pElement->FirstAttribute() : nullptr; at;)
    {
        XMLAttribute const * const next = at->Next();
        if (!source.HasValue(FromUtf8(at->Name())))
        {
            m_pElement->DeleteAttribute(at->Name());
        }
        at = next;
    }
    MergeAttributes(source);
}

void ElementProxy::CopyAttributes(XMLElement const * other)
{
    if (!m_pElement || m_pElement == other)
    {
        return;
    }
    for (XMLAttribute const * at = other ? other->FirstAttribute() : nullptr; at; at = at->Next())
    {
        m_pElement->SetAttribute(at->Name(), at->Value());
    }
}

bool ElementProxy::Merge(XMLElement const * other)
{
    if (!m_pElement || !other)
    {
        return false;
    }
    if (*this == *other)
    {
        return MergeChildren(other);
    }
    XMLDocument * const document = m_pElement->GetDocument();
    if (XMLNode * const parent = m_pElement->Parent(); parent && parent->ToElement())
    {
        // It is put in its place last: the other may be above.
        XMLElement * const sibling = document->NewElement(other->Name());
        ElementProxy(sibling).CopyAttributes(other);
        ElementProxy(sibling).MergeChildren(other);
        parent->InsertEndChild(sibling);
        return true;
    }
    if (*m_pElement->Name() || m_pElement->FirstAttribute() || m_pElement->FirstChild())
    {
        return false;
    }
    m_pElement->SetName(other->Name());
    CopyAttributes(other);
    CopyChildNodes(*other, *m_pElement);
    return true;
}

bool ElementProxy::MergeChildren(XMLElement const * other)
{
    if (!m_pElement || !other)
    {
        return false;
    }
    if (IsAbove(m_pElement, other) || IsAbove(other, m_pElement))
    {
        // What is added here would come in again.
        XMLDocumentKVX apart("");
        CopyChildNodes(*other, *apart.RootElement());
        MergeApart(*apart.RootElement(), *m_pElement);
    }
    else
    {
        MergeApart(*other, *m_pElement);
    }
    return true;
}

void ElementProxy::ValidateElement(LPCTSTR operationName) const
{
    if (!m_pElement)
    {
        LogError(_T("ElementProxy::%s null pointer exception"), operationName ? operationName : _T("<<unknown>>"));
        Sleep(1000); // the caller goes on to use the null pointer: the log's thread needs the time
    }
}
} // namespace tinyxml2
