#pragma once

/// The library's own XML documents, with a small reader and writer, for configuration files and the like.

#include "kvx/xml/XmlElement.h"

class CXmlPreprocessor;

/// Where and why a text was no document. The line is 0 if there was no failure.
struct CXmlParseError
{
    int nLine = 0;   ///< from 1
    int nColumn = 0; ///< in bytes, from 1
    CString strText; ///< in English
};

/// A tree of elements below a root, and a chain of meta tags (`?` instructions, `!` comments) in front of it.
///
/// The grammar is a small one of its own, and programs rely on how it takes what isn't in it:
/// - A tag ends at the first `>`, also inside quotes or a comment. Its name ends at the first blank; a line end or TAB
///   belongs to it.
/// - An element has either a text or children. Text in front of a child is a failure, text behind one is lost or
///   becomes a part of the next tag.
/// - The first two bytes of an element's first child are read ahead: white space behind them is lost, so that names of
///   two letters run into their attributes, and a `>` there doesn't end the tag.
/// - In a text what doesn't print, also each byte from 128 on, becomes a blank, one for a row of them, and blanks at
///   both ends go. Values and CDATA sections keep theirs. A CDATA section must not be empty.
/// - A malformed `&#` loses the rest of its text, an unknown entity its `&`. `&#x20AC;` becomes bytes of UTF-8, which
///   are then taken for the ANSI code page.
/// - Comments and instructions are meta tags or special elements, or, without ProcessSpecialTags, elements whose last
///   character is lost. A DOCTYPE is a failure.
/// - Nothing behind the root is read.
///
/// Text is of the ANSI code page on both ways: what it lacks is written as `?`. Two options make more of it, for one's
/// own files and those of others: `ProcessUtf8` and `ProcessStandardTags`.
///
/// Written documents are on one line unless an indent is set, and then have lines that end in CR LF; an element deeper
/// than 1,024 characters of indent is written with that many.
///
/// Errors: CArchiveException * with cause 5 and the archive's name for what doesn't parse, with the place in
/// `GetParseError`; the document has no root then. CFileException * from files. Threads: one at a time.
class KVX_API CXmlDocument : public CObject
{
    DECLARE_DYNAMIC(CXmlDocument)

public:
    /// A zero ends the walk.
    using ElementProc = int(__stdcall *)(CXmlElement * element, void * context);

    explicit CXmlDocument(LPCTSTR rootTag = nullptr);
    /// Takes the element, which may be null.
    explicit CXmlDocument(CXmlElement * root);
    CXmlDocument(CXmlDocument const &) = delete;
    /// Copies the root alone.
    CXmlDocument & operator=(CXmlDocument const & other);
    ~CXmlDocument() override;

    /// Null after a load that failed.
    CXmlElement * GetRoot() const { return m_pRoot; }
    int IsEmpty() const { return !m_pRoot || m_pRoot->IsEmpty(); }
    /// Names the present root.
    CXmlElement * SetRoot(LPCTSTR tag);
    /// Deletes the present root and takes the element, which may be null.
    void SetRoot(CXmlElement * root) { AttachRoot(root, 1); }
    /// The old root, for the caller, or null if it was deleted. A new one that is a child somewhere is detached there,
    /// and the root of another document raises CInvalidArgException.
    CXmlElement * AttachRoot(CXmlElement * root, int deleteOld);
    /// Leaves an element with an empty tag.
    CXmlElement * DetachRoot(int deleteOld = 0);
    /// The head of the chain, which may be an element with an empty tag; null if there is none.
    CXmlElement * GetMetaTags() const { return m_pMeta; }
    /// `?target text?`, or `!` and the text of a comment; ignored if it begins otherwise. A `-->` or `?>` in it ends it
    /// for readers, unless ProcessStandardTags is on, which parts these with a blank.
    void AddMetaTag(CString const & text);

    /// Down a path whose first tag is the root's. Null if a step is missing.
    CXmlElement * FindElement(CString const & path, LPCTSTR delimiters = _T(".")) const;
    /// The same, and makes what is missing. A first tag that isn't the root's names a child of the root, or the root if
    /// that has no name.
    CXmlElement * CreateElement(CString const & path, int atFront = 0, LPCTSTR delimiters = _T("."));
    /// Names the element by the path's last part, and puts it below what the rest leads to, as InsertChild does. By
    /// contract the rest is split at points, whatever the delimiters, and a path of one part names the parent, and
    /// gives the element an empty tag.
    void InsertElement(CXmlElement * element, CString const & path, LPCTSTR delimiters = _T("."));
    /// Splits the path in the same way. 0 if there is no such element.
    int RemoveElement(CString const & path, int deleteIt = 1, LPCTSTR delimiters = _T("."));

    /// Calls for an element, for all below it and then for its following siblings; 0 if a call gave 0. Null is the
    /// root. The function may change what is below its element, but not take the element itself, or what is above it,
    /// away.
    int ForEachElement(ElementProc callback, void * context, CXmlElement * start = nullptr);
    /// Only for those with this very tag.
    int ForEachElement(CString const & tag, ElementProc callback, void * context, CXmlElement * start = nullptr);

    /// CXmlElement::Merge on the root: nothing is replaced, what has no equal is added.
    int Merge(CXmlDocument const & other) { return Merge(other.m_pRoot); }
    int Merge(CXmlElement const * other) { return m_pRoot ? m_pRoot->Merge(other) : 0; }

    /// So many of this character for each level; none and one line for 0.
    void SetOutputIndent(int width, char ch = '\t');
    int CalcOutputIndent(char & ch, int depth) const;
    /// Whether `?` and `!` tags are read as special elements; they are unless it is switched off.
    void ProcessSpecialTags(int process) { m_bProcessSpecialTags = process != 0; }
    int ProcessSpecialTags() const { return m_bProcessSpecialTags; }
    /// Reads and writes UTF-8, so that no character is lost. What is none becomes U+FFFD.
    void ProcessUtf8(int process) { m_bUtf8 = process != 0; }
    int ProcessUtf8() const { return m_bUtf8; }
    /// Reads tags as other programs do: a `>` in quotes, a comment or an instruction ends none, all white space
    /// divides, a first child is read like others, a DOCTYPE is skipped, a CDATA section may be empty, and text beside
    /// elements is a failure instead of a loss. Writes control characters, and blanks at the ends of texts, as
    /// references, so that they come back.
    void ProcessStandardTags(int process) { m_bStandardTags = process != 0; }
    int ProcessStandardTags() const { return m_bStandardTags; }

    /// Sees texts and elements as they are loaded; not owned, may be null.
    void SetPreprocessor(CXmlPreprocessor * preprocessor) { m_pPreprocessor = preprocessor; }
    /// Replaces entities in a text that was read, then lets the preprocessor see it.
    void PreProcessString(CStringA & text) const;
    void PreProcessElement(CXmlElement * element, CArchive & archive);

    void FromFile(CString const & path);
    /// An empty file leaves the document as it is. Else the file stands right behind the root afterwards.
    void FromFile(CFile & file);
    /// A resource of type "XML"; 0 if there is none or it is empty.
    int FromResource(LPCTSTR name, HINSTANCE module);
    void FromString(CStringA const & text);
    void FromString(char const * text) { FromString(CStringA(text)); }
    /// Through the ANSI code page; with ProcessUtf8 nothing is lost.
    void FromString(CString const & text);
    void FromString(LPCTSTR text) { FromString(CString(text)); }

    void ToFile(CString const & path) const;
    void ToFile(CFile & file) const;
    CStringA ToString() const;
    void ToString(CStringA & text) const;
    /// By contract leaves the text as it is: see `ToWideString`.
    void ToString(CString & text) const;
    /// The document as wide text, with every character of it.
    CString ToWideString() const;

    /// Storing: meta tags and root. Loading: replaces both; the archive stands right behind the root afterwards.
    void Serialize(CArchive & archive) override;
    /// Of the last load.
    CXmlParseError const & GetParseError() const { return m_error; }

    /// Entities for `& < > " '` and for characters below 32; references that begin with `&#x` stay.
    static CString Encode(CString const & text);
    /// By contract no inverse of Encode: percent escapes (CUtilities::DecodeString). See `DecodeEntities`.
    static CString Decode(CString const & text);
    /// Replaces the five entities and numeric references; what is none stays as it is.
    static CString DecodeEntities(CString const & text);

private:
    friend class kvx::XmlParser;
    friend class kvx::XmlWriter;

    int m_nIndentWidth = 0;
    char m_chIndent = '\t';
    bool m_bProcessSpecialTags = true;
    bool m_bUtf8 = false;
    bool m_bStandardTags = false;
    CXmlElement * m_pRoot;
    CXmlElement * m_pMeta = nullptr;
    CXmlElement * m_pLastMeta = nullptr;
    CXmlPreprocessor * m_pPreprocessor = nullptr;
    CXmlParseError m_error;
    std::size_t m_nSizeRead = 0; // bytes: what is written will have about as many

    void AppendMeta(CXmlElement * element);
    void DeleteMeta();
    void Load(CArchive & archive);
    void LoadAll(CArchive & archive);
};

/// Walks an element's children that are not special: those of a document's root, or of an element's parent, so that
/// from an element it gives that one's siblings and itself. It owns nothing.
class KVX_API CXmlIterator
{
public:
    explicit CXmlIterator(CXmlDocument const & document) : m_pRoot(document.GetRoot()), m_pCurrent(m_pRoot) {}
    /// Null gives nothing.
    explicit CXmlIterator(CXmlElement * element)
        : m_pRoot(element && element->GetParent() ? element->GetParent() : element), m_pCurrent(m_pRoot)
    {
    }
    virtual ~CXmlIterator() = default;

    /// Null at the end.
    CXmlElement * GetNext();
    /// 0 at the end.
    int GetNext(CXmlElement *& element) { return (element = GetNext()) != nullptr; }
    CXmlElement * operator++() { return GetNext(); }
    CXmlElement * operator++(int)
    {
        CXmlElement * const old = m_pCurrent;
        GetNext();
        return old;
    }
    void Restart() { m_pCurrent = m_pRoot; }
    /// The root of the walk before the first step.
    CXmlElement * Current() const { return m_pCurrent; }
    CXmlElement * operator->() const { return m_pCurrent; }
    operator CXmlElement *() const { return m_pCurrent; }

private:
    CXmlElement * m_pRoot;
    CXmlElement * m_pCurrent;
};
