#include "CabCommand.h"
#include "DisplayText.h"
#include "FileNames.h"
#include "InputFile.h"
#include "OutputFile.h"
#include "ProgressBar.h"

#include "kvx/cabinet/CabFormat.h"
#include "kvx/cabinet/CabNames.h"
#include "kvx/foundation/AppException.h"
#include "kvx/hash/Crc32.h"
#include "kvx/platform/ConfinedFolder.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>

namespace
{
namespace fs = std::filesystem;
using namespace kvx::cabinet;

/// A file that is to go into the cabinet.
struct CabMember
{
    std::string source;
    std::string name; // with slashes
    ULONGLONG size;
};

/// Gathers the files of a command line, folders in the order of names.
class CabMembers
{
public:
    explicit CabMembers(CabOptions const & options) : m_options(options) {}

    void Add(std::string const & given)
    {
        std::optional<std::string> const name = ToMemberName(given);
        fs::path const source = ToPath(m_options.directory.empty() ? "." : m_options.directory) / ToPath(given);
        std::error_code failed;
        fs::file_status const status = fs::status(source, failed);
        if (!name || !fs::exists(status))
        {
            Refuse(given, name ? ERROR_FILE_NOT_FOUND : ERROR_INVALID_NAME,
                   name ? "" : ": the way leads up; give its folder by -C");
            return;
        }
        if (fs::is_directory(status))
        {
            AddFolder(source, *name);
        }
        else
        {
            AddEntry(source, *name, status);
        }
    }

    std::vector<CabMember> const & Get() const { return m_members; }
    ULONGLONG GetSize() const { return m_size; }
    bool IsComplete() const { return m_isComplete; }

private:
    CabOptions const & m_options;
    std::vector<CabMember> m_members;
    std::map<std::string, std::string> m_names; // as they will be read, and as they are here
    ULONGLONG m_size = 0;
    bool m_isComplete = true;

    void Refuse(std::string const & name, DWORD code, std::string const & why)
    {
        ReportError(code, ToFileName(name) +
                              (why.empty() ? _T(": ") + CWinError::GetText(code) : CString(kvx::FromUtf8(why))));
        m_isComplete = false;
    }

    bool IsArchive(fs::path const & path) const
    {
        std::error_code ignored;
        return fs::equivalent(path, ToPath(m_options.archive), ignored);
    }

    // The parts that are names, or nothing for a path that leads up.
    static std::optional<std::string> ToMemberName(std::string const & path)
    {
        std::string name;
        for (fs::path const & part : ToPath(path).relative_path())
        {
            if (part == "..")
            {
                return std::nullopt;
            }
            if (!part.empty() && part != ".")
            {
                name += (name.empty() ? "" : "/") + FromPath(part);
            }
        }
        return name;
    }

    // Without recursion, for folders may lie deep.
    void AddFolder(fs::path const & folder, std::string const & name)
    {
        std::vector<std::pair<fs::path, std::string>> waiting{{folder, name}};
        while (!waiting.empty())
        {
            auto const [path, prefix] = std::move(waiting.back());
            waiting.pop_back();
            if (!prefix.empty() && IsAmong(m_options.excludes, prefix))
            {
                continue;
            }
            std::error_code failed;
            std::vector<fs::directory_entry> entries;
            for (fs::directory_iterator i(path, failed), end; !failed && i != end; i.increment(failed))
            {
                entries.push_back(*i);
            }
            if (failed)
            {
                Refuse(FromPath(path), ERROR_ACCESS_DENIED, ": " + failed.message());
            }
            std::ranges::sort(entries);
            std::vector<std::pair<fs::path, std::string>> folders;
            for (fs::directory_entry const & entry : entries)
            {
                std::string const inner = (prefix.empty() ? "" : prefix + "/") + FromPath(entry.path().filename());
                fs::file_status const status = entry.symlink_status(failed);
                if (fs::is_directory(status))
                {
                    folders.emplace_back(entry.path(), inner);
                }
                else
                {
                    AddEntry(entry.path(), inner, status);
                }
            }
            waiting.insert(waiting.end(), std::make_move_iterator(folders.rbegin()),
                           std::make_move_iterator(folders.rend()));
        }
    }

    void AddEntry(fs::path const & path, std::string const & name, fs::file_status const & status)
    {
        if (IsAmong(m_options.excludes, name))
        {
            return;
        }
        if (!fs::is_regular_file(status))
        {
            ReportNote(FromPath(path), fs::is_symlink(status) ? "a link, passed over" : "no file, passed over");
            return;
        }
        std::error_code failed;
        ULONGLONG const size = fs::file_size(path, failed);
        if (name.size() > MAX_NAME || name.find('\\') != name.npos)
        {
            Refuse(name, ERROR_INVALID_NAME,
                   name.size() > MAX_NAME ? ": a name in a cabinet has at most 255 bytes"
                                          : ": a backslash would part folders in a cabinet");
        }
        else if (failed || size > 0xFFFFFFFF)
        {
            Refuse(name, ERROR_INVALID_DATA,
                   failed ? ": " + failed.message() : ": a file in a cabinet has at most 4 GiB");
        }
        else if (IsArchive(path))
        {
            ReportNote(name, "the cabinet itself, passed over");
        }
        else if (auto const [known, isNew] = m_names.emplace(DecodeName(name), name); !isNew)
        {
            if (known->second != name)
            {
                Refuse(name, ERROR_INVALID_NAME, ": in a cabinet it would be the same as another one");
                return;
            }
            ReportNote(name, "there already, passed over");
        }
        else
        {
            if (!IsUtf8(name))
            {
                ReportNote(name, "not UTF-8, will be read as " + DecodeName(name));
            }
            m_members.push_back({FromPath(path), name, size});
            m_size += size;
        }
    }
};

/// The local date and time of MS-DOS, which begin with 1980 and end with 2107.
void ToDosTime(std::time_t value, USHORT * date, USHORT * time)
{
    std::tm const * const found = std::localtime(&value);
    std::tm local = {};
    local.tm_mday = 1;
    local.tm_year = 80;
    if (found && found->tm_year > 207)
    {
        *date = 127 << 9 | 12 << 5 | 31;
        *time = 23 << 11 | 59 << 5 | 29;
        return;
    }
    if (found && found->tm_year >= 80)
    {
        local = *found;
    }
    *date = static_cast<USHORT>((local.tm_year - 80) << 9 | (local.tm_mon + 1) << 5 | local.tm_mday);
    *time = static_cast<USHORT>(local.tm_hour << 11 | local.tm_min << 5 | std::min(local.tm_sec, 59) / 2);
}

/// One run of the engine. Its files are the sources, one temporary file, and the cabinets, which get their names when
/// all is done.
class CabCreation
{
public:
    CabCreation(CabOptions const & options, CabMembers const & members)
        : m_options(options), m_members(members), m_progress(members.GetSize())
    {
    }

    int Run();

private:
    struct OpenFile
    {
        std::unique_ptr<InputFile> input;
        std::unique_ptr<CFile> own;
        CFile * output = nullptr;

        ~OpenFile()
        {
            if (own)
            {
                own->Close();
            }
        }
    };

    CabOptions const & m_options;
    CabMembers const & m_members;
    ProgressBar m_progress;
    std::string m_folder; // of the cabinets, with its separator
    std::string m_title;
    std::string m_extension;
    std::vector<std::unique_ptr<OutputFile>> m_cabinets;
    CabMember const * m_member = nullptr;
    std::unique_ptr<InputFile> m_input; // of the next AddFile
    CString m_failed;                   // what the callback that failed was at
    DWORD m_error = 0;
    bool m_isReported = false;
    StandardOutput m_out;
    Written m_written = Written::Whole;

    static CabCreation & From(void * context) { return *static_cast<CabCreation *>(context); }

    /// Null unless a set is asked for: no file of that name is to be lost that isn't ours.
    PFNFCIGETNEXTCABINET GetNextCabinet() const { return m_options.maxSize ? &CabCreation::NextCabinet : nullptr; }
    void FillCab(CCAB & ccab, ULONG size) const;
    bool AddMembers(CabCompression & engine);
    bool OpenMember(CabMember const & member);
    int Fail(ERF const & erf);

    bool WantsEnd(int * err)
    {
        if (IsEndWanted())
        {
            m_error = ERROR_OPERATION_ABORTED;
            m_failed = ToFileName(m_options.archive);
            *err = static_cast<int>(m_error);
            return true;
        }
        return false;
    }
    INT_PTR Open(std::string const & name, int * err);
    INT_PTR OpenSource(USHORT * date, USHORT * time, USHORT * attributes);
    // Runs the action on a file; `failed` and an error number if it raises something.
    template <class RESULT, class ACTION>
    RESULT With(CString const & subject, RESULT failed, int * err, ACTION action)
    {
        try
        {
            return action();
        }
        catch (CFileException * failure)
        {
            m_error = static_cast<DWORD>(failure->m_lOsError);
            failure->Delete();
        }
        catch (CException * failure)
        {
            m_error = ERROR_NOT_ENOUGH_MEMORY;
            failure->Delete();
        }
        m_failed = subject;
        *err = static_cast<int>(m_error);
        return failed;
    }

    static BOOL NextCabinet(CCAB * ccab, ULONG, void * context)
    {
        From(context).FillCab(*ccab, static_cast<ULONG>(From(context).m_options.maxSize));
        return TRUE;
    }
    static LONG Status(UINT, ULONG, ULONG size, void *) { return static_cast<LONG>(size); }
    static INT_PTR GetOpenInfo(char *, USHORT * date, USHORT * time, USHORT * attributes, int *, void * context)
    {
        return From(context).OpenSource(date, time, attributes);
    }
};

constexpr char TEMPORARY_NAME[] = ":temporary"; // the engine's, for the callbacks here alone

void CabCreation::FillCab(CCAB & ccab, ULONG size) const
{
    std::string const name = m_title + (ccab.iCab > 1 ? std::to_string(ccab.iCab) : "") + m_extension;
    std::string const disk = m_options.maxSize ? "Disk " + std::to_string(ccab.iCab) : "";
    std::snprintf(ccab.szCab, sizeof ccab.szCab, "%s", name.c_str());
    std::snprintf(ccab.szDisk, sizeof ccab.szDisk, "%s", disk.c_str());
    ccab.iDisk = ccab.iCab;
    ccab.cb = size;
}

int CabCreation::Run()
{
    fs::path const archive = ToPath(m_options.archive);
    m_folder = archive.has_parent_path() ? FromPath(archive.parent_path()) + "/" : "";
    m_title = FromPath(archive.stem());
    m_extension = FromPath(archive.extension());
    if (m_title.empty() || m_title.size() + m_extension.size() + 5 > MAX_NAME)
    {
        ReportError(ERROR_INVALID_NAME, ToFileName(m_options.archive) + _T(": no name for a cabinet"));
        return 1;
    }
    CabCompression::Callbacks callbacks = {};
    callbacks.filePlaced = [](CCAB *, char *, LONG, BOOL, void *) { return 0; };
    callbacks.alloc = [](ULONG size) { return std::malloc(size); };
    callbacks.free = [](void * memory) { std::free(memory); };
    callbacks.open = [](char * name, int, int, int * err, void * context) { return From(context).Open(name, err); };
    callbacks.read = [](INT_PTR handle, void * memory, UINT size, int * err, void * context)
    {
        CabCreation & self = From(context);
        if (self.WantsEnd(err))
        {
            return static_cast<UINT>(-1);
        }
        auto & file = *reinterpret_cast<OpenFile *>(handle);
        if (!file.input)
        {
            return self.With(CString(_T("temporary file")), static_cast<UINT>(-1), err,
                             [&] { return file.output->Read(memory, size); });
        }
        auto const count =
            self.With(ToFileName(self.m_member->source), static_cast<UINT>(-1), err,
                      [&] {
                          return static_cast<UINT>(file.input->Read({static_cast<BYTE *>(memory), size}));
                      });
        self.m_progress.Add(count == static_cast<UINT>(-1) ? 0 : count);
        return count;
    };
    callbacks.write = [](INT_PTR handle, void * memory, UINT size, int * err, void * context)
    {
        auto const & file = *reinterpret_cast<OpenFile *>(handle);
        CString const subject = file.own ? _T("temporary file") : ToFileName(From(context).m_options.archive);
        return From(context).With(subject, static_cast<UINT>(-1), err,
                                  [&]
                                  {
                                      file.output->Write(memory, size);
                                      return size;
                                  });
    };
    callbacks.close = [](INT_PTR handle, int *, void *)
    {
        delete reinterpret_cast<OpenFile *>(handle);
        return 0;
    };
    callbacks.seek = [](INT_PTR handle, LONG distance, int origin, int * err, void * context)
    {
        auto const & file = *reinterpret_cast<OpenFile *>(handle);
        return From(context).With(
            CString(_T("temporary file")), LONG{-1}, err,
            [&] { return static_cast<LONG>(file.output->Seek(distance, static_cast<UINT>(origin))); });
    };
    callbacks.remove = [](char *, int *, void *) { return 0; }; // went when it was closed
    callbacks.getTempFile = [](char * name, int, void *)
    {
        std::strcpy(name, TEMPORARY_NAME);
        return TRUE;
    };
    CCAB ccab = {};
    ccab.iCab = 1;
    ccab.cbFolderThresh = 0x7FFFFFFF;
    FillCab(ccab, static_cast<ULONG>(m_options.maxSize));
    // Cabinets of one set know each other by it, and two runs on the same files give the same.
    std::uint32_t sum = 0;
    for (CabMember const & member : m_members.Get())
    {
        sum = kvx::hash::Crc32({reinterpret_cast<std::uint8_t const *>(member.name.data()), member.name.size()}, sum);
    }
    ccab.setID = static_cast<USHORT>(sum);
    ERF erf = {};
    auto const engine = CabCompression::Create(&erf, callbacks, &ccab, this);
    if (!engine)
    {
        return Fail(erf);
    }
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    engine->SetOptions({.level = m_options.level,
                        .translateCalls = true,
                        .jobs = m_options.jobs ? m_options.jobs : system.dwNumberOfProcessors});
    if (!AddMembers(*engine) || !engine->FlushCabinet(FALSE, GetNextCabinet(), Status))
    {
        return Fail(erf);
    }
    m_progress.Hide();
    int status = m_members.IsComplete() && !m_isReported ? 0 : 1;
    status = ReportWritten(m_written) == 0 ? status : 1;
    for (auto const & cabinet : m_cabinets)
    {
        status = cabinet->Finish() == 0 ? status : 1;
    }
    return status;
}

bool CabCreation::AddMembers(CabCompression & engine)
{
    ULONGLONG inFolder = 0;
    for (CabMember const & member : m_members.Get())
    {
        if (!OpenMember(member))
        {
            m_isReported = true;
            continue;
        }
        if (inFolder >= m_options.folderSize)
        {
            inFolder = 0;
            if (!engine.FlushFolder(GetNextCabinet(), Status))
            {
                return false;
            }
        }
        std::string name = member.name;
        std::ranges::replace(name, '/', '\\');
        if (!engine.AddFile(member.source.c_str(), name.c_str(), FALSE, GetNextCabinet(), Status, GetOpenInfo,
                            m_options.compression))
        {
            return false;
        }
        inFolder += member.size;
        if (m_options.isVerbose)
        {
            m_progress.Hide();
            if (m_options.archive == "-")
            {
                WriteError(ToDisplay(ToFileName(member.name)).strText + "\n");
            }
            else
            {
                m_out << ShowName(member.name) << "\n";
                m_written = m_out.Finish();
            }
        }
    }
    return true;
}

bool CabCreation::OpenMember(CabMember const & member)
{
    m_member = &member;
    int err = 0;
    m_input = With(ToFileName(member.source), std::unique_ptr<InputFile>(), &err,
                   [&] { return std::make_unique<InputFile>(member.source); });
    if (!m_input)
    {
        m_progress.Hide();
        ReportSystemError(m_error, m_failed);
        m_error = 0;
    }
    return m_input != nullptr;
}

INT_PTR CabCreation::OpenSource(USHORT * date, USHORT * time, USHORT * attributes)
{
    auto file = std::make_unique<OpenFile>();
    file->input = std::move(m_input);
    std::error_code ignored;
    auto const changed = fs::last_write_time(ToPath(m_member->source), ignored);
    auto const sinceEpoch =
        std::chrono::file_clock::to_sys(std::chrono::time_point_cast<std::chrono::seconds>(changed)).time_since_epoch();
    ToDosTime(sinceEpoch.count(), date, time);
    bool const isReadOnly =
        (fs::status(ToPath(m_member->source), ignored).permissions() & fs::perms::owner_write) == fs::perms::none;
    bool const isUtf = std::ranges::any_of(m_member->name, [](char c) { return c & 0x80; }) && IsUtf8(m_member->name);
    *attributes = static_cast<USHORT>((isReadOnly ? FILE_ATTRIBUTE_READONLY : 0) | FILE_ATTRIBUTE_ARCHIVE |
                                      (kvx::IsProgram(m_member->source) ? CAB_ATTRIBUTE_EXECUTE : 0) |
                                      (isUtf ? CAB_ATTRIBUTE_NAME_IS_UTF : 0));
    return reinterpret_cast<INT_PTR>(file.release());
}

INT_PTR CabCreation::Open(std::string const & name, int * err)
{
    auto file = std::make_unique<OpenFile>();
    if (name == TEMPORARY_NAME)
    {
        WCHAR folder[MAX_PATH + 1] = {};
        WCHAR path[MAX_PATH + 1] = {};
        GetTempPathW(MAX_PATH, folder);
        HANDLE const handle = GetTempFileNameW(folder, _T("kvx"), 0, path)
                                  ? CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                                FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr)
                                  : INVALID_HANDLE_VALUE;
        if (handle == INVALID_HANDLE_VALUE)
        {
            m_error = GetLastError();
            m_failed = CString(folder);
            *err = static_cast<int>(m_error);
            return -1;
        }
        file->own = std::make_unique<CFile>(handle);
        file->output = file->own.get();
        return reinterpret_cast<INT_PTR>(file.release());
    }
    auto cabinet = std::make_unique<OutputFile>(m_folder + name);
    if (!cabinet->Open())
    {
        m_isReported = true;
        *err = static_cast<int>(ERROR_ACCESS_DENIED);
        return -1;
    }
    file->output = &cabinet->Get();
    m_cabinets.push_back(std::move(cabinet));
    return reinterpret_cast<INT_PTR>(file.release());
}

int CabCreation::Fail(ERF const & erf)
{
    m_progress.Hide();
    if (m_isReported && !m_error && erf.erfOper == FCIERR_CAB_FILE)
    {
        return 1; // of a cabinet that can't be made
    }
    if (m_error)
    {
        ReportSystemError(m_error, m_failed);
    }
    else if (erf.erfOper == FCIERR_ALLOC_FAIL)
    {
        ReportSystemError(ERROR_NOT_ENOUGH_MEMORY);
    }
    else if (erf.erfOper == FCIERR_CAB_FORMAT_LIMIT)
    {
        ReportError(ERROR_INVALID_PARAMETER,
                    ToFileName(m_options.archive) +
                        (m_options.maxSize ? _T(": more than cabinets of this size hold")
                                           : _T(": more than one cabinet holds; --max-size makes a set")));
    }
    else
    {
        CString text;
        text.Format(_T("%s: the engine failed (%d, %d)"), ToFileName(m_options.archive), erf.erfOper, erf.erfType);
        ReportError(ERROR_GEN_FAILURE, text);
    }
    return 1;
}
} // namespace

int CreateCabinet(CabOptions const & options)
{
    if (options.archive == "-" && options.maxSize)
    {
        ReportError(ERROR_INVALID_PARAMETER, _T("a set can't go to stdout"));
        return 1;
    }
    if (options.maxSize > 0x7FFFFFFF)
    {
        ReportError(ERROR_INVALID_PARAMETER, _T("a cabinet has less than 2 GiB"));
        return 1;
    }
    CabMembers members(options);
    for (std::string const & file : options.files)
    {
        members.Add(file);
    }
    if (members.Get().empty())
    {
        ReportError(ERROR_NO_MORE_FILES, ToFileName(options.archive) + _T(": there are no files for it"));
        return 1;
    }
    return CabCreation(options, members).Run();
}
