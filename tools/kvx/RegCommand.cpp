#include "CommandLine.h"
#include "Commands.h"
#include "DisplayText.h"
#include "Output.h"
#include "OutputFile.h"

#include "kvx/msgdata/MsgCursor.h"
#include "kvx/platform/Terminal.h"
#include "kvx/registry/Registry.h"
#include "kvx/registry/RegistryBackup.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace
{
struct RegOptions
{
    std::string strPath;
    std::string strName;
    std::string strType = "REG_SZ";
    std::string strFile;
    std::vector<std::string> words;
    Format format = Format::Table;
    bool bRecursive = false;
    bool bValues = false;
};

/// A key whose text forms this program may use.
class Key : public CRegistry
{
public:
    using CRegistry::ConvertFromString;
    using CRegistry::ConvertToString;
    using CRegistry::GetRegistryTypeFromName;
    using CRegistry::GetRegistryTypeName;
};

int Fail(LONG code, CString const & subject)
{
    return ReportSystemError(static_cast<DWORD>(code), subject);
}

CString TypeName(DWORD type)
{
    CString name = type == REG_NONE ? _T("REG_NONE") : Key::GetRegistryTypeName(type);
    if (name.IsEmpty() || type == REG_LINK || type == REG_DWORD_BIG_ENDIAN)
    {
        name.Format(_T("%u"), type);
    }
    return name;
}

struct Value
{
    CString strName;
    DWORD nType = REG_NONE;
    std::vector<BYTE> data;

    CString ToText() const
    {
        CString text = Key::ConvertToString(nType, data.data(), static_cast<DWORD>(data.size()));
        while (nType == REG_MULTI_SZ && text.GetLength() >= 2 && text.Right(2) == _T("\r\n"))
        {
            text.Truncate(text.GetLength() - 2);
        }
        return text;
    }
};

LONG ReadValue(Key & key, CString const & name, Value & value)
{
    value.strName = name;
    // It may grow between the two calls.
    for (;;)
    {
        DWORD size = static_cast<DWORD>(value.data.size());
        LONG const code = key.QueryValue(name, value.nType, value.data.empty() ? nullptr : value.data.data(), size);
        bool const bRead = size <= value.data.size();
        if (code != ERROR_MORE_DATA && (code != 0 || bRead))
        {
            value.data.resize(code == 0 ? size : 0);
            return code;
        }
        value.data.resize(size);
    }
}

LONG ListValues(Key & key, std::vector<Value> & values)
{
    CStringList names;
    LONG code = key.QueryValueNames(names);
    for (POSITION pos = names.GetHeadPosition(); pos && code == 0;)
    {
        Value value;
        code = ReadValue(key, names.GetNext(pos), value);
        if (code == 0)
        {
            values.push_back(std::move(value));
        }
        code = code == ERROR_FILE_NOT_FOUND ? 0 : code; // deleted just now
    }
    return code;
}

/// A row of `name`, `type` and `data`.
void AddValue(CMsgCursor & rows, Value const & value)
{
    rows.AppendRow();
    rows[_T("name")] = value.strName;
    rows[_T("type")] = TypeName(value.nType);
    rows[_T("data")] = value.ToText();
}

void AddColumns(CMsgCursor & rows, std::initializer_list<LPCTSTR> names)
{
    for (LPCTSTR const name : names)
    {
        rows.AddColumn(name);
    }
}

bool HasRoot(CString const & path)
{
    return CRegistry::LookupRootKey(path.SpanExcluding(_T("\\"))) != nullptr;
}

/// Opens the key of the command line, or says why not.
bool OpenKey(Key & key, RegOptions const & options, DWORD access)
{
    CString const path = kvx::FromUtf8(options.strPath);
    LONG const code = HasRoot(path) ? key.OpenKey(path, access) : ERROR_BAD_PATHNAME;
    return code == 0 || Fail(code, path) == 0;
}

int RunGet(RegOptions const & options)
{
    Key key;
    if (!OpenKey(key, options, KEY_READ))
    {
        return 1;
    }
    Value value;
    CString const name = kvx::FromUtf8(options.strName);
    if (LONG const code = ReadValue(key, name, value); code != 0)
    {
        return Fail(code, name);
    }
    CMsgResponse response;
    CMsgCursor rows(response);
    AddValue(rows, value);
    return PrintResponse(response, options.format);
}

int RunList(RegOptions const & options)
{
    Key key;
    if (!OpenKey(key, options, KEY_READ))
    {
        return 1;
    }
    CStringList subKeys;
    std::vector<Value> values;
    LONG code = key.QuerySubKeys(subKeys);
    code = code != 0 ? code : ListValues(key, values);
    if (code != 0)
    {
        return Fail(code, kvx::FromUtf8(options.strPath));
    }
    CMsgResponse response;
    CMsgCursor rows(response);
    rows.SetRowSetName(_T("keys"));
    AddColumns(rows, {_T("name")});
    for (POSITION pos = subKeys.GetHeadPosition(); pos;)
    {
        rows.AppendRow();
        rows[_T("name")] = subKeys.GetNext(pos);
    }
    rows.AppendRowSet(_T("values"));
    AddColumns(rows, {_T("name"), _T("type"), _T("data")});
    for (Value const & value : values)
    {
        AddValue(rows, value);
    }
    return PrintResponse(response, options.format);
}

/// Walks through a key and all that is below it. `onKey(depth, path, name)` comes before `onValue(depth, path, value)`
/// of its values.
template <class KEY, class VALUE>
LONG Walk(Key & key, CString const & path, int depth, bool bValues, KEY const & onKey, VALUE const & onValue)
{
    constexpr int DEEPEST = 512; // a damaged registry may have loops
    if (depth > DEEPEST)
    {
        return ERROR_BADDB;
    }
    LONG code = 0;
    if (bValues)
    {
        std::vector<Value> values;
        code = ListValues(key, values);
        for (Value const & value : values)
        {
            onValue(depth, path, value);
        }
    }
    CStringList subKeys;
    code = code != 0 ? code : key.QuerySubKeys(subKeys);
    for (POSITION pos = subKeys.GetHeadPosition(); pos && code == 0;)
    {
        CString const & name = subKeys.GetNext(pos);
        CString const subPath = path + _T("\\") + name;
        Key subKey;
        onKey(depth, subPath, name);
        code = subKey.OpenKey(key, name, KEY_READ);
        code = code == 0                      ? Walk(subKey, subPath, depth + 1, bValues, onKey, onValue)
               : code == ERROR_FILE_NOT_FOUND ? 0
                                              : code; // deleted just now
    }
    return code;
}

/// Text with escapes for a colour, on a terminal.
std::string Coloured(char const * escape, std::string const & text)
{
    static bool const s_bWanted = kvx::TakesEscapes(kvx::StandardStream::Output) && !std::getenv("NO_COLOR");
    return s_bWanted ? escape + text + "\x1B[0m" : text;
}

/// The exit status.
int PrintTree(Key & key, CString const & path, bool bValues)
{
    constexpr char const * KEY_COLOUR = "\x1B[1;34m";
    constexpr char const * TYPE_COLOUR = "\x1B[2m";
    auto const indent = [](int depth) { return std::string(2 * static_cast<std::size_t>(depth), ' '); };
    StandardOutput out;
    out << Coloured(KEY_COLOUR, ToStdout(path).strText) << "\n";
    LONG const code = Walk(
        key, path, 1, bValues,
        [&](int depth, CString const &, CString const & name)
        { out << indent(depth) << Coloured(KEY_COLOUR, ToStdout(name).strText) << "\n"; },
        [&](int depth, CString const &, Value const & value)
        {
            std::string const name = value.strName.IsEmpty() ? "(default)" : ToStdout(value.strName).strText;
            out << indent(depth) << name << " " << Coloured(TYPE_COLOUR, ToStdout(TypeName(value.nType)).strText) << " "
                << ToStdout(value.ToText()).strText << "\n";
        });
    Written const written = out.Finish();
    return code != 0 ? Fail(code, path) : ReportWritten(written);
}

int RunTree(RegOptions const & options)
{
    Key key;
    if (!OpenKey(key, options, KEY_READ))
    {
        return 1;
    }
    CString const path = kvx::FromUtf8(options.strPath);
    if (options.format == Format::Table)
    {
        return PrintTree(key, path, options.bValues);
    }
    CMsgResponse response;
    CMsgCursor rows(response);
    rows.SetRowSetName(_T("tree"));
    AddColumns(rows, {_T("key"), _T("name"), _T("type"), _T("data")});
    LONG const code = Walk(
        key, path, 1, options.bValues,
        [&](int, CString const & subPath, CString const &)
        {
            rows.AppendRow();
            rows[_T("key")] = subPath;
        },
        [&](int, CString const & keyPath, Value const & value)
        {
            AddValue(rows, value);
            rows[_T("key")] = keyPath;
        });
    return code == 0 ? PrintResponse(response, options.format) : Fail(code, path);
}

int RunDelete(RegOptions const & options, bool bValue)
{
    Key key;
    if (!OpenKey(key, options, KEY_ALL_ACCESS))
    {
        return 1;
    }
    CString const name = kvx::FromUtf8(bValue ? options.strName : options.strPath);
    LONG const code = bValue ? key.DeleteValue(name) : key.DeleteKey(nullptr, options.bRecursive);
    return code == 0 ? 0 : Fail(code, name);
}

int RunSet(RegOptions const & options, Value const & value)
{
    Key key;
    CString const path = kvx::FromUtf8(options.strPath);
    LONG code = HasRoot(path) ? key.CreateKey(path) : ERROR_BAD_PATHNAME;
    if (code != 0)
    {
        return Fail(code, path);
    }
    code = key.SetValue(value.strName, value.nType, value.data.data(), static_cast<DWORD>(value.data.size()));
    return code == 0 ? 0 : Fail(code, value.strName);
}

template <class T>
std::vector<BYTE> ToBytes(T const * items, std::size_t count)
{
    auto const * const bytes = reinterpret_cast<BYTE const *>(items);
    return std::vector<BYTE>(bytes, bytes + count * sizeof(T));
}

[[noreturn]] void Refuse(std::string const & text)
{
    throw CLI::ValidationError("DATA", text);
}

std::vector<BYTE> ToNumber(std::string const & word, std::size_t size)
{
    ULONGLONG number = 0;
    std::string_view digits = word;
    int const base = digits.starts_with("0x") || digits.starts_with("0X") ? 16 : 10;
    digits.remove_prefix(base == 16 ? 2 : 0);
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size() ||
        (size == sizeof(DWORD) && number > 0xFFFFFFFF))
    {
        Refuse(word + " is no number of " + std::to_string(8 * size) + " bits");
    }
    return ToBytes(reinterpret_cast<BYTE const *>(&number), size);
}

std::vector<BYTE> ToBinary(std::vector<std::string> const & words)
{
    std::string digits;
    for (std::string const & word : words)
    {
        std::ranges::copy_if(word, std::back_inserter(digits), [](char c) { return c != ' '; });
    }
    std::vector<BYTE> data(digits.size() / 2);
    bool bPairs = digits.size() % 2 == 0;
    for (std::size_t i = 0; i < data.size(); ++i)
    {
        char const * const at = digits.data() + 2 * i;
        auto const [end, error] = std::from_chars(at, at + 2, data[i], 16);
        bPairs = bPairs && error == std::errc() && end == at + 2;
    }
    if (!bPairs)
    {
        Refuse("binary data are pairs of hexadecimal digits");
    }
    return data;
}

std::vector<BYTE> ToTexts(std::vector<std::string> const & words)
{
    std::vector<WCHAR> characters;
    for (std::string const & word : words)
    {
        CString const text = kvx::FromUtf8(word);
        characters.insert(characters.end(), text.GetString(), text.GetString() + text.GetLength() + 1);
    }
    characters.resize(std::max<std::size_t>(characters.size() + 1, 2));
    return ToBytes(characters.data(), characters.size());
}

Value ToValue(RegOptions const & options)
{
    Value value{kvx::FromUtf8(options.strName), Key::GetRegistryTypeFromName(kvx::FromUtf8(options.strType)), {}};
    if (options.strType == "REG_NONE")
    {
        value.nType = REG_NONE;
    }
    bool const bMany = value.nType == REG_MULTI_SZ || value.nType == REG_BINARY || value.nType == REG_NONE;
    bool const bNumber = value.nType == REG_DWORD || value.nType == REG_QWORD;
    if ((!bMany && options.words.size() > 1) || (bNumber && options.words.empty()))
    {
        Refuse("one word is wanted for a value of type " + options.strType);
    }
    switch (value.nType)
    {
    case REG_DWORD:
        value.data = ToNumber(options.words.front(), sizeof(DWORD));
        break;
    case REG_QWORD:
        value.data = ToNumber(options.words.front(), sizeof(ULONGLONG));
        break;
    case REG_NONE:
    case REG_BINARY:
        value.data = ToBinary(options.words);
        break;
    case REG_MULTI_SZ:
        value.data = ToTexts(options.words);
        break;
    default:
    {
        CString const text = options.words.empty() ? CString() : kvx::FromUtf8(options.words.front());
        value.data = ToBytes(text.GetString(), static_cast<std::size_t>(text.GetLength()) + 1);
    }
    }
    return value;
}

int FailBackup(LONG code, CRegistryBackup const & backup, std::string const & file, char const * done)
{
    CString reached;
    if (done)
    {
        reached.Format(_T(" (%I64u keys and %I64u values %S)"), backup.GetKeyCount(), backup.GetValueCount(), done);
    }
    ReportError(static_cast<DWORD>(code), CString(kvx::FromUtf8(file)) + _T(": ") + backup.GetErrorText() + reached);
    return 1;
}

/// The backup to read, stdin for "-"; null with an error line.
std::unique_ptr<CFile> OpenBackup(std::string const & name)
{
    if (name == "-")
    {
        return std::make_unique<CFile>(GetStdHandle(STD_INPUT_HANDLE));
    }
    auto file = std::make_unique<CFile>();
    CFileException failure;
    if (!file->Open(CString(kvx::FromUtf8(name)), CFile::modeRead | CFile::shareDenyWrite, &failure))
    {
        Fail(failure.m_lOsError, CString(kvx::FromUtf8(name)));
        return nullptr;
    }
    return file;
}

int RunExport(RegOptions const & options)
{
    CString const path = kvx::FromUtf8(options.strPath);
    if (!HasRoot(path))
    {
        return Fail(ERROR_BAD_PATHNAME, path);
    }
    OutputFile out(options.strFile);
    if (!out.Open())
    {
        return 1;
    }
    CRegistryBackup backup;
    LONG const code = backup.Export(path, out.Get());
    return code == 0 ? out.Finish() : FailBackup(code, backup, options.strFile, nullptr);
}

int RunImport(RegOptions const & options)
{
    std::unique_ptr<CFile> const file = OpenBackup(options.strFile);
    CString const path = kvx::FromUtf8(options.strPath);
    if (!path.IsEmpty() && !HasRoot(path))
    {
        return Fail(ERROR_BAD_PATHNAME, path);
    }
    CRegistryBackup backup;
    LONG const code = file ? backup.Import(*file, path) : 0;
    if (!file || code != 0)
    {
        return file ? FailBackup(code, backup, options.strFile, "restored") : 1;
    }
    if (backup.GetValuesWithoutData() > 0)
    {
        std::fprintf(stderr, "%llu values were left as they are: the file has no data for them\n",
                     static_cast<unsigned long long>(backup.GetValuesWithoutData()));
    }
    return 0;
}

/// The exit status is 1 where there is a difference, 2 for a failure.
int RunDiff(RegOptions const & options)
{
    constexpr int TROUBLE = 2;
    std::unique_ptr<CFile> const file = OpenBackup(options.strFile);
    CString const path = kvx::FromUtf8(options.strPath);
    if (!file || !HasRoot(path))
    {
        if (file)
        {
            Fail(ERROR_BAD_PATHNAME, path);
        }
        return TROUBLE;
    }
    CMsgResponse response;
    CMsgCursor rows(response);
    rows.SetRowSetName(_T("differences"));
    AddColumns(rows, {_T("change"), _T("key"), _T("value"), _T("registry"), _T("file")});
    bool bSame = true;
    auto const tell = [&](CRegistryBackup::Difference const & difference)
    {
        constexpr LPCTSTR CHANGES[] = {_T("only in registry"), _T("only in file"), _T("differs")};
        bSame = false;
        rows.AppendRow();
        rows[_T("change")] = CHANGES[difference.kind];
        rows[_T("key")] = difference.strKey;
        bool const bDefault = difference.bValue && difference.strValue.IsEmpty();
        rows[_T("value")] = bDefault ? CString(_T("(default)")) : difference.strValue;
        rows[_T("registry")] = difference.strInRegistry;
        rows[_T("file")] = difference.strInFile;
    };
    CRegistryBackup backup;
    if (LONG const code = backup.Compare(*file, path, tell); code != 0)
    {
        FailBackup(code, backup, options.strFile, nullptr);
        return TROUBLE;
    }
    bool const bQuiet = bSame && options.format == Format::Table;
    if (!bQuiet && PrintResponse(response, options.format) != 0)
    {
        return TROUBLE;
    }
    return bSame ? 0 : 1;
}

CLI::App * AddAction(CLI::App & reg, RegOptions & options, char const * name, char const * help)
{
    CLI::App * const action = reg.add_subcommand(name, help);
    action->add_option("PATH", options.strPath, "A root (HKLM, HKCU, HKCR, HKCC, HKUS) and the key's path below it")
        ->required();
    return action;
}
} // namespace

void AddRegCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<RegOptions>();
    CLI::App * const reg = app.add_subcommand("reg", "Show and change the registry");
    reg->require_subcommand(1);
    reg->footer("Examples:\n"
                "  kvx reg set 'HKCU\\Software\\Acme' Level 5 --type dword\n"
                "  kvx reg set 'HKCU\\Software\\Acme' Paths /usr /opt --type multi\n"
                "  kvx reg get 'HKCU\\Software\\Acme' Level\n"
                "  kvx reg tree 'HKCU\\Software' --values\n"
                "  kvx reg delete 'HKCU\\Software\\Acme' --recursive\n"
                "  kvx reg export 'HKCU\\Software\\Acme' acme.xml\n"
                "  kvx reg diff 'HKCU\\Software\\Acme' acme.xml\n"
                "  kvx reg import acme.xml 'HKCU\\Software\\Copy'\n"
                "\n"
                "An empty NAME is the key's default value. Words behind -- are no options.");

    CLI::App * const get = AddAction(*reg, *options, "get", "Show one value");
    get->add_option("NAME", options->strName, "The value's name; without one the key's default value");
    AddFormatOption(*get, options->format);
    get->callback([&run, options] { run = [options] { return RunGet(*options); }; });

    CLI::App * const set = AddAction(*reg, *options, "set", "Write a value; a missing key is made");
    set->add_option("NAME", options->strName, "The value's name")->required();
    set->add_option("DATA", options->words,
                    "A text, a number (decimal or 0x), pairs of hexadecimal digits, or several texts");
    AddChoice<std::string>(*set, "--type", options->strType, "What DATA is",
                           {{"sz", "REG_SZ"},
                            {"expand", "REG_EXPAND_SZ"},
                            {"dword", "REG_DWORD"},
                            {"qword", "REG_QWORD"},
                            {"binary", "REG_BINARY"},
                            {"multi", "REG_MULTI_SZ"},
                            {"none", "REG_NONE"}});
    set->callback([&run, options] { run = [options, value = ToValue(*options)] { return RunSet(*options, value); }; });

    CLI::App * const remove = AddAction(*reg, *options, "delete", "Delete a value, or without NAME the key");
    CLI::Option * const removed = remove->add_option("NAME", options->strName, "The value's name");
    remove->add_flag("--recursive", options->bRecursive, "Delete the key with all that is below it")->excludes(removed);
    remove->callback([&run, options, removed]
                     { run = [options, bValue = removed->count() > 0] { return RunDelete(*options, bValue); }; });

    CLI::App * const list = AddAction(*reg, *options, "list", "Show the subkeys and values of a key");
    AddFormatOption(*list, options->format);
    list->callback([&run, options] { run = [options] { return RunList(*options); }; });

    CLI::App * const tree = AddAction(*reg, *options, "tree", "Show all keys below a key");
    tree->add_flag("--values", options->bValues, "With their values");
    AddFormatOption(*tree, options->format);
    tree->callback([&run, options] { run = [options] { return RunTree(*options); }; });

    CLI::App * const save = AddAction(*reg, *options, "export", "Write a key and all below it to an XML file");
    save->add_option("FILE", options->strFile, "The file, which is replaced when all is written; - is stdout")
        ->required();
    save->callback([&run, options] { run = [options] { return RunExport(*options); }; });

    CLI::App * const restore = reg->add_subcommand("import", "Make the keys and values of such a file; others stay");
    restore->add_option("FILE", options->strFile, "The file, all of which is checked first; - is stdin")->required();
    restore->add_option("PATH", options->strPath, "Where the tree goes; without it to where it was");
    restore->callback([&run, options] { run = [options] { return RunImport(*options); }; });

    CLI::App * const diff = AddAction(
        *reg, *options, "diff", "Show where a key and such a file differ: exit status 1 if they do, 2 for a failure");
    diff->add_option("FILE", options->strFile, "The file; - is stdin")->required();
    AddFormatOption(*diff, options->format);
    diff->callback([&run, options] { run = [options] { return RunDiff(*options); }; });
}
