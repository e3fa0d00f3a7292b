#include "kvx/xml/XmlReader.h"

#include "kvx/xml/XmlDocument.h"

namespace
{
class WalkDepth
{
public:
    explicit WalkDepth(int & depth) : m_depth(depth)
    {
        if (depth >= CXmlReader::MAX_DEPTH)
        {
            AfxThrowArchiveException(CArchiveException::badIndex, _T("Elements are nested too deeply to be read"));
        }
        ++depth;
    }
    WalkDepth(WalkDepth const &) = delete;
    WalkDepth & operator=(WalkDepth const &) = delete;
    ~WalkDepth() { --m_depth; }

private:
    int & m_depth;
};
} // namespace

void CXmlReader::AddHandler(CString tag, CXmlReadHandler * handler)
{
    m_handlers.SetAt(tag.MakeLower(), handler);
}

void CXmlReader::ReplaceHandler(CString const & tag, CXmlReadHandler * handler)
{
    CString lower = tag;
    CObject * former = nullptr;
    if (m_handlers.Lookup(lower.MakeLower(), former) && former != handler)
    {
        delete former;
    }
    AddHandler(lower, handler);
}

CXmlReadHandler * CXmlReader::LookupHandler(LPCTSTR tag)
{
    if (m_handlers.IsEmpty())
    {
        RegisterHandlers();
    }
    CObject * handler = nullptr;
    return m_handlers.Lookup(tag, handler) ? static_cast<CXmlReadHandler *>(handler) : m_pDefaultHandler;
}

void CXmlReader::AnalyzeElement(CXmlElement * element)
{
    if (!element)
    {
        return;
    }
    WalkDepth const scope(m_nDepth);
    m_bContinue = 1;
    CString tag = element->GetTag();
    if (CXmlReadHandler * const handler = LookupHandler(tag.MakeLower()))
    {
        handler->ProcessElement(element);
    }
    else
    {
        ProcessUnhandledElement(element);
    }
    for (CXmlElement * child = m_bContinue ? element->GetChild(0) : nullptr; child; child = child->GetNext(0))
    {
        AnalyzeElement(child);
    }
}

void CXmlReader::Analyze(CXmlDocument * document)
{
    if (document)
    {
        Analyze(document->GetRoot());
    }
}

void CXmlReader::ProcessUnhandledElement(CXmlElement *) {}

void CXmlReader::RegisterHandlers() {}
