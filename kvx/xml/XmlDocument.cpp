#include "kvx/xml/XmlDocument.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/text/StringFile.h"
#include "kvx/text/StringTokenizer.h"
#include "kvx/xml/XmlEntities.h"
#include "kvx/xml/XmlParser.h"
#include "kvx/xml/XmlPreprocessor.h"
#include "kvx/xml/XmlWriter.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

IMPLEMENT_DYNAMIC(CXmlDocument, CObject)

CXmlDocument::CXmlDocument(LPCTSTR rootTag) : CXmlDocument(new CXmlElement(rootTag))
{
    AppendMeta(new CXmlElement(nullptr));
}

CXmlDocument::CXmlDocument(CXmlElement * root) : m_pRoot(root)
{
    if (root)
    {
        root->m_pDocument = this;
    }
}

CXmlDocument::~CXmlDocument()
{
    DeleteMeta();
    delete m_pRoot;
}

CXmlDocument & CXmlDocument::operator=(CXmlDocument const & other)
{
    if (this != &other)
    {
        SetRoot(other.m_pRoot ? other.m_pRoot->Clone() : nullptr);
    }
    return *this;
}

CXmlElement * CXmlDocument::SetRoot(LPCTSTR tag)
{
    if (!m_pRoot)
    {
        AttachRoot(new CXmlElement(nullptr), 1);
    }
    m_pRoot->SetTag(tag);
    return m_pRoot;
}

CXmlElement * CXmlDocument::AttachRoot(CXmlElement * root, int deleteOld)
{
    if (root == m_pRoot)
    {
        return nullptr;
    }
    if (root && root->IsChild())
    {
        root->m_pParent->DetachChild(root);
    }
    else if (root && root->m_pDocument && root->m_pDocument != this && root->m_pDocument->m_pRoot == root)
    {
        AfxThrowInvalidArgException(); // both would delete it
    }
    CXmlElement * const old = std::exchange(m_pRoot, root);
    if (root)
    {
        root->m_pDocument = this;
    }
    if (deleteOld || !old)
    {
        delete old;
        return nullptr;
    }
    old->m_pDocument = nullptr;
    return old;
}

CXmlElement * CXmlDocument::DetachRoot(int deleteOld)
{
    return AttachRoot(new CXmlElement(nullptr), deleteOld);
}

void CXmlDocument::AppendMeta(CXmlElement * element)
{
    element->m_pDocument = this;
    (m_pLastMeta ? m_pLastMeta->m_pNext : m_pMeta) = element;
    m_pLastMeta = element;
}

void CXmlDocument::DeleteMeta()
{
    CXmlElement::DeleteChain(std::exchange(m_pMeta, nullptr));
    m_pLastMeta = nullptr;
}

void CXmlDocument::AddMetaTag(CString const & text)
{
    if (!CXmlElement::IsSpecialTag(text))
    {
        return;
    }
    int const length = text.GetLength();
    bool const bClosed = length > 1 && text[length - 1] == text[0];
    auto element = std::make_unique<CXmlElement>(text.Left(1).GetString());
    element->SetData(CStringValue(text.Mid(1, length - (bClosed ? 2 : 1))));
    AppendMeta(element.release());
}

CXmlElement * CXmlDocument::FindElement(CString const & path, LPCTSTR delimiters) const
{
    CStringTokenizer tokens(path, delimiters);
    CString token;
    if (!m_pRoot || !tokens.GetNextString(token) || m_pRoot->m_strTag.CompareNoCase(token.AsView()) != 0)
    {
        return nullptr;
    }
    CXmlElement * element = m_pRoot;
    while (element && tokens.GetNextString(token))
    {
        element = element->FindChild(token);
    }
    return element;
}

CXmlElement * CXmlDocument::CreateElement(CString const & path, int atFront, LPCTSTR delimiters)
{
    if (!m_pRoot)
    {
        AttachRoot(new CXmlElement(nullptr), 1);
    }
    CXmlElement * element = m_pRoot;
    CStringTokenizer tokens(path, delimiters);
    CString token;
    if (tokens.GetNextString(token))
    {
        if (m_pRoot->m_strTag.IsEmpty())
        {
            m_pRoot->SetTag(token);
        }
        else if (m_pRoot->m_strTag.CompareNoCase(token.AsView()) != 0)
        {
            element = m_pRoot->CreateChild(token, atFront);
        }
    }
    while (tokens.GetNextString(token))
    {
        CXmlElement * const known = element->FindChild(token);
        element = known ? known : element->CreateChild(token, atFront);
    }
    return element;
}

void CXmlDocument::InsertElement(CXmlElement * element, CString const & path, LPCTSTR delimiters)
{
    if (!element)
    {
        return;
    }
    CString parentPath;
    CString name;
    CUtilities::SplitString(path, parentPath, name, delimiters, 1);
    CXmlElement * const parent = CreateElement(parentPath);
    element->SetTag(name);
    parent->InsertChild(element, nullptr);
}

int CXmlDocument::RemoveElement(CString const & path, int deleteIt, LPCTSTR delimiters)
{
    CString parentPath;
    CString name;
    CUtilities::SplitString(path, parentPath, name, delimiters, 1);
    CXmlElement * const parent = FindElement(parentPath);
    return parent ? parent->RemoveChild(name, deleteIt) : 0;
}

namespace
{
template <class VISIT>
int Walk(CXmlElement * element, VISIT const & visit)
{
    for (std::size_t depth = 0; element;)
    {
        if (!visit(element))
        {
            return 0;
        }
        if (CXmlElement * const child = element->GetChild(1))
        {
            element = child;
            ++depth;
            continue;
        }
        while (depth > 0 && !element->GetNext(1))
        {
            element = element->GetParent();
            --depth;
        }
        element = element->GetNext(1);
    }
    return 1;
}
} // namespace

int CXmlDocument::ForEachElement(ElementProc callback, void * context, CXmlElement * start)
{
    return callback ? Walk(start ? start : m_pRoot, [&](CXmlElement * element) { return callback(element, context); })
                    : 0;
}

int CXmlDocument::ForEachElement(CString const & tag, ElementProc callback, void * context, CXmlElement * start)
{
    return Walk(start ? start : m_pRoot, [&](CXmlElement * element)
                { return element->GetTag() == tag && callback ? callback(element, context) : callback != nullptr; });
}

void CXmlDocument::SetOutputIndent(int width, char ch)
{
    m_nIndentWidth = width;
    m_chIndent = ch;
}

int CXmlDocument::CalcOutputIndent(char & ch, int depth) const
{
    ch = m_nIndentWidth == 0 ? '\0' : m_chIndent;
    LONGLONG const indent = LONGLONG{m_nIndentWidth} * depth;
    using Limits = std::numeric_limits<int>;
    return static_cast<int>(std::clamp(indent, LONGLONG{Limits::min()}, LONGLONG{Limits::max()}));
}

void CXmlDocument::PreProcessString(CStringA & text) const
{
    if (text.Find('&') >= 0)
    {
        std::string const decoded = kvx::DecodeXmlEntities(text.AsView());
        text = CStringA(CStringA::View(decoded));
    }
    if (m_pPreprocessor)
    {
        UINT const codePage = m_bUtf8 ? CP_UTF8 : CP_ACP;
        CString wide = CUtilities::MB2W(text, codePage);
        m_pPreprocessor->ProcessString(wide);
        text = CUtilities::W2MB(wide, codePage);
    }
}

void CXmlDocument::PreProcessElement(CXmlElement * element, CArchive & archive)
{
    if (m_pPreprocessor)
    {
        m_pPreprocessor->ProcessElement(element, this, archive);
    }
}

void CXmlDocument::FromFile(CString const & path)
{
    CFile file(path, CFile::modeRead | CFile::shareDenyWrite);
    FromFile(file);
}

void CXmlDocument::FromFile(CFile & file)
{
    if (file.GetLength() == 0)
    {
        return;
    }
    CArchive archive(&file, CArchive::load, kvx::XML_BUFFER);
    Serialize(archive);
    archive.Close();
}

int CXmlDocument::FromResource(LPCTSTR name, HINSTANCE module)
{
    CStringA text;
    if (!CUtilities::LoadResource(text, name, _T("XML"), module) || text.IsEmpty())
    {
        return 0;
    }
    FromString(text);
    return 1;
}

void CXmlDocument::FromString(CStringA const & text)
{
    CStringA shared = text;
    CStringFileA file(shared);
    FromFile(file);
}

void CXmlDocument::FromString(CString const & text)
{
    FromString(m_bUtf8 ? CUtilities::W2MB(text, CP_UTF8) : CUtilities::UnicodeToAnsi(text));
}

void CXmlDocument::ToFile(CString const & path) const
{
    CFile file(path, CFile::modeCreate | CFile::modeWrite | CFile::shareDenyRead);
    ToFile(file);
}

void CXmlDocument::ToFile(CFile & file) const
{
    CArchive archive(&file, CArchive::store, kvx::XML_BUFFER);
    const_cast<CXmlDocument *>(this)->Serialize(archive);
    archive.Close();
}

CStringA CXmlDocument::ToString() const
{
    CStringA text;
    ToString(text);
    return text;
}

void CXmlDocument::ToString(CStringA & text) const
{
    text.Empty();
    // Growing step by step, a large text would be moved many times.
    constexpr std::size_t MOST = std::size_t{1} << 30;
    text.Preallocate(static_cast<int>(std::min(MOST, m_nSizeRead + m_nSizeRead / 16)));
    CStringFileA file(text);
    ToFile(file);
    if (text.GetAllocLength() / 2 > text.GetLength())
    {
        text.FreeExtra();
    }
}

void CXmlDocument::ToString(CString & text) const
{
    CStringA temporary = CUtilities::UnicodeToAnsi(text);
    ToString(temporary);
}

CString CXmlDocument::ToWideString() const
{
    CStringA text;
    CStringFileA file(text);
    CArchive archive(&file, CArchive::store, kvx::XML_BUFFER);
    kvx::XmlWriter(archive, this, true).WriteDocument();
    archive.Close();
    return kvx::FromUtf8(text.AsView());
}

void CXmlDocument::Load(CArchive & archive)
{
    DeleteMeta();
    delete std::exchange(m_pRoot, nullptr);
    m_error = {};
    kvx::MemoryGuarded([&] { LoadAll(archive); });
}

void CXmlDocument::LoadAll(CArchive & archive)
{
    kvx::XmlParser parser(archive, this);
    parser.SkipByteOrderMark();
    for (;;)
    {
        auto element = std::make_unique<CXmlElement>(nullptr);
        element->m_pDocument = this;
        if (!parser.LoadNext(*element))
        {
            continue; // a document type
        }
        if (!element->IsSpecialElement())
        {
            m_pRoot = element.release();
            m_nSizeRead = parser.GetRead();
            return;
        }
        CXmlElement * const meta = element.release();
        AppendMeta(meta);
        parser.PreProcess(meta);
    }
}

void CXmlDocument::Serialize(CArchive & archive)
{
    if (archive.IsStoring())
    {
        kvx::XmlWriter(archive, this).WriteDocument();
    }
    else
    {
        Load(archive);
    }
}

CString CXmlDocument::Encode(CString const & text)
{
    return kvx::EncodeXmlEntities(text);
}

CString CXmlDocument::Decode(CString const & text)
{
    return CUtilities::DecodeString(text, ' ');
}

CString CXmlDocument::DecodeEntities(CString const & text)
{
    return kvx::DecodeXmlReferences(text);
}

CXmlElement * CXmlIterator::GetNext()
{
    if (m_pCurrent)
    {
        m_pCurrent = m_pCurrent == m_pRoot ? m_pRoot->GetChild(0) : m_pCurrent->GetNext(0);
    }
    return m_pCurrent;
}
