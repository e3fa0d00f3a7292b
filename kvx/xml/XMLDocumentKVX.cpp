#include "kvx/xml/XMLDocumentKVX.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/text/StringTokenizer.h"

#include <limits>
#include <vector>

namespace tinyxml2
{
namespace
{
CStringA ToNarrow(CString const & text)
{
    return CUtilities::T2MB(text, CP_UTF8);
}

// 0, or the number of the error.
LONG ReadFile(LPCTSTR path, std::vector<char> & bytes)
{
    CFileException failure;
    CFile file;
    if (!file.Open(path, CFile::modeRead | CFile::shareDenyWrite, &failure))
    {
        return failure.m_lOsError;
    }
    ULONGLONG const length = file.GetLength();
    if (length > static_cast<ULONGLONG>(std::numeric_limits<int>::max()))
    {
        return ERROR_NOT_ENOUGH_MEMORY; // tinyxml2 counts with an int
    }
    bytes.resize(static_cast<std::size_t>(length));
    std::size_t done = 0;
    while (done < bytes.size())
    {
        UINT const count = file.Read(bytes.data() + done, static_cast<UINT>(bytes.size() - done));
        if (count == 0)
        {
            bytes.resize(done); // it has been cut in the meantime
        }
        done += count;
    }
    return 0;
}

LONG WriteFile(LPCTSTR path, char const * bytes, std::size_t count)
{
    CFileException failure;
    CFile file;
    if (!file.Open(path, CFile::modeCreate | CFile::modeWrite | CFile::shareExclusive, &failure))
    {
        return failure.m_lOsError;
    }
    file.Write(bytes, static_cast<UINT>(count));
    file.Close();
    return 0;
}

// The number of the error that a file operation failed with.
template <class OPERATION>
LONG ErrorOf(OPERATION operation)
{
    try
    {
        return operation();
    }
    catch (CFileException * failure)
    {
        LONG const error = failure->m_lOsError;
        failure->Delete();
        return error;
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (std::exception const &)
    {
    }
    return ERROR_NOT_ENOUGH_MEMORY;
}
} // namespace

XMLDocumentKVX::XMLDocumentKVX(bool processEntities, Whitespace whitespace) : XMLDocument(processEntities, whitespace)
{
}

XMLDocumentKVX::XMLDocumentKVX(char const * rootName, bool processEntities, Whitespace whitespace)
    : XMLDocument(processEntities, whitespace)
{
    AddRoot(rootName ? rootName : "");
}

XMLDocumentKVX::XMLDocumentKVX(LPCTSTR rootName, bool processEntities, Whitespace whitespace)
    : XMLDocument(processEntities, whitespace)
{
    AddRoot(ToNarrow(rootName));
}

XMLDocumentKVX::~XMLDocumentKVX()
{
    DeleteTree();
}

XMLElement * XMLDocumentKVX::AddRoot(char const * name)
{
    XMLElement * const root = NewElement(name);
    InsertFirstChild(root);
    return root;
}

// From the leaves upwards: the base class would recurse.
void XMLDocumentKVX::DeleteTree()
{
    XMLNode * at = this;
    for (;;)
    {
        while (at->FirstChild())
        {
            at = at->FirstChild();
        }
        if (at == this)
        {
            return;
        }
        XMLNode * const parent = at->Parent();
        parent->DeleteChild(at);
        at = parent;
    }
}

bool XMLDocumentKVX::ParseBytes(char const * bytes, std::size_t count)
{
    DeleteTree();
    return Parse(bytes, count) == XML_SUCCESS;
}

bool XMLDocumentKVX::FromFile(LPCTSTR path)
{
    std::vector<char> bytes;
    LONG const error = ErrorOf([&] { return ReadFile(path, bytes); });
    if (error != 0)
    {
        LogError(_T("XMLDocumentKVX::FromFile(%s) file error %d"), path, error);
        return false;
    }
    if (!ParseBytes(bytes.empty() ? "" : bytes.data(), bytes.size()))
    {
        LogError(_T("XMLDocumentKVX::FromFile(%s) parsing error %s"), path, ErrorText(ErrorID()));
        return false;
    }
    return true;
}

bool XMLDocumentKVX::FromFile(CMemFile & file)
{
    try
    {
        auto const length = static_cast<UINT>(file.GetLength());
        if (length == 0)
        {
            return false;
        }
        ULONGLONG const position = file.GetPosition();
        file.SeekToBegin();
        void * begin = nullptr;
        void * end = nullptr;
        file.GetBufferPtr(CFile::bufferRead, length, &begin, &end);
        file.Seek(static_cast<LONGLONG>(position), CFile::begin);
        auto const * const bytes = static_cast<char const *>(begin);
        ParseBytes(bytes, length);
        return ParseBytes(bytes, length);
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (std::exception const &)
    {
    }
    LogError(_T("XMLDocumentKVX::FromFile - exception processing memFile"));
    return false;
}

bool XMLDocumentKVX::FromResource(LPCTSTR name, HINSTANCE module)
{
    CStringA text;
    SetLastError(0);
    if (!CUtilities::LoadResource(text, name, _T("XML"), module) || text.IsEmpty())
    {
        DWORD const error = GetLastError();
        LogError(_T("XMLDocumentKVX::FromResource(%s) resource error %u|%s"), name, error, CWinError::GetText(error));
        return false;
    }
    if (!ParseBytes(text, static_cast<std::size_t>(-1)))
    {
        LogError(_T("XMLDocumentKVX::FromResource(%s) parsing error %s"), name, ErrorText(ErrorID()));
        return false;
    }
    return true;
}

bool XMLDocumentKVX::ToFile(LPCTSTR path)
{
    ClearError();
    NodePrinter printer;
    Walk(*this, printer);
    LONG const error =
        ErrorOf([&] { return WriteFile(path, printer.CStr(), static_cast<std::size_t>(printer.CStrSize() - 1)); });
    if (error != 0)
    {
        LogError(_T("XMLDocumentKVX::ToFile(%s) file error %d"), path, error);
        return false;
    }
    return true;
}

bool XMLDocumentKVX::ToFile(CMemFile & file)
{
    CStringA const text = ToStringA(this);
    auto const length = static_cast<UINT>(text.GetLength());
    try
    {
        ULONGLONG const end = file.SeekToEnd();
        file.Write(text.GetString(), length);
        return file.GetPosition() == end + length;
    }
    catch (CException * failure)
    {
        failure->Delete();
        LogError(_T("XMLDocumentKVX::ToFile - exception processing memFile"));
        return false;
    }
}

XMLElement * XMLDocumentKVX::CreateElement(LPCTSTR path, LPCTSTR delimiters)
{
    CStringTokenizer steps(path, delimiters);
    CString step;
    if (!steps.GetNextString(step))
    {
        return nullptr;
    }
    XMLElement * at = RootElement();
    if (!at)
    {
        at = AddRoot(ToNarrow(step));
    }
    else if (!*at->Name())
    {
        at->SetName(ToNarrow(step));
    }
    else if (step.CompareNoCase(CUtilities::MB2T(at->Name(), CP_UTF8)) != 0)
    {
        at = ElementProxy(at).AddChild(ToNarrow(step));
    }
    while (steps.GetNextString(step))
    {
        CStringA const name = ToNarrow(step);
        XMLElement * const child = at->FirstChildElement(name);
        at = child ? child : ElementProxy(at).AddChild(name);
    }
    return at;
}

XMLElement * XMLDocumentKVX::FindElement(LPCTSTR path, LPCTSTR delimiters)
{
    CStringTokenizer steps(path, delimiters);
    CString step;
    XMLElement * at = RootElement();
    if (!at || !steps.GetNextString(step) || step.CompareNoCase(CUtilities::MB2T(at->Name(), CP_UTF8)) != 0)
    {
        return nullptr;
    }
    while (at && steps.GetNextString(step))
    {
        at = at->FirstChildElement(ToNarrow(step));
    }
    return at;
}

bool XMLDocumentKVX::Merge(XMLDocument const & other)
{
    return Merge(other.FirstChildElement());
}

bool XMLDocumentKVX::Merge(XMLElement const * element)
{
    if (XMLElement * const root = RootElement())
    {
        return ElementProxy(root).Merge(element);
    }
    if (!element)
    {
        return false;
    }
    CStringA const text = ToNarrow(ToString(element));
    // Parsing deletes what is there, also nodes that were made and hang nowhere yet, before it knows that it fails.
    XMLDocument trial(ProcessEntities(), WhitespaceMode());
    if (trial.Parse(text) != XML_SUCCESS)
    {
        LogError(_T("XMLDocumentKVX::Merge parsing error %s"), ErrorText(trial.ErrorID()));
        return false;
    }
    return ParseBytes(text, static_cast<std::size_t>(-1));
}
} // namespace tinyxml2
