#pragma once

/// Walks a finished tree and hands each element to the handler that is registered for its tag.

#include "kvx/foundation/AutoDelete.h"

class CXmlDocument;
class CXmlElement;

class KVX_API CXmlReadHandler : public CObject
{
public:
    virtual void ProcessElement(CXmlElement * element) = 0;
};

/// Owns its handlers; not the default one. A reader may itself be a handler. Threads: one walk at a time.
class KVX_API CXmlReader : public CXmlReadHandler, public CAutoDelete
{
public:
    /// Elements may be nested so deep: an application's AnalyzeElement is called inside its parent's. Deeper ones raise
    /// CArchiveException * with cause 5.
    static constexpr int MAX_DEPTH = 1000;

    CXmlReader() { RegisterAutoDelete(m_handlers); }
    CXmlReader(CXmlReader const &) = delete;
    CXmlReader & operator=(CXmlReader const &) = delete;
    ~CXmlReader() override { PerformAutoDelete(m_handlers, 1); }

    /// Any case. By contract a former handler of that tag isn't deleted: see `ReplaceHandler`.
    void AddHandler(CString tag, CXmlReadHandler * handler);
    /// The same, and deletes the former one.
    void ReplaceHandler(CString const & tag, CXmlReadHandler * handler);
    /// By the tag in lower case, else the default one. Calls RegisterHandlers as long as there are none.
    CXmlReadHandler * LookupHandler(LPCTSTR tag);
    void SetDefaultHandler(CXmlReadHandler * handler) { m_pDefaultHandler = handler; }

    void ProcessElement(CXmlElement * element) override { AnalyzeElement(element); }

protected:
    /// Handles the element and then, unless a handler has said SkipChildren, its children that are not special.
    virtual void AnalyzeElement(CXmlElement * element);

public:
    virtual void Analyze(CXmlElement * element) { AnalyzeElement(element); }
    /// From the root on; null does nothing.
    virtual void Analyze(CXmlDocument * document);

protected:
    /// For elements without a handler.
    virtual void ProcessUnhandledElement(CXmlElement * element);
    virtual void RegisterHandlers();
    /// Of the element that is being handled.
    void SkipChildren(int skip) { m_bContinue = !skip; }

private:
    int m_bContinue = 1;
    CMapStringToOb m_handlers{10};
    CXmlReadHandler * m_pDefaultHandler = nullptr;
    int m_nDepth = 0;
};
