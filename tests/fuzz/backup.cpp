// Restores arbitrary bytes as a backup of the registry, in all three ways. What an import takes can be exported, and
// holds no difference then.

#include "Require.h"

#include "kvx/registry/Registry.h"
#include "kvx/registry/RegistryBackup.h"
#include "kvx/xml/XMLDocumentKVX.h"
#include "kvx/xml/XmlDocument.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace
{
CString const TOP = _T("HKCU\\Software\\Fuzz");

void ImportAndExport(std::uint8_t const * data, std::size_t size)
{
    CMemFile file(const_cast<BYTE *>(data), static_cast<UINT>(size));
    CRegistryBackup backup;
    if (backup.Import(file, TOP) != 0)
    {
        Require(!backup.GetErrorText().IsEmpty());
        return;
    }
    CMemFile written;
    LONG const code = backup.Export(TOP, written);
    Require(code == 0 || code == ERROR_NO_UNICODE_TRANSLATION);
    if (code == 0)
    {
        written.SeekToBegin();
        Require(backup.Compare(written, TOP, [](auto const &) { Require(false); }) == 0);
    }
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    static std::string const s_folder = []
    {
        char folder[] = "/tmp/kvx-fuzz-XXXXXX";
        return std::string(mkdtemp(folder));
    }();
    setenv("KVX_REGISTRY", (s_folder + "/registry.db").c_str(), 1);
    std::atexit([] { std::filesystem::remove_all(s_folder); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    ImportAndExport(data, size);
    // These take the path from the document: nothing but the one is let through.
    std::string const text(reinterpret_cast<char const *>(data), size);
    tinyxml2::XMLDocumentKVX document;
    if (document.Parse(text.data(), text.size()) == tinyxml2::XML_SUCCESS && document.RootElement())
    {
        if (auto * const key = document.RootElement()->FirstChildElement("KEY"))
        {
            key->SetAttribute("name", "HKCU\\Software\\Fuzz");
            CRegistry::RestoreFromXML(document, 0);
        }
    }
    CXmlDocument own(_T("root"));
    try
    {
        own.FromString(CStringA(text));
        if (own.GetRoot() && own.GetRoot()->GetChild())
        {
            own.GetRoot()->GetChild()->SetAttribute(_T("name"), TOP);
            CRegistry::RestoreFromXML(own, 0);
        }
    }
    catch (CArchiveException * failure)
    {
        failure->Delete();
    }
    CRegistry::DeleteKey(HKEY_CURRENT_USER, _T("Software\\Fuzz"));
    return 0;
}
