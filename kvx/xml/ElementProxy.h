#pragma once

/// An element of a tinyxml2 document, spoken to with the library's own texts and value sets.

#include "kvx/foundation/StringValue.h"

#include <tinyxml2.h>

class CValueAccessor;

namespace tinyxml2
{
/// A pointer to an element, which the document owns; it may be null, and all operations but `->` and `*` then do
/// nothing and give 0, false or null. Narrow text is UTF-8, and wide text is converted to it: what UTF-8 can't hold, a
/// lone surrogate, becomes U+FFFD, and a text ends at its first 0.
///
/// `->` and `*` of a null proxy are an error of the caller: it is logged, the log gets a second to write it, and the
/// null pointer is used all the same, which ends the process. Ask IsNULL first.
///
/// No operation's stack grows with the depth of a tree. Threads: a document belongs to one.
class KVX_API ElementProxy
{
public:
    ElementProxy(XMLElement * element) : m_pElement(element) {}
    ElementProxy(ElementProxy const &) = default;
    ElementProxy & operator=(ElementProxy const &) = default;
    ElementProxy & operator=(XMLElement * element)
    {
        m_pElement = element;
        return *this;
    }

    operator XMLElement *() { return m_pElement; }
    operator XMLElement const *() const { return m_pElement; }
    XMLElement * operator->();
    XMLElement const * operator->() const;
    XMLElement & operator*();
    XMLElement const & operator*() const;
    bool IsNULL() const { return m_pElement == nullptr; }

    /// The same name without regard to case, the same attributes with the same values in any order, and the same text
    /// (GetText), or none in both. Other children don't matter.
    bool operator==(XMLElement const & other) const;

    /// A new last child, which gets a text unless that is null.
    XMLElement * AddChild(char const * name, char const * text = nullptr);
    XMLElement * AddChild(char const * name, CStringValue const & text);
    /// Replaces the text children by one, which comes first; null leaves none.
    void SetText(char const * text);
    void SetText(LPCTSTR text);

    /// The first of that name, without regard to case; null if there is none.
    XMLElement * FindChildElement(char const * name) const;
    XMLElement * FindChildElement(LPCTSTR name) const;
    /// Of all nodes; of elements; of elements of that name without regard to case, all with null.
    int GetChildCount() const;
    int GetChildElementCount() const;
    int GetChildElementCount(char const * name) const;
    int GetChildElementCount(LPCTSTR name) const;
    bool HasChildren() const;
    bool HasChildElements() const;
    bool HasChildElements(char const * name) const;
    bool HasChildElements(LPCTSTR name) const;

    int GetAttributeCount() const;
    bool HasAttribute(char const * name) const;
    bool HasAttribute(LPCTSTR name) const;
    /// Adds the attributes to the set, which keeps what else it has.
    void GetAttributes(CValueAccessor & target) const;
    // tinyxml2 keeps an element's attributes as a list and searches it from its start for each one that is set, as it
    // does when it parses: the time of the three below grows with the square of their number. A thousand take
    // milliseconds, some ten thousands take seconds.

    /// Sets each value of the set. A name that is none in XML is taken, and the printed text can't be read then.
    void MergeAttributes(CValueAccessor const & source);
    /// The same, and the element keeps no others.
    void SetAttributes(CValueAccessor const & source);
    void CopyAttributes(XMLElement const * other);

    /// Merges an element of this or another document into this one. An equal one (==): its children, as below. Another
    /// one becomes the last sibling of this, with its attributes and child elements, but by contract without its text.
    /// An element without a parent element has no siblings: it takes over name, attributes and children if it has
    /// neither, and refuses otherwise. False for that, and for null on either side.
    bool Merge(XMLElement const * other);
    /// Each child element of the other is merged into the first equal child element that was here before and that none
    /// has been merged into yet. What has no equal becomes a new last child: with its child elements, or with its text
    /// if it has none. Comments and the text beside child elements are left behind.
    bool MergeChildren(XMLElement const * other);

protected:
    /// Deletes the children that are texts.
    void ClearText();
    void ValidateElement(LPCTSTR operationName) const;

private:
    XMLElement * m_pElement;
};
} // namespace tinyxml2
