#include "CabCommand.h"
#include "FileNames.h"
#include "ProgressBar.h"

#include "kvx/cabinet/CabDecompression.h"
#include "kvx/cabinet/CabNames.h"
#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/msgdata/MsgCursor.h"
#include "kvx/platform/ConfinedFolder.h"
#include "kvx/platform/Terminal.h"
#include "kvx/platform/mfc/File.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>

namespace
{
namespace fs = std::filesystem;
using namespace kvx::cabinet;

/// A file of a cabinet, as a user reads it.
struct CabListed
{
    std::string name; // UTF-8 with slashes
    ULONGLONG size;
    std::time_t changed; // -1 for what is no date
    USHORT attributes;
    USHORT date;
    USHORT time;
};

std::time_t FromDosTime(USHORT date, USHORT time)
{
    std::tm local = {};
    local.tm_year = 80 + (date >> 9);
    local.tm_mon = (date >> 5 & 15) - 1;
    local.tm_mday = date & 31;
    local.tm_hour = time >> 11;
    local.tm_min = time >> 5 & 63;
    local.tm_sec = (time & 31) * 2;
    local.tm_isdst = -1;
    bool const isDate = local.tm_mon >= 0 && local.tm_mon < 12 && local.tm_mday > 0;
    return isDate ? std::mktime(&local) : -1;
}

FILETIME ToFileTime(std::time_t value)
{
    constexpr ULONGLONG TICKS_PER_SECOND = 10'000'000;
    constexpr ULONGLONG EPOCH_SECONDS = 11'644'473'600; // from 1601 to 1970
    ULONGLONG const ticks = (static_cast<ULONGLONG>(value) + EPOCH_SECONDS) * TICKS_PER_SECOND;
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

/// Goes through a cabinet and those that follow in its set.
class CabWalk
{
public:
    explicit CabWalk(CabOptions const & options) : m_options(options) {}
    virtual ~CabWalk() = default;

    /// The exit status.
    int Run();

protected:
    CabOptions const & m_options;
    ULONGLONG m_files = 0;
    ULONGLONG m_bytes = 0;

    /// What takes the file's data; null passes it over.
    struct Target
    {
        virtual ~Target() = default;
        virtual bool Write(std::span<BYTE const> data) = 0;
        virtual bool Finish() = 0;
    };
    virtual std::unique_ptr<Target> OnFile(CabListed const & file) = 0;

    /// A line on stdout.
    void Say(std::string const & line)
    {
        static bool const s_isTerminal = kvx::IsTerminal(kvx::StandardStream::Output);
        m_out << line << "\n";
        if (s_isTerminal)
        {
            m_out.Finish();
        }
    }
    int FinishOutput(int status)
    {
        int const written = ReportWritten(m_out.Finish());
        return status == 0 ? written : status;
    }
    void Refuse(std::string const & name, CString const & why, DWORD code)
    {
        ReportError(code, ToFileName(name) + _T(": ") + why);
        m_isWhole = false;
    }

private:
    struct OpenFile
    {
        std::unique_ptr<CFile> cabinet;
        std::unique_ptr<Target> target;
        std::string name;
    };

    std::string m_folder;
    std::string m_member; // that was begun last
    std::string m_next;   // the cabinet that comes after the one that is read
    int m_number = 0;     // and of the one that is read
    int m_opened = 0;     // cabinets for it
    bool m_isFirst = true;
    bool m_isWhole = true;
    StandardOutput m_out;
    DWORD m_error = 0; // of a callback
    CString m_failed;

    static CabWalk *& Current()
    {
        static CabWalk * s_current; // these callbacks have no context
        return s_current;
    }

    INT_PTR Open(std::string const & path);
    INT_PTR Notify(FDINOTIFICATIONTYPE type, FDINOTIFICATION & notification);
    INT_PTR OnCabinet(FDINOTIFICATION const & notification);
    INT_PTR OnCopy(FDINOTIFICATION const & notification);
    INT_PTR OnClose(FDINOTIFICATION const & notification);
    void ReportFailure(std::string const & cabinet, ERF const & erf);
    bool HasFailed(DWORD error, CString const & subject)
    {
        m_error = error;
        m_failed = subject;
        return true;
    }
};

int CabWalk::Run()
{
    Current() = this;
    CabDecompression::Callbacks callbacks = {};
    callbacks.alloc = [](ULONG size) { return std::malloc(size); };
    callbacks.free = [](void * memory) { std::free(memory); };
    callbacks.open = [](char * path, int, int) { return Current()->Open(path); };
    callbacks.read = [](INT_PTR handle, void * memory, UINT size)
    {
        auto const & file = *reinterpret_cast<OpenFile *>(handle);
        if (IsEndWanted())
        {
            Current()->HasFailed(ERROR_OPERATION_ABORTED, ToFileName(file.name));
            return static_cast<UINT>(-1);
        }
        try
        {
            return file.cabinet->Read(memory, size);
        }
        catch (CFileException * failure)
        {
            Current()->HasFailed(static_cast<DWORD>(failure->m_lOsError), ToFileName(file.name));
            failure->Delete();
            return static_cast<UINT>(-1);
        }
    };
    callbacks.write = [](INT_PTR handle, void * memory, UINT size)
    {
        auto const & file = *reinterpret_cast<OpenFile *>(handle);
        if (file.target->Write({static_cast<BYTE const *>(memory), size}))
        {
            return size;
        }
        Current()->HasFailed(GetLastError(), ToFileName(file.name));
        return static_cast<UINT>(-1);
    };
    callbacks.close = [](INT_PTR handle)
    {
        delete reinterpret_cast<OpenFile *>(handle);
        return 0;
    };
    callbacks.seek = [](INT_PTR handle, LONG distance, int origin)
    {
        try
        {
            CFile & cabinet = *reinterpret_cast<OpenFile *>(handle)->cabinet;
            return static_cast<LONG>(cabinet.Seek(distance, static_cast<UINT>(origin)));
        }
        catch (CException * failure)
        {
            failure->Delete();
            return LONG{-1};
        }
    };
    ERF erf = {};
    auto const engine = CabDecompression::Create(callbacks, &erf);
    fs::path const archive = ToPath(m_options.archive);
    std::error_code ignored;
    if (!archive.has_filename() || fs::is_directory(archive, ignored))
    {
        ReportError(ERROR_FILE_NOT_FOUND, ToFileName(m_options.archive) + _T(": no name of a file"));
        return 1;
    }
    m_folder = archive.has_parent_path() ? FromPath(archive.parent_path()) + "/" : "";
    for (std::string name = FromPath(archive.filename()); !name.empty(); name = m_next)
    {
        m_next.clear();
        m_opened = 0;
        auto const notify = [](FDINOTIFICATIONTYPE type, FDINOTIFICATION * notification)
        { return static_cast<CabWalk *>(notification->pv)->Notify(type, *notification); };
        if (!engine || !engine->Copy(name.c_str(), m_folder.c_str(), notify, this))
        {
            FinishOutput(1);
            ReportFailure(m_folder + name, erf);
            return 1;
        }
        m_isFirst = false;
    }
    return FinishOutput(m_isWhole ? 0 : 1);
}

INT_PTR CabWalk::Open(std::string const & path)
{
    // The names of further cabinets are the first one's word.
    std::string const name = path.substr(m_folder.size());
    if (!m_isFirst && name.find_first_of("/\\") != name.npos)
    {
        return -1;
    }
    auto file = std::make_unique<OpenFile>();
    file->name = path;
    file->cabinet = std::make_unique<CFile>();
    CFileException failure;
    if (!file->cabinet->Open(ToFileName(path), CFile::modeRead | CFile::shareDenyNone, &failure))
    {
        HasFailed(static_cast<DWORD>(failure.m_lOsError), ToFileName(path));
        return -1;
    }
    m_error = 0;
    return reinterpret_cast<INT_PTR>(file.release());
}

INT_PTR CabWalk::Notify(FDINOTIFICATIONTYPE type, FDINOTIFICATION & notification)
{
    switch (type)
    {
    case fdintCABINET_INFO:
        return OnCabinet(notification);
    case fdintPARTIAL_FILE:
        if (m_isFirst)
        {
            Refuse(DecodeName(notification.psz1),
                   _T("can't be had without the cabinet before: ") + ToFileName(notification.psz2), ERROR_INVALID_DATA);
        }
        return 0;
    case fdintCOPY_FILE:
        return OnCopy(notification);
    case fdintCLOSE_FILE_INFO:
        return OnClose(notification);
    case fdintNEXT_CABINET:
        // It is where the first one is, or nowhere.
        return notification.fdie == FDIERROR_NONE ? 0 : -1;
    default:
        return 0;
    }
}

INT_PTR CabWalk::OnCabinet(FDINOTIFICATION const & notification)
{
    // The first to be opened is the one that is gone through; a file may lead on to others.
    if (m_opened++ == 0)
    {
        bool const isNext = m_isFirst || notification.iCabinet == m_number + 1;
        m_next = isNext ? notification.psz1 : "";
        m_number = notification.iCabinet;
        if (!isNext)
        {
            HasFailed(ERROR_INVALID_DATA, _T("a cabinet that isn't the next of its set"));
            return -1;
        }
    }
    return 0;
}

INT_PTR CabWalk::OnCopy(FDINOTIFICATION const & notification)
{
    CabListed file = {};
    file.name = DecodeName(notification.psz1);
    file.size = static_cast<ULONG>(notification.cb);
    file.changed = FromDosTime(notification.date, notification.time);
    file.date = notification.date;
    file.time = notification.time;
    file.attributes = notification.attribs;
    auto target = OnFile(file);
    if (!target)
    {
        return 0;
    }
    auto open = std::make_unique<OpenFile>();
    m_member = file.name;
    open->target = std::move(target);
    open->name = file.name;
    m_files++;
    m_bytes += file.size;
    return reinterpret_cast<INT_PTR>(open.release());
}

INT_PTR CabWalk::OnClose(FDINOTIFICATION const & notification)
{
    std::unique_ptr<OpenFile> const file(reinterpret_cast<OpenFile *>(notification.hf));
    if (!file->target->Finish())
    {
        DWORD const error = GetLastError();
        Refuse(file->name, CWinError::GetText(error), error);
    }
    return 1;
}

void CabWalk::ReportFailure(std::string const & cabinet, ERF const & erf)
{
    CString const name = ToFileName(cabinet);
    if (m_error)
    {
        ReportSystemError(m_error, m_failed);
        return;
    }
    switch (erf.erfOper)
    {
    case FDIERROR_NOT_A_CABINET:
        ReportError(ERROR_INVALID_DATA, name + _T(": no cabinet"));
        break;
    case FDIERROR_UNKNOWN_CABINET_VERSION:
        ReportError(ERROR_INVALID_DATA, name + _T(": a cabinet of an unknown version"));
        break;
    case FDIERROR_CORRUPT_CABINET:
        ReportError(ERROR_INVALID_DATA,
                    name + (m_member.empty() ? _T(": damaged") : _T(": damaged at ") + ToFileName(m_member)));
        break;
    case FDIERROR_BAD_COMPR_TYPE:
        ReportError(ERROR_NOT_SUPPORTED, name + _T(": a method of compression that isn't supported"));
        break;
    case FDIERROR_ALLOC_FAIL:
        ReportSystemError(ERROR_NOT_ENOUGH_MEMORY);
        break;
    default:
        ReportError(ERROR_INVALID_DATA, name + _T(": the next cabinet isn't there, or is another one's"));
        break;
    }
}

class CabLister : public CabWalk
{
public:
    explicit CabLister(CabOptions const & options) : CabWalk(options), m_rows(m_response)
    {
        for (LPCTSTR const column : {_T("name"), _T("size"), _T("changed"), _T("attributes")})
        {
            m_rows.AddColumn(column);
        }
    }

    /// Nothing where nothing could be read.
    int Print(int status)
    {
        return status == 0 || m_rows.GetRowCount() > 0 ? PrintResponse(m_response, m_options.format) : status;
    }

private:
    CMsgResponse m_response;
    CMsgCursor m_rows;

    std::unique_ptr<Target> OnFile(CabListed const & file) override
    {
        CString changed;
        changed.Format(_T("%04d-%02d-%02d %02d:%02d:%02d"), 1980 + (file.date >> 9), file.date >> 5 & 15,
                       file.date & 31, file.time >> 11, file.time >> 5 & 63, (file.time & 31) * 2);
        CString attributes;
        constexpr std::pair<USHORT, WCHAR> LETTERS[] = {{FILE_ATTRIBUTE_READONLY, 'r'},
                                                        {FILE_ATTRIBUTE_HIDDEN, 'h'},
                                                        {FILE_ATTRIBUTE_SYSTEM, 's'},
                                                        {FILE_ATTRIBUTE_ARCHIVE, 'a'},
                                                        {CAB_ATTRIBUTE_EXECUTE, 'x'}};
        for (auto const & [attribute, letter] : LETTERS)
        {
            attributes += file.attributes & attribute ? letter : WCHAR('-');
        }
        CString size;
        size.Format(_T("%u"), static_cast<DWORD>(file.size));
        m_rows.AppendRow();
        m_rows[_T("name")] = CString(kvx::FromUtf8(file.name));
        m_rows[_T("size")] = size;
        m_rows[_T("changed")] = changed;
        m_rows[_T("attributes")] = attributes;
        return nullptr;
    }
};

/// Decompresses, for the checksums.
class CabTester : public CabWalk
{
public:
    using CabWalk::CabWalk;

    int PrintSum()
    {
        Say(std::to_string(m_files) + " files, " + std::to_string(m_bytes) + " bytes: whole");
        return FinishOutput(0);
    }

private:
    struct Nowhere : Target
    {
        bool Write(std::span<BYTE const>) override { return true; }
        bool Finish() override { return true; }
    };

    std::unique_ptr<Target> OnFile(CabListed const & file) override
    {
        if (m_options.isVerbose)
        {
            Say(ShowName(file.name));
        }
        return std::make_unique<Nowhere>();
    }
};

class CabExtraction : public CabWalk
{
public:
    CabExtraction(CabOptions const & options, kvx::ConfinedFolder & folder) : CabWalk(options), m_folder(folder) {}

    /// False, with an error line for each, if some patterns met no file.
    bool HaveAllMatched() const
    {
        bool isAll = true;
        for (std::string const & pattern : m_options.files)
        {
            if (!m_matched.contains(pattern))
            {
                ReportError(ERROR_FILE_NOT_FOUND, ToFileName(pattern) + _T(": not in the cabinet"));
                isAll = false;
            }
        }
        return isAll;
    }

private:
    kvx::ConfinedFolder & m_folder;
    std::set<std::string> m_matched;

    struct ToDisk : Target
    {
        std::unique_ptr<kvx::ConfinedFile> file;
        CabListed entry;

        bool Write(std::span<BYTE const> data) override { return file->Write(data); }
        bool Finish() override
        {
            FILETIME const changed = ToFileTime(entry.changed);
            return file->Finish(entry.changed == -1 ? nullptr : &changed, entry.attributes & FILE_ATTRIBUTE_READONLY,
                                entry.attributes & CAB_ATTRIBUTE_EXECUTE);
        }
    };

    bool IsWanted(std::string const & name);
    std::unique_ptr<Target> OnFile(CabListed const & file) override;
};

bool CabExtraction::IsWanted(std::string const & name)
{
    bool isWanted = m_options.files.empty();
    for (std::string const & pattern : m_options.files)
    {
        if (IsAmong({pattern}, name))
        {
            m_matched.insert(pattern);
            isWanted = true;
        }
    }
    return isWanted && !IsAmong(m_options.excludes, name);
}

/// The names of folders, and of the file, that stay below a folder; empty for a way that leads up, or nowhere.
std::vector<std::string> ToSafeNames(std::string name)
{
    if (name.size() > 1 && name[1] == ':' && std::isalpha(static_cast<unsigned char>(name[0])))
    {
        name.erase(0, 2);
    }
    std::vector<std::string> names;
    for (std::size_t begin = 0; begin < name.size();)
    {
        std::size_t const end = std::min(name.find('/', begin), name.size());
        std::string const part = name.substr(begin, end - begin);
        if (part == "..")
        {
            return {};
        }
        if (!part.empty() && part != ".")
        {
            names.push_back(part);
        }
        begin = end + 1;
    }
    return names;
}

std::unique_ptr<CabWalk::Target> CabExtraction::OnFile(CabListed const & file)
{
    if (!IsWanted(file.name))
    {
        return nullptr;
    }
    std::vector<std::string> const names = ToSafeNames(file.name);
    std::string joined;
    for (std::string const & name : names)
    {
        joined += (joined.empty() ? "" : "/") + name;
    }
    if (names.empty())
    {
        Refuse(file.name, _T("leads out of the folder"), ERROR_INVALID_NAME);
        return nullptr;
    }
    auto target = std::make_unique<ToDisk>();
    target->file = m_folder.Create(names);
    target->entry = file;
    if (!target->file)
    {
        DWORD const error = GetLastError();
        Refuse(file.name,
               error == ERROR_CANT_ACCESS_FILE ? CString(_T("a link or a file is in its way"))
                                               : CWinError::GetText(error),
               error);
        return nullptr;
    }
    if (joined != file.name)
    {
        ReportNote(file.name, "written as " + ShowName(joined));
    }
    if (m_options.isVerbose)
    {
        Say(ShowName(joined));
    }
    return target;
}
} // namespace

int ListCabinet(CabOptions const & options)
{
    CabLister lister(options);
    int const status = lister.Run();
    int const printed = lister.Print(status);
    return status == 0 ? printed : status;
}

int TestCabinet(CabOptions const & options)
{
    CabTester tester(options);
    int const status = tester.Run();
    return status == 0 ? tester.PrintSum() : status;
}

int ExtractCabinet(CabOptions const & options)
{
    auto const folder = kvx::ConfinedFolder::Open(options.directory);
    if (!folder)
    {
        return ReportSystemError(GetLastError(), ToFileName(options.directory));
    }
    CabExtraction extraction(options, *folder);
    int const status = extraction.Run();
    return extraction.HaveAllMatched() ? status : 1;
}
