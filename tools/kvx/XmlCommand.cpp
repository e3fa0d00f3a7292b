#include "CommandLine.h"
#include "Commands.h"
#include "DisplayText.h"
#include "FileNames.h"
#include "InputFile.h"
#include "Output.h"
#include "OutputFile.h"

#include "kvx/text/StringFile.h"
#include "kvx/xml/XmlDocument.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace
{
struct XmlOptions
{
    std::string strFile;
    std::vector<std::string> files;
    std::string strOutput;
    std::string strPath;
    std::string strDelimiter = ".";
    std::string strName;
    int nIndent = 2;
    bool bTab = false;
    bool bAnsi = false;
    bool bOwnGrammar = false;
};

CStringA ReadAll(std::string const & name)
{
    constexpr int PIECE = 65536;
    InputFile file(name);
    CStringA text;
    for (int got = 1; got > 0;)
    {
        int const before = text.GetLength();
        char * const room = text.GetBuffer(before + PIECE) + before;
        got = static_cast<int>(file.Read({reinterpret_cast<BYTE *>(room), PIECE}));
        text.ReleaseBuffer(before + got);
    }
    return text;
}

/// Where something stands behind the root that isn't white space, a comment or an instruction; the size of the text if
/// there is nothing.
std::size_t FindBehind(std::string_view text, std::size_t at)
{
    for (;;)
    {
        at = std::min(text.find_first_not_of(" \t\r\n", at), text.size());
        std::string_view const rest = text.substr(at);
        std::string_view const end = rest.starts_with("<!--") ? "-->" : rest.starts_with("<?") ? "?>" : "";
        std::size_t const found = end.empty() ? text.npos : rest.find(end);
        if (found == text.npos)
        {
            return at;
        }
        at += found + end.size();
    }
}

/// Reads a document, or says why not. Nothing that counts may stand behind a `whole` one.
bool Load(CXmlDocument & document, std::string const & name, XmlOptions const & options, bool whole = false)
{
    CString const shown = name == "-" ? CString(_T("stdin")) : kvx::FromUtf8(name);
    try
    {
        CStringA text = ReadAll(name);
        if (!options.bAnsi && !IsUtf8(text))
        {
            ReportError(ERROR_NO_UNICODE_TRANSLATION, shown + _T(": the text is not UTF-8; --ansi reads other bytes"));
            return false;
        }
        document.ProcessUtf8(!options.bAnsi);
        document.ProcessStandardTags(!options.bOwnGrammar);
        if (text.IsEmpty())
        {
            ReportError(ERROR_BAD_FORMAT, shown + _T(":1:1: the text is empty"));
            return false;
        }
        CStringFileA file(text);
        document.FromFile(file);
        std::string_view const all = text.AsView();
        std::size_t const at = whole ? FindBehind(all, static_cast<std::size_t>(file.GetPosition())) : all.size();
        if (at < all.size())
        {
            std::string_view const before = all.substr(0, at);
            CString place;
            place.Format(_T("%s:%d:%d: "), shown, static_cast<int>(std::ranges::count(before, '\n')) + 1,
                         static_cast<int>(at - (before.rfind('\n') + 1)) + 1);
            ReportError(ERROR_BAD_FORMAT, place + _T("there is something behind the root"));
        }
        return at == all.size();
    }
    catch (CArchiveException * failure)
    {
        failure->Delete();
        CXmlParseError const & error = document.GetParseError();
        CString place;
        place.Format(_T("%s:%d:%d: "), shown, error.nLine, error.nColumn);
        ReportError(ERROR_BAD_FORMAT, place + error.strText);
    }
    catch (CFileException * failure)
    {
        auto const code = static_cast<DWORD>(failure->m_lOsError);
        failure->Delete();
        ReportSystemError(code, shown);
    }
    return false;
}

void SetIndent(CXmlDocument & document, XmlOptions const & options)
{
    document.SetOutputIndent(options.bTab ? 1 : options.nIndent, options.bTab ? '\t' : ' ');
}

int PrintDocument(CXmlDocument const & document)
{
    StandardOutput out;
    out << document.ToString().AsView();
    return ReportWritten(out.Finish());
}

int WriteDocument(CXmlDocument const & document, std::string const & name)
{
    OutputFile out(name);
    if (!out.Open())
    {
        return 1;
    }
    try
    {
        document.ToFile(out.Get());
    }
    catch (CFileException * failure)
    {
        auto const code = static_cast<DWORD>(failure->m_lOsError);
        failure->Delete();
        return ReportSystemError(code, kvx::FromUtf8(name));
    }
    return out.Finish();
}

int RunPrint(XmlOptions const & options)
{
    int status = 0;
    for (std::string const & name : options.files)
    {
        CXmlDocument document;
        SetIndent(document, options);
        status = std::max(status, Load(document, name, options) ? PrintDocument(document) : 1);
    }
    return status;
}

int RunCheck(XmlOptions const & options)
{
    int status = 0;
    for (std::string const & name : options.files)
    {
        CXmlDocument document;
        status = Load(document, name, options, true) ? status : 1;
    }
    return status;
}

int RunGet(XmlOptions const & options)
{
    CXmlDocument document;
    if (!Load(document, options.strFile, options))
    {
        return 1;
    }
    CString const path = kvx::FromUtf8(options.strPath);
    CXmlElement const * const element = document.FindElement(path, CString(kvx::FromUtf8(options.strDelimiter)));
    if (!element)
    {
        return ReportSystemError(ERROR_NOT_FOUND, path);
    }
    CString const name = kvx::FromUtf8(options.strName);
    if (!name.IsEmpty() && !element->HasAttribute(name))
    {
        return ReportSystemError(ERROR_NOT_FOUND, path + _T(" ") + name);
    }
    StandardOutput out;
    out << ToStdout(name.IsEmpty() ? element->GetData() : element->GetAttribute(name)).strText << "\n";
    return ReportWritten(out.Finish());
}

int RunMerge(XmlOptions const & options)
{
    CXmlDocument document;
    SetIndent(document, options);
    bool bFirst = true;
    for (std::string const & name : options.files)
    {
        CXmlDocument other;
        if (!Load(bFirst ? document : other, name, options))
        {
            return 1;
        }
        if (!std::exchange(bFirst, false) && !document.Merge(other))
        {
            ReportError(ERROR_INVALID_DATA,
                        kvx::FromUtf8(name) + _T(": its root is another one than the first file's"));
            return 1;
        }
    }
    return options.strOutput.empty() ? PrintDocument(document) : WriteDocument(document, options.strOutput);
}

CLI::App * AddAction(CLI::App & xml, XmlOptions & options, char const * name, char const * help)
{
    CLI::App * const action = xml.add_subcommand(name, help);
    action->add_flag("--ansi", options.bAnsi, "Documents are in the ANSI code page instead of UTF-8");
    action->add_flag("--own-grammar", options.bOwnGrammar,
                     "Read as the library does by default: tags end at the first >, line ends are parts of names");
    return action;
}

CLI::Option * AddFiles(CLI::App & action, XmlOptions & options)
{
    return action.add_option("FILE", options.files, "Documents; - is stdin")->required();
}

void AddIndent(CLI::App & action, XmlOptions & options)
{
    constexpr int WIDEST = 64;
    CLI::Option * const indent = action.add_option("--indent", options.nIndent, "Blanks a level; 0 writes one line")
                                     ->check(CLI::Range(0, WIDEST));
    action.add_flag("--tab", options.bTab, "A TAB a level")->excludes(indent);
}
} // namespace

void AddXmlCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<XmlOptions>();
    CLI::App * const xml = app.add_subcommand("xml", "Print, look into, merge and check XML documents");
    xml->require_subcommand(1);
    xml->footer("Examples:\n"
                "  kvx xml print config.xml --tab\n"
                "  kvx xml get config.xml config.server port\n"
                "  kvx xml merge base.xml site.xml -o config.xml\n"
                "  kvx xml check *.xml\n"
                "\n"
                "An element has a text or children, not both. Lines are written with CR LF.");

    CLI::App * const print = AddAction(*xml, *options, "print", "Write documents with an indent");
    AddFiles(*print, *options);
    AddIndent(*print, *options);
    print->callback([&run, options] { run = [options] { return RunPrint(*options); }; });

    CLI::App * const get = AddAction(*xml, *options, "get", "Write an element's text or an attribute");
    get->add_option("FILE", options->strFile, "A document; - is stdin")->required();
    get->add_option("PATH", options->strPath, "Tags from the root on, with points between them")->required();
    get->add_option("--delimiter", options->strDelimiter, "What parts the tags of PATH instead of a point");
    get->add_option("NAME", options->strName, "An attribute; without one the text");
    get->callback([&run, options] { run = [options] { return RunGet(*options); }; });

    CLI::App * const merge = AddAction(
        *xml, *options, "merge", "Merge documents into the first: nothing is replaced, what has no equal is added");
    AddFiles(*merge, *options)->expected(2, 1000000);
    merge->add_option("-o,--output", options->strOutput, "The file to write, which may be one of them; else stdout");
    AddIndent(*merge, *options);
    merge->callback([&run, options] { run = [options] { return RunMerge(*options); }; });

    CLI::App * const check =
        AddAction(*xml, *options, "check", "Tell the line and column where the library can't read a document");
    AddFiles(*check, *options);
    check->callback([&run, options] { run = [options] { return RunCheck(*options); }; });
}
