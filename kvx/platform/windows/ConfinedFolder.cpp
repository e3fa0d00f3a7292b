#include "kvx/platform/ConfinedFolder.h"

#include <atomic>

namespace kvx
{

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

bool IsName(std::string const & name)
{
    return !name.empty() && name != "." && name != ".." && name.find_first_of(std::string("/\\:\0", 4)) == name.npos;
}

bool MakeFolder(std::wstring const & path)
{
    if (!CreateDirectoryW(path.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
        return false;
    DWORD const nAttributes = GetFileAttributesW(path.c_str());
    if (nAttributes == INVALID_FILE_ATTRIBUTES)
        return false;
    if (!(nAttributes & FILE_ATTRIBUTE_DIRECTORY) || nAttributes & FILE_ATTRIBUTE_REPARSE_POINT)
    {
        SetLastError(ERROR_CANT_ACCESS_FILE);
        return false;
    }
    return true;
}

class File : public ConfinedFile
{
public:
    File(std::wstring temporary, std::wstring path, HANDLE hFile)
        : m_temporary(std::move(temporary)), m_path(std::move(path)), m_hFile(hFile)
    {
    }
    ~File() override
    {
        Close();
        if (!m_temporary.empty())
            DeleteFileW(m_temporary.c_str());
    }

    bool Write(std::span<std::uint8_t const> data) override
    {
        DWORD nWritten = 0;
        return WriteFile(m_hFile, data.data(), static_cast<DWORD>(data.size()), &nWritten, nullptr);
    }

    bool Finish(FILETIME const * written, bool isReadOnly, bool) override
    {
        if (written && !SetFileTime(m_hFile, written, nullptr, written))
            return false;
        Close();
        // Else the one that is there could not be replaced.
        SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_NORMAL);
        if (!MoveFileExW(m_temporary.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING))
            return false;
        m_temporary.clear();
        return !isReadOnly || SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_READONLY);
    }

private:
    std::wstring m_temporary; // empty when it is finished
    std::wstring m_path;
    HANDLE m_hFile;

    void Close()
    {
        if (m_hFile != INVALID_HANDLE_VALUE)
            CloseHandle(m_hFile);
        m_hFile = INVALID_HANDLE_VALUE;
    }
};

class Folder : public ConfinedFolder
{
public:
    explicit Folder(std::wstring path) : m_path(std::move(path)) {}

    std::unique_ptr<ConfinedFile> Create(std::vector<std::string> const & names) override
    {
        std::wstring path = m_path;
        for (std::size_t i = 0; i < names.size(); ++i)
        {
            if (!IsName(names[i]))
            {
                SetLastError(ERROR_INVALID_NAME);
                return nullptr;
            }
            path += L'\\' + ToWide(names[i]);
            if (i + 1 < names.size() && !MakeFolder(path))
                return nullptr;
        }
        if (names.empty())
        {
            SetLastError(ERROR_INVALID_NAME);
            return nullptr;
        }
        DWORD const nFound = GetFileAttributesW(path.c_str());
        if (nFound != INVALID_FILE_ATTRIBUTES && nFound & FILE_ATTRIBUTE_DIRECTORY)
        {
            SetLastError(ERROR_DIRECTORY);
            return nullptr;
        }
        static std::atomic<unsigned> s_nNext;
        std::wstring temporary =
            path + L".kvx-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(s_nNext++);
        HANDLE const hFile = CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                         FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
        if (hFile == INVALID_HANDLE_VALUE)
            return nullptr;
        return std::make_unique<File>(std::move(temporary), std::move(path), hFile);
    }

private:
    std::wstring m_path;
};

} // namespace

std::unique_ptr<ConfinedFolder> ConfinedFolder::Open(std::string const & path)
{
    std::wstring const wide = ToWide(path);
    for (std::size_t nEnd = wide.find_first_of(L"\\/", 1);; nEnd = wide.find_first_of(L"\\/", nEnd + 1))
    {
        CreateDirectoryW(wide.substr(0, nEnd).c_str(), nullptr);
        if (nEnd == wide.npos)
            break;
    }
    DWORD const nAttributes = GetFileAttributesW(wide.c_str());
    if (nAttributes == INVALID_FILE_ATTRIBUTES)
        return nullptr;
    if (!(nAttributes & FILE_ATTRIBUTE_DIRECTORY))
    {
        SetLastError(ERROR_DIRECTORY);
        return nullptr;
    }
    return std::make_unique<Folder>(wide);
}

bool IsProgram(std::string const &)
{
    return false;
}

} // namespace kvx
