#include "kvx/platform/ConfinedFolder.h"

#include "HeldFolder.h"
#include "LongPath.h"

#include <algorithm>
#include <atomic>
#include <string_view>

namespace kvx
{
using windows::HeldFolder;

namespace
{

std::wstring ToWide(std::string const & text)
{
    std::wstring wide(text.size(), 0);
    int const nLength = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                                            static_cast<int>(wide.size()));
    wide.resize(static_cast<std::size_t>(nLength));
    return wide;
}

bool IsSameText(std::wstring_view a, std::wstring_view b)
{
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

/// What the system takes for a device, whatever extension it has.
bool IsDevice(std::wstring_view name)
{
    std::wstring_view stem = name.substr(0, name.find(L'.'));
    stem = stem.substr(0, stem.find_last_not_of(L' ') + 1);
    for (std::wstring_view const device : {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"})
    {
        if (IsSameText(stem, device))
        {
            return true;
        }
    }
    return stem.size() == 4 && (IsSameText(stem.substr(0, 3), L"COM") || IsSameText(stem.substr(0, 3), L"LPT")) &&
           std::wstring_view(L"0123456789\u00b9\u00b2\u00b3").find(stem[3]) != stem.npos;
}

/// One that means itself and nothing else: no separator, stream, pattern or device, and no end that the system drops.
bool IsName(std::wstring_view name)
{
    return !name.empty() && !name.ends_with(L'.') && !name.ends_with(L' ') && !IsDevice(name) &&
           name.find_first_of(L"<>:\"/\\|?*") == name.npos &&
           std::ranges::all_of(name, [](wchar_t c) { return c >= L' '; });
}

HANDLE CreateNew(std::wstring const & path)
{
    return CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                       FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
}

class File : public ConfinedFile
{
public:
    File(std::wstring temporary, std::wstring path, HANDLE hFile, std::vector<HeldFolder> folders)
        : m_temporary(std::move(temporary)), m_path(std::move(path)), m_hFile(hFile), m_folders(std::move(folders))
    {
    }
    ~File() override
    {
        Close();
        if (!m_temporary.empty())
        {
            DeleteFileW(m_temporary.c_str());
        }
    }

    bool Write(std::span<std::uint8_t const> data) override
    {
        DWORD nWritten = 0;
        return WriteFile(m_hFile, data.data(), static_cast<DWORD>(data.size()), &nWritten, nullptr);
    }

    bool Finish(FILETIME const * written, bool isReadOnly, bool) override
    {
        if (written && !SetFileTime(m_hFile, written, nullptr, written))
        {
            return false;
        }
        Close();
        // Else the one that is there could not be replaced.
        SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_NORMAL);
        if (!MoveFileExW(m_temporary.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING))
        {
            return false;
        }
        m_temporary.clear();
        return !isReadOnly || SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_READONLY);
    }

private:
    std::wstring m_temporary; // empty when it is finished
    std::wstring m_path;
    HANDLE m_hFile;
    std::vector<HeldFolder> m_folders; // on the way to it

    void Close()
    {
        if (m_hFile != INVALID_HANDLE_VALUE)
        {
            CloseHandle(m_hFile);
        }
        m_hFile = INVALID_HANDLE_VALUE;
    }
};

class Folder : public ConfinedFolder
{
public:
    /// `given` is its path with the prefix for long ones, links and all: Wine doesn't tell the true one of a long path.
    Folder(HeldFolder folder, std::wstring given) : m_folder(std::move(folder)), m_path(m_folder.GetPath())
    {
        if (m_path.empty())
        {
            m_path = std::move(given);
        }
        if (m_path.ends_with(L'\\')) // a root
        {
            m_path.pop_back();
        }
    }

    std::unique_ptr<ConfinedFile> Create(std::vector<std::string> const & names) override
    {
        std::wstring folder = m_path;
        std::vector<HeldFolder> held;
        std::wstring name;
        for (std::size_t i = 0; i < names.size(); ++i)
        {
            name = ToWide(names[i]);
            if (!IsName(name))
            {
                return Refuse(ERROR_INVALID_NAME);
            }
            if (i + 1 == names.size())
            {
                break;
            }
            folder += L'\\' + name;
            if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
            {
                return nullptr;
            }
            held.emplace_back(folder, HeldFolder::Links::Open);
            if (!held.back().IsReal())
            {
                return Refuse(ERROR_CANT_ACCESS_FILE);
            }
        }
        if (names.empty())
        {
            return Refuse(ERROR_INVALID_NAME);
        }
        std::wstring path = folder + L'\\' + name;
        DWORD const nFound = GetFileAttributesW(path.c_str());
        if (nFound != INVALID_FILE_ATTRIBUTES && nFound & FILE_ATTRIBUTE_DIRECTORY)
        {
            return Refuse(ERROR_DIRECTORY);
        }
        static std::atomic<unsigned> s_nNext;
        std::wstring temporary;
        HANDLE hFile = INVALID_HANDLE_VALUE;
        do
        {
            temporary =
                folder + L"\\.kvx-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(s_nNext++);
            hFile = CreateNew(temporary);
        } while (hFile == INVALID_HANDLE_VALUE && GetLastError() == ERROR_FILE_EXISTS);
        if (hFile == INVALID_HANDLE_VALUE)
        {
            return nullptr;
        }
        // An empty folder can become a link while it is held; with this file in it, no longer.
        bool const bInside = IsInside(HeldFolder::GetPath(hFile), held);
        auto file = std::make_unique<File>(std::move(temporary), std::move(path), hFile, std::move(held));
        if (!bInside)
        {
            return Refuse(ERROR_CANT_ACCESS_FILE);
        }
        return file;
    }

private:
    HeldFolder m_folder;
    std::wstring m_path; // without a separator at its end

    /// Wine doesn't tell long paths: there the folders have to do.
    bool IsInside(std::wstring_view place, std::vector<HeldFolder> const & held) const
    {
        return place.empty() ? std::ranges::all_of(held, &HeldFolder::IsReal)
                             : place.size() > m_path.size() && place[m_path.size()] == L'\\' &&
                                   IsSameText(place.substr(0, m_path.size()), m_path);
    }

    static std::unique_ptr<ConfinedFile> Refuse(DWORD error)
    {
        SetLastError(error);
        return nullptr;
    }
};

} // namespace

std::unique_ptr<ConfinedFolder> ConfinedFolder::Open(std::string const & path)
{
    std::wstring full = windows::GetFullPath(ToWide(path));
    if (full.empty())
    {
        return nullptr;
    }
    full = windows::AddLongPrefix(full);
    for (std::size_t nEnd = full.find(L'\\', 4);; nEnd = full.find(L'\\', nEnd + 1))
    {
        CreateDirectoryW(full.substr(0, nEnd).c_str(), nullptr);
        if (nEnd == full.npos)
        {
            break;
        }
    }
    DWORD const nAttributes = GetFileAttributesW(full.c_str());
    if (nAttributes == INVALID_FILE_ATTRIBUTES)
    {
        return nullptr;
    }
    if (!(nAttributes & FILE_ATTRIBUTE_DIRECTORY))
    {
        SetLastError(ERROR_DIRECTORY);
        return nullptr;
    }
    HeldFolder folder(full, HeldFolder::Links::Follow);
    return folder.IsOpen() ? std::make_unique<Folder>(std::move(folder), std::move(full)) : nullptr;
}

bool IsProgram(std::string const &)
{
    return false;
}

} // namespace kvx
