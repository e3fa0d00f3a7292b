#pragma once

/// One element of the library's own XML tree: a tag, attributes, and either a text or children.

#include "kvx/foundation/Dictionary.h"

class CXmlDocument;

namespace kvx
{
class XmlParser;
class XmlWriter;
} // namespace kvx

/// Its attributes are values of the CValueAccessor. The children are a chain of siblings that their parent owns through
/// the first of them; an element with a tag of `?` or `!` at its begin is a special one (an instruction, a comment).
/// Adding a child empties the parent's text; where both are there nevertheless, children are what is written.
///
/// Tags are found without regard to case, attributes exactly. What is read and written is told at CXmlDocument. No
/// operation recurses, so that a tree may be as deep as memory allows.
///
/// Errors: CArchiveException * with cause 5 for a text that doesn't parse; CFileException * from files;
/// CMemoryException *. Threads: a tree is for one thread at a time.
class KVX_API CXmlElement : public CObject, public CValueAccessor
{
    DECLARE_DYNAMIC(CXmlElement)

public:
    explicit CXmlElement(LPCTSTR tag);
    /// By contract a copy brings copies of the siblings that follow along, and points to the other's parent and
    /// document, though it is no child there. AddChild takes the whole chain; see `Clone` and `DeleteChain`.
    CXmlElement(CXmlElement const & other);
    CXmlElement & operator=(CXmlElement const &) = delete;
    /// Deletes all below, and no sibling.
    ~CXmlElement() override;

    // A reader takes its elements from a pool.
    static void * operator new(std::size_t size) { return AfxAllocate(size); }
    static void * operator new(std::size_t size, kvx::ObjectPieces & pool)
    {
        void * const piece = pool.Allocate(size);
        return piece ? piece : AfxAllocate(size);
    }
    static void operator delete(void * memory) noexcept
    {
        if (!kvx::ObjectPieces::Free(memory))
        {
            AfxFree(memory);
        }
    }
    static void operator delete(void * memory, kvx::ObjectPieces &) noexcept { operator delete(memory); }

    /// A copy of this element and what is below it, which belongs to nobody.
    CXmlElement * Clone() const;
    /// Deletes an element, which may be null, and the siblings behind it: what a copy brings.
    static void DeleteChain(CXmlElement * first);

    CString const & GetTag() const { return m_strTag; }
    void SetTag(CString const & tag);
    CXmlElement * GetParent() const { return m_pParent; }
    /// That of the element, or of the nearest ancestor that has one; null without.
    CXmlDocument * GetDocument() const;
    /// Only roots and meta tags have one of their own.
    void SetDocument(CXmlDocument * document) { m_pDocument = document; }

    CStringValue const & GetData() const { return m_strData; }
    void GetData(CString & data) const { data = m_strData; }
    void SetData(CStringValue const & data);
    /// To be written as a CDATA section, in which nothing is escaped: it must not hold `]]>`.
    void SetCData(CStringValue const & data);
    int IsCData() const { return m_bCData; }

    int HasValue(CString const & name) const override { return m_attributes.HasValue(name); }
    int GetValueCount() const override { return m_attributes.GetValueCount(); }
    CStringValue & CreateValue(CString const & name) override { return m_attributes.CreateValue(name); }
    int RemoveValue(CString const & name) override { return m_attributes.RemoveValue(name); }
    /// By the contract of attribute sets the names stay, and are written with empty values: see `RemoveAllAttributes`.
    void RemoveAllValues() override { m_attributes.RemoveAllValues(); }
    POSITION GetStartValuePosition() const override { return m_attributes.GetStartValuePosition(); }
    void GetNextValue(POSITION & pos, CString & name, CString & value) const override
    {
        m_attributes.GetNextValue(pos, name, value);
    }
    int RenameValue(CString const & oldName, CString const & newName) override
    {
        return m_attributes.RenameValue(oldName, newName);
    }

    /// Creates a missing attribute; the const form gives a copy, empty if it is missing.
    CStringValue & GetAttribute(CString const & name) { return m_attributes[name]; }
    CStringValue GetAttribute(CString const & name) const { return m_attributes[name]; }
    void SetAttribute(CString const & name, CStringValue const & value) { m_attributes.SetValue(name, value); }
    int HasAttribute(CString const & name) const { return m_attributes.HasValue(name); }
    int RemoveAttribute(CString const & name) { return m_attributes.RemoveValue(name); }
    void RemoveAllAttributes() { m_attributes.RemoveAll(); }
    int GetAttributeCount() const { return m_attributes.GetValueCount(); }
    void GetAttributes(CValueAccessor & target) const { target.CopyValues(m_attributes); }
    /// Replaces them all.
    void SetAttributes(CValueAccessor const & source);
    POSITION GetStartAttributePosition() const { return m_attributes.GetStartValuePosition(); }
    void GetNextAttribute(POSITION & pos, CString & name, CString & value) const
    {
        m_attributes.GetNextValue(pos, name, value);
    }

    /// With 0 special elements are skipped, always forwards: by contract GetLastChild(0) gives null where the last
    /// child is special.
    CXmlElement * GetChild(int includeSpecial = 0) const { return Skip(m_pFirstChild, includeSpecial); }
    CXmlElement * GetLastChild(int includeSpecial = 0) const { return Skip(m_pLastChild, includeSpecial); }
    CXmlElement * GetNext(int includeSpecial = 0) const { return Skip(m_pNext, includeSpecial); }
    int GetChildCount(int includeSpecial = 0) const { return m_nChildren + (includeSpecial ? m_nSpecialChildren : 0); }
    int HasChildren(int includeSpecial = 0) const { return GetChildCount(includeSpecial) > 0; }
    /// No text, and no children but special ones.
    int IsEmpty() const { return m_strData.IsEmpty() && !HasChildren(0); }
    int IsSpecialElement() const { return IsSpecialTag(m_strTag); }

    /// Takes the element and, as a chain, the siblings behind it, in front of the children or behind them. One that is
    /// a child somewhere is moved, alone. The functions that add a child raise CInvalidArgException for one that this
    /// element is below of, or is itself, and for the root of a document.
    void AddChild(CXmlElement * child, int atFront = 0);
    /// With `source` its attributes are copied; with `acquire` its children are taken over too.
    CXmlElement * CreateChild(LPCTSTR tag, int atFront = 0, CXmlElement * source = nullptr, int acquire = 0);
    void AcquireChildren(CXmlElement * from);
    /// By contract no insertion in place: `before` (null: the first child) goes to the end, behind the new child. Does
    /// nothing if it is no child. See `InsertChildBefore`.
    void InsertChild(CXmlElement * child, CXmlElement * before);
    /// In place; at the end for null. 0, with nothing done, if `before` is no child.
    int InsertChildBefore(CXmlElement * child, CXmlElement * before);

    /// Gives a child (null: the first) to the caller; null if it is none.
    CXmlElement * DetachChild(CXmlElement * child);
    CXmlElement * DetachChild(LPCTSTR tag) { return Unlink(FindChild(tag)); }
    /// 0 if it is no child. Without `deleteIt` it is the caller's.
    int RemoveChild(CXmlElement * child, int deleteIt = 1);
    int RemoveChild(LPCTSTR tag, int deleteIt = 1);
    void RemoveAllChildren();

    /// Without regard to case, special elements included; null if there is none.
    CXmlElement * FindChild(LPCTSTR tag) const;
    CXmlElement * FindNext(LPCTSTR tag) const;
    /// Down a path of tags; null if a step is missing.
    CXmlElement * FindElement(CString const & path, LPCTSTR delimiters = _T(".")) const;

    /// Two elements are the same if their tags (without regard to case), attributes and texts are. The same one takes
    /// the other's children; else a copy of the other, by contract with the siblings that follow it, becomes a sibling
    /// of this one. Without a parent 0, unless this one is wholly empty and takes all from the other.
    int Merge(CXmlElement const * other);
    /// Each of the other's children that are not special goes into the first same one here that no other has gone into,
    /// or is added at the end.
    void MergeChildren(CXmlElement const * other);

    void FromFile(CFile & file);
    void ToFile(CFile & file) const;
    /// Through the ANSI code page, whatever the document says.
    void FromString(CString const & text);
    using CValueAccessor::ToString;
    void ToString(CString & text) const;
    void Serialize(CArchive & archive) override;

    static bool IsSpecialTag(CString const & tag)
    {
        return !tag.IsEmpty() && (tag.GetString()[0] == '?' || tag.GetString()[0] == '!');
    }

protected:
    /// Reads one element; its children come to those that are there.
    void Load(CArchive & archive);
    void Store(CArchive & archive) const;
    /// Whether the other is the same element.
    int EvaluateMerge(CXmlElement const * other) const;

private:
    friend class CXmlDocument;
    friend class kvx::XmlParser;
    friend class kvx::XmlWriter;

    /// Whose counter of children the element is in.
    enum Counted : unsigned char
    {
        COUNTED_NOWHERE,
        COUNTED_NORMAL,
        COUNTED_SPECIAL
    };

    CString m_strTag;
    CStringValue m_strData;
    int m_nChildren = 0;
    int m_nSpecialChildren : 29 = 0;
    unsigned m_bCData : 1 = 0;
    unsigned m_counted : 2 = COUNTED_NOWHERE;
    CXmlElement * m_pNext = nullptr;
    CXmlElement * m_pFirstChild = nullptr;
    CXmlElement * m_pLastChild = nullptr;
    CXmlElement * m_pParent = nullptr;
    CAttributeSet m_attributes;
    CXmlDocument * m_pDocument = nullptr;

    static CXmlElement * Skip(CXmlElement * element, int includeSpecial)
    {
        while (element && !includeSpecial && element->IsSpecialElement())
        {
            element = element->m_pNext;
        }
        return element;
    }
    static CXmlElement * Find(CXmlElement * element, LPCTSTR tag);

    bool IsChild() const { return m_counted != COUNTED_NOWHERE; }
    void CheckChild(CXmlElement const & child) const;
    void AddChain(CXmlElement * first, bool atFront);
    void MergeEachChild(CXmlElement const * other);

    void CopyContent(CXmlElement const & other);
    CXmlElement * AppendCopy(CXmlElement const & other);
    void CopyChildren(CXmlElement const & other);
    void Append(CXmlElement * child);
    void Count(CXmlElement * child);
    void Uncount(CXmlElement * child);
    CXmlElement * Unlink(CXmlElement * child);
    CXmlElement const & GetTop() const;
};
