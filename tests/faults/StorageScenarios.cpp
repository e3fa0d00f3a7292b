// What ends in files: the registry and its backups, the log, documents, cabinets, profiles, and files by themselves.

#include "Interpose.h"
#include "Scenario.h"

#include "kvx/cabinet/CabBuilder.h"
#include "kvx/cabinet/CabExtractor.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/registry/Registry.h"
#include "kvx/registry/RegistryBackup.h"
#include "kvx/system/WinModule.h"
#include "kvx/system/WinProfile.h"
#include "kvx/xml/XMLDocumentKVX.h"
#include "kvx/xml/XmlDocument.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace
{
namespace fs = std::filesystem;
using faults::Done;
using faults::Expect;
using faults::GetFolder;
using faults::IsInjected;
using faults::Refusal;
using faults::Scenario;

std::string Read(std::string const & name)
{
    faults::Spared const spared;
    std::ostringstream text;
    text << std::ifstream(name, std::ios::binary).rdbuf();
    return text.str();
}

CString InFolder(char const * name)
{
    return kvx::FromUtf8(GetFolder() + "/" + name);
}

/// A call of the registry: its result is its code.
template <class CALL>
void Registry(CALL const & call, char const * what)
{
    LONG const code = faults::NoThrow(what, call);
    if (code != 0)
    {
        SetLastError(static_cast<DWORD>(code));
        faults::Refuse(what);
    }
}

class RegistryKeys : public Scenario
{
public:
    void Run() override
    {
        CString const one(_T("one"));
        CString const text5000('x', 5000);
        CRegistry key;
        Registry([&] { return key.CreateKey(_T("HKCU\\Software\\Faults")); }, "CreateKey");
        Registry([&] { return key.SetValue(_T("text"), one); }, "SetValue");
        Registry([&] { return key.SetValue(_T("number"), DWORD{7}); }, "SetValue");
        CRegistry below;
        Registry([&] { return below.CreateKey(key, _T("Below\\Deeper")); }, "CreateKey");
        Registry([&] { return below.SetValue(_T(""), text5000); }, "SetValue");

        CString text;
        DWORD number = 0;
        Registry([&] { return key.QueryValue(_T("text"), text); }, "QueryValue");
        Registry([&] { return key.QueryValue(_T("number"), number); }, "QueryValue");
        Expect(text == _T("one") && number == 7, "a value of the registry");
        CStringList names;
        Registry([&] { return key.QueryValueNames(names); }, "QueryValueNames");
        Expect(names.GetCount() == 2, "the number of values");
        CStringList keys;
        Registry([&] { return key.QuerySubKeys(keys); }, "QuerySubKeys");
        Expect(keys.GetCount() == 1 && keys.GetHead() == _T("Below"), "the subkeys");
        Registry([&] { return key.DeleteValue(_T("text")); }, "DeleteValue");
        Expect(key.QueryValue(_T("text"), text) != 0, "a value that was deleted is there");
        Registry([&] { return CRegistry::DeleteKey(HKEY_CURRENT_USER, _T("Software\\Faults")); }, "DeleteKey");
        Expect(below.OpenKey(_T("HKCU\\Software\\Faults\\Below")) != 0, "a key that was deleted is there");
    }
};

class RegistryBackups : public Scenario
{
public:
    RegistryBackups()
    {
        CRegistry key;
        key.CreateKey(_T("HKCU\\Software\\Saved\\Below"));
        key.SetValue(_T("text"), CString(_T("one")));
        key.SetValue(_T("number"), DWORD{7});
    }
    void Run() override
    {
        CString const from(_T("HKCU\\Software\\Saved"));
        CString const to(_T("HKCU\\Software\\Copy"));
        CRegistryBackup backup;
        CMemFile file;
        Registry([&] { return backup.Export(from, file); }, "Export");
        file.SeekToBegin();
        Registry([&] { return backup.Import(file, to); }, "Import");
        CRegistry copy;
        CString text;
        Registry([&] { return copy.OpenKey(_T("HKCU\\Software\\Copy\\Below")); }, "OpenKey");
        Registry([&] { return copy.QueryValue(_T("text"), text); }, "QueryValue");
        Expect(text == _T("one"), "a value that came back");
        copy.CloseKey();
        tinyxml2::XMLDocument document;
        Expect(CRegistry::SaveKeyToXML(document, _T("HKCU\\Software\\Saved"), 0, CString(), 1, 1000, 0) == 1 ||
                   IsInjected(),
               "a backup by tinyxml2");
        Registry([&] { return CRegistry::DeleteKey(HKEY_CURRENT_USER, _T("Software\\Copy")); }, "DeleteKey");
    }
};

/// Lines to a file of their own: those that are there are whole and in order, and all are there if nothing has failed.
class Logging : public Scenario
{
public:
    Logging() : m_sink(InFolder("lines.txt"), 1, LOG_ALL) { CLogManager::GetInstance()->RegisterSink(&m_sink, 1); }
    ~Logging() override { CLogManager::GetInstance()->UnregisterSink(&m_sink); }
    void Run() override
    {
        constexpr int LINES = 30;
        std::size_t const nBefore = Read(GetFolder() + "/lines.txt").size();
        for (int i = 0; i < LINES; ++i)
        {
            faults::NoThrow("LogInfo", [&] { LogInfo(_T("line %d of %s"), i, _T("many")); });
        }
        Expect(CLogManager::GetInstance()->Flush(20000) != 0, "a flush has not ended");
        faults::Spared const spared;
        std::istringstream lines(Read(GetFolder() + "/lines.txt").substr(nBefore));
        int nSeen = 0;
        int nLast = -1;
        for (std::string line; std::getline(lines, line);)
        {
            auto const at = line.find("line ");
            int const n = at == std::string::npos ? -1 : std::atoi(line.c_str() + at + 5);
            if (IsInjected() && !line.ends_with(" of many\r"))
            {
                continue;
            }
            Expect(n > nLast && line.ends_with(" of many\r"), "a line of the log");
            nLast = n;
            ++nSeen;
        }
        Expect(nSeen == LINES || (IsInjected() && nSeen >= LINES - 2), "the number of lines");
    }

private:
    CFileLog m_sink;
};

class Documents : public Scenario
{
public:
    void Run() override
    {
        CXmlDocument document;
        document.ProcessUtf8(1);
        document.FromString("<root a=\"1\"><item>one</item><item b=\"2\">two &amp; three</item><!-- said --></root>");
        CXmlElement const * const root = document.GetRoot();
        Expect(root && root->GetTag() == _T("root"), "the root");
        CStringA const text = document.ToString();
        CXmlDocument again;
        again.ProcessUtf8(1);
        again.FromString(text);
        Expect(again.ToString() == text && text.Find("two &amp; three") > 0, "a document that was written and read");

        tinyxml2::XMLDocumentKVX other;
        char const source[] = "<root><item>one</item><item>two</item></root>";
        if (other.Parse(source, sizeof(source) - 1) != tinyxml2::XML_SUCCESS)
        {
            throw Refusal{"Parse"};
        }
        Expect(other.RootElement() && other.RootElement()->FirstChildElement("item"), "a document of tinyxml2's");
    }
};

class Cabinets : public Scenario
{
public:
    Cabinets()
    {
        fs::create_directory(GetFolder() + "/in");
        std::ofstream(GetFolder() + "/in/one.txt") << std::string(40000, 'a') << "one";
        std::ofstream(GetFolder() + "/in/two.txt") << "two";
    }
    void Run() override
    {
        std::string const one = GetFolder() + "/in/one.txt";
        std::string const two = GetFolder() + "/in/two.txt";
        std::string const cabinet = GetFolder() + "/made.cab";
        std::string const out = GetFolder() + "/out";
        {
            faults::Spared const spared;
            std::error_code ignored;
            fs::remove_all(out, ignored);
            fs::remove(cabinet, ignored);
        }

        CCabFileSet files;
        files.AddFile(one.c_str(), "one.txt", 0, TCOMPfromLZXWindow(15));
        files.AddFile(two.c_str(), "sub\\two.txt");
        CCabBuilder builder("");
        if (!builder.Build(cabinet.c_str(), files,
                           "Faults")) // throws what its notifications throw, for want of memory say
        {
            Expect(builder.GetError().erfOper != 0, "Build has failed without a reason");
            throw Refusal{"Build: " + std::to_string(builder.GetError().erfOper)};
        }
        CCabExtractor extractor("");
        extractor.SetConfined(1);
        if (!extractor.Extract(cabinet.c_str(), 1, out.c_str()))
        {
            Expect(extractor.GetError().erfOper != 0, "Extract has failed without a reason");
            throw Refusal{"Extract: " + std::to_string(extractor.GetError().erfOper)};
        }
        Expect(Read(out + "/one.txt") == Read(one) && Read(out + "/sub/two.txt") == "two", "what was extracted");
    }
};

class Files : public Scenario
{
public:
    void Run() override
    {
        CString const folder = InFolder("files");
        Done([&] { return CreateDirectoryW(folder, nullptr) || GetLastError() == ERROR_ALREADY_EXISTS; },
             "CreateDirectory");
        CString temporary;
        SetLastError(0);
        temporary = CUtilities::BuildTempFileName(_T("flt"), 0, folder);
        if (temporary.IsEmpty())
        {
            faults::Refuse("BuildTempFileName");
        }
        struct Removed
        {
            CString strName;
            ~Removed()
            {
                faults::Spared const spared;
                DeleteFileW(strName);
            }
        };
        Removed const removes{temporary};
        Removed const removesMoved{temporary + _T(".moved")};
        {
            CFile file(temporary, CFile::modeCreate | CFile::modeReadWrite);
            std::string const text(10000, 'x');
            file.Write(text.data(), static_cast<UINT>(text.size()));
            file.SetLength(8000);
            file.Flush();
            file.SeekToBegin();
            std::string back(9000, '\0');
            Expect(file.Read(back.data(), 9000) == 8000 && back.substr(0, 8000) == text.substr(0, 8000),
                   "what a file gives back");
            file.Close();
        }
        Done([&] { return MoveFileW(temporary, removesMoved.strName) != FALSE; }, "MoveFile");
        Done([&] { return CopyFileW(removesMoved.strName, temporary, FALSE) != FALSE; }, "CopyFile");
        {
            faults::Spared const spared;
            CFile copy(temporary, CFile::modeRead);
            Expect(copy.GetLength() == 8000, "a copy");
        }
        WIN32_FIND_DATAW found;
        CString const pattern = folder + _T("\\flt*");
        HANDLE find = INVALID_HANDLE_VALUE;
        Done([&] { return (find = FindFirstFileW(pattern, &found)) != INVALID_HANDLE_VALUE; }, "FindFirstFile");
        FindClose(find);
        Done([&] { return DeleteFileW(temporary) && DeleteFileW(removesMoved.strName); }, "DeleteFile");
        faults::Spared const spared;
        Expect(GetFileAttributesW(temporary) == INVALID_FILE_ATTRIBUTES, "a file that was deleted is there");
    }
};

class Profiles : public Scenario
{
public:
    void Run() override
    {
        CString const file = InFolder("settings.ini");
        Done([&] { return WritePrivateProfileStringW(_T("one"), _T("key"), _T("value"), file) != FALSE; },
             "a write to a profile");
        WCHAR value[20] = {};
        GetPrivateProfileStringW(_T("one"), _T("key"), _T("none"), value, 20, file);
        Expect(CString(value) == _T("value") || IsInjected(), "a value of a profile");
    }
};

class Modules : public Scenario
{
public:
    void Run() override
    {
        CString const name(_T("test_messaging_module"));
        CWinModule module;
        Done([&] { return module.Load(name) != 0; }, "Load");
        Done([&] { return GetProcAddress(module.GetHandle(), "KVXMSG_CreateFactory") != nullptr; }, "GetProcAddress");
    }
};
} // namespace

namespace faults
{
std::vector<Description> GetStorageScenarios()
{
    return {{"registry", &Make<RegistryKeys>}, {"registry-backup", &Make<RegistryBackups>},
            {"log", &Make<Logging>},           {"xml", &Make<Documents>},
            {"cabinet", &Make<Cabinets>},      {"files", &Make<Files>},
            {"profile", &Make<Profiles>},      {"load-module", &Make<Modules>}};
}
} // namespace faults
