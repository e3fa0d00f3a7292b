#include "Host.h"
#include "OneHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <stdexcept>

#include <winsock2.h>

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>
#include <winternl.h>

namespace fs = std::filesystem;

namespace
{
std::wstring ToWide(std::string_view text)
{
    std::wstring wide(text.size(), 0);
    int const length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                                           static_cast<int>(wide.size()));
    wide.resize(static_cast<std::size_t>(length));
    return wide;
}

std::string ToUtf8(std::wstring_view text)
{
    std::string narrow(text.size() * 3, 0);
    int const length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(),
                                           static_cast<int>(narrow.size()), nullptr, nullptr);
    narrow.resize(static_cast<std::size_t>(length));
    return narrow;
}

std::string ToName(fs::path const & path)
{
    return ToUtf8(path.generic_wstring());
}

std::string ReadToEnd(HANDLE file)
{
    std::string text;
    std::array<char, 65536> buffer{};
    for (DWORD got = 0; ReadFile(file, buffer.data(), buffer.size(), &got, nullptr) && got > 0;)
    {
        text.append(buffer.data(), got);
    }
    return text;
}

/// As the C library of the other side takes it apart.
std::wstring Quote(std::string const & word)
{
    if (!word.empty() && word.find_first_of(" \t\n\v\"") == std::string::npos)
    {
        return ToWide(word);
    }
    std::string quoted = "\"";
    std::size_t backslashes = 0;
    for (char const c : word)
    {
        if (c == '"')
        {
            quoted.append(backslashes + 1, '\\');
        }
        backslashes = c == '\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    return ToWide(quoted.append(backslashes, '\\') + "\"");
}

/// The block of this process's variables, with these in place of their namesakes.
std::wstring GetEnvironment(host::Process::Variables const & own)
{
    std::wstring block;
    for (auto const & [name, value] : own)
    {
        block += ToWide(std::string(name) + "=" + value) + L'\0';
    }
    wchar_t * const all = GetEnvironmentStringsW();
    for (wchar_t const * one = all; *one; one += wcslen(one) + 1)
    {
        std::wstring const name(one, wcscspn(one + 1, L"=") + 1);
        if (std::none_of(own.begin(), own.end(),
                         [&](auto const & variable)
                         { return _wcsicmp(name.c_str(), ToWide(variable.first).c_str()) == 0; }))
        {
            block += std::wstring(one) + L'\0';
        }
    }
    FreeEnvironmentStringsW(all);
    return block + L'\0';
}

/// At the console of a child, which each has for itself: such a key is for all who share one, this process too while it
/// does.
void PressKey(DWORD key, DWORD process)
{
    static std::mutex s_lock;
    std::scoped_lock const guard(s_lock);
    FreeConsole();
    for (int i = 0; i < 500 && !AttachConsole(process); ++i) // until it has one
    {
        Sleep(20);
    }
    SetConsoleCtrlHandler([](DWORD) { return TRUE; }, TRUE);
    EXPECT_TRUE(GenerateConsoleCtrlEvent(key, 0));
    FreeConsole();
}

template <class CALL>
CALL GetNtCall(char const * name)
{
    return reinterpret_cast<CALL>(reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name)));
}

template <class ACTION>
void VisitSystemProcesses(ACTION const & action)
{
    static auto * const s_query = GetNtCall<decltype(&NtQuerySystemInformation)>("NtQuerySystemInformation");
    constexpr LONG TOO_SMALL = static_cast<LONG>(0xC0000004);
    std::vector<std::byte> room(1 << 16);
    for (ULONG needed = 0;
         s_query(SystemProcessInformation, room.data(), static_cast<ULONG>(room.size()), &needed) == TOO_SMALL;)
    {
        room.resize(2 * room.size());
    }
    for (std::byte const * at = room.data();;)
    {
        auto const & process = *reinterpret_cast<SYSTEM_PROCESS_INFORMATION const *>(at);
        action(process);
        if (process.NextEntryOffset == 0)
        {
            return;
        }
        at += process.NextEntryOffset;
    }
}
} // namespace

namespace host
{
bool IsWindows()
{
    return true;
}

bool IsWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

std::string MakeFolder(std::string const & name)
{
    static std::atomic<int> s_nNext = 0;
    fs::path folder;
    do
    {
        folder = fs::temp_directory_path() /
                 ToWide(name + "-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++s_nNext));
    } while (!fs::create_directory(folder));
    return ToName(folder);
}

std::string TakeHome(std::string const & folder)
{
    fs::create_directories(ToPath(folder + "/tmp"));
    SetVariable("PATHEXT", nullptr);
    SetVariable("TMP", (folder + "/tmp").c_str());
    SetVariable("TEMP", (folder + "/tmp").c_str());
    std::wstring const path = ToWide(folder + "/bin;;") + _wgetenv(L"PATH");
    SetVariable("PATH", ToUtf8(path).c_str());
    return "C:";
}

bool MakeLink(std::string const & target, std::string const & link, bool bFolder)
{
    // It takes a privilege or the mode for developers; Wine says that it had made one.
    return CreateSymbolicLinkW(ToWide(link).c_str(), ToPath(target).make_preferred().c_str(),
                               SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE | (bFolder ? 1U : 0U)) &&
           GetFileAttributesW(ToWide(link).c_str()) != INVALID_FILE_ATTRIBUTES;
}

void SetVariable(char const * name, char const * value)
{
    _wputenv_s(ToWide(name).c_str(), ToWide(value ? value : "").c_str());
}

std::string GetProgram()
{
    std::array<wchar_t, 32768> path{};
    return ToName(std::wstring(path.data(), GetModuleFileNameW(nullptr, path.data(), path.size())));
}

std::string GetModuleFile(std::string const & target)
{
    return target + ".dll";
}

bool IsMapped(std::string const & file)
{
    return GetModuleHandleW(ToWide(file).c_str()) != nullptr;
}

bool AllowThreads(bool bAllow)
{
    return bAllow;
}

void SpoilFreedMemory(bool) {}

void UseOneHeap() {} // they do

void MakeDeepFolder(std::string const & folder, std::string const & name, int depth)
{
    std::wstring path = L"\\\\?\\" + ToWide(folder);
    std::replace(path.begin(), path.end(), L'/', L'\\');
    for (int i = 0; i < depth; ++i)
    {
        path += L"\\" + ToWide(name);
        EXPECT_TRUE(CreateDirectoryW(path.c_str(), nullptr)) << i;
    }
    CloseHandle(CreateFileW((path + L"\\leaf").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
}

std::size_t CountHandles()
{
    // GetProcessHandleCount is always 0 under Wine; this is where Windows has it from.
    std::size_t count = 0;
    VisitSystemProcesses(
        [&](SYSTEM_PROCESS_INFORMATION const & process)
        {
            if (process.UniqueProcessId == UlongToHandle(GetCurrentProcessId()))
            {
                count = process.HandleCount;
            }
        });
    return count;
}

std::size_t CountThreads()
{
    HANDLE const all = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    std::size_t count = 0;
    for (BOOL more = Thread32First(all, &entry); more; more = Thread32Next(all, &entry))
    {
        count += entry.th32OwnerProcessID == GetCurrentProcessId();
    }
    CloseHandle(all);
    return count;
}

void WaitUntilAsleep(std::vector<unsigned long> const &)
{
    Sleep(100); // Wine tells no states of threads
}

struct Process::Parts
{
    HANDLE hProcess = nullptr;
    DWORD nId = 0;
    HANDLE hOut = nullptr;
    HANDLE hErr = nullptr;
};

Process::Process(Strings const & words, Stdout kind, Variables const & variables, std::string const & input, End end)
    : m_parts(std::make_unique<Parts>())
{
    SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
    HANDLE out = nullptr;
    if (kind == Stdout::Terminal || kind == Stdout::Full || !CreatePipe(&m_parts->hOut, &out, &inherited, 0))
    {
        throw std::runtime_error("no such stdout here");
    }
    SetHandleInformation(m_parts->hOut, HANDLE_FLAG_INHERIT, 0);
    if (kind == Stdout::Abandoned)
    {
        CloseHandle(std::exchange(m_parts->hOut, nullptr));
    }
    if (kind == Stdout::Closed)
    {
        CloseHandle(std::exchange(out, nullptr));
    }
    // A file of which the two have places of their own.
    fs::path const name =
        fs::temp_directory_path() / ToWide("stderr-" + std::to_string(reinterpret_cast<std::uintptr_t>(this)) + "-" +
                                           std::to_string(GetCurrentProcessId()));
    constexpr DWORD SHARED = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    HANDLE const err = CreateFileW(name.c_str(), FILE_APPEND_DATA | SYNCHRONIZE, SHARED, &inherited, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr);
    m_parts->hErr = CreateFileW(name.c_str(), GENERIC_READ | DELETE, SHARED, nullptr, OPEN_EXISTING,
                                FILE_FLAG_DELETE_ON_CLOSE, nullptr);

    std::wstring line;
    for (std::string const & word : words)
    {
        line += (line.empty() ? L"" : L" ") + Quote(word);
    }
    // Only its own streams are the child's, whatever else may be inherited, by other children.
    HANDLE const in = input.empty() ? nullptr
                                    : CreateFileW(ToWide(input).c_str(), GENERIC_READ, SHARED, &inherited,
                                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    std::vector<HANDLE> handles{err, out, in};
    std::erase(handles, nullptr);
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<std::byte> attributes(size);
    STARTUPINFOEXW startup{};
    startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attributes.data());
    InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size);
    UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles.data(),
                              handles.size() * sizeof(HANDLE), nullptr, nullptr);
    startup.StartupInfo.cb = sizeof(startup);
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = in;
    startup.StartupInfo.hStdOutput = out;
    startup.StartupInfo.hStdError = err;
    std::wstring environment = GetEnvironment(variables);
    PROCESS_INFORMATION process{};
    BOOL started = FALSE;
    DWORD error = 0;
    // Wine on a busy machine failed to start one of some thousand processes, without cause (2026-11-22).
    for (int i = 0; !started && i < (IsWine() ? 3 : 1); ++i)
    {
        started = CreateProcessW(ToWide(words.at(0)).c_str(), line.data(), nullptr, nullptr, TRUE,
                                 CREATE_UNICODE_ENVIRONMENT | (end == End::Any ? CREATE_NO_WINDOW : DETACHED_PROCESS) |
                                     EXTENDED_STARTUPINFO_PRESENT,
                                 environment.data(), nullptr, &startup.StartupInfo, &process);
        if (!started)
        {
            error = GetLastError();
            std::fprintf(stderr, "start of %s failed: %lu\n", words.at(0).c_str(), error);
            Sleep(500);
        }
    }
    DeleteProcThreadAttributeList(startup.lpAttributeList);
    for (HANDLE const handle : handles)
    {
        CloseHandle(handle);
    }
    if (!started)
    {
        CloseHandle(m_parts->hErr);
        CloseHandle(m_parts->hOut);
        throw std::runtime_error("cannot start " + words.at(0) + ": " + std::to_string(error));
    }
    CloseHandle(process.hThread);
    m_parts->hProcess = process.hProcess;
    m_parts->nId = process.dwProcessId;
}

Process::~Process()
{
    Kill();
    CloseHandle(m_parts->hOut);
    CloseHandle(m_parts->hErr);
}

bool Process::TakeLine(std::string & line) const
{
    line.clear();
    DWORD got = 0;
    for (char c = 0; ReadFile(m_parts->hOut, &c, 1, &got, nullptr) && got == 1;)
    {
        if (c == '\n')
        {
            line.resize(line.size() - line.ends_with('\r'));
            return true;
        }
        line += c;
    }
    return false;
}

std::string Process::PeekErr() const
{
    LARGE_INTEGER start{};
    SetFilePointerEx(m_parts->hErr, start, nullptr, FILE_BEGIN);
    return ReadToEnd(m_parts->hErr);
}

bool Process::HasEnded() const
{
    return WaitForSingleObject(m_parts->hProcess, 0) == WAIT_OBJECT_0;
}

int Process::Wait()
{
    strOut = ReadToEnd(m_parts->hOut);
    DWORD status = 0;
    WaitForSingleObject(m_parts->hProcess, INFINITE);
    GetExitCodeProcess(m_parts->hProcess, &status);
    CloseHandle(std::exchange(m_parts->hProcess, nullptr));
    strErr = PeekErr();
    return static_cast<int>(status);
}

void Process::Interrupt() const
{
    PressKey(CTRL_C_EVENT, m_parts->nId);
}

void Process::Terminate() const
{
    // Wine has no Ctrl+Break: tests/wine, NoCtrlBreak (2026-11-22).
    PressKey(IsWine() ? CTRL_C_EVENT : CTRL_BREAK_EVENT, m_parts->nId);
}

int Process::Kill()
{
    constexpr int KILLED = -9;
    if (!m_parts->hProcess)
    {
        return 0;
    }
    TerminateProcess(m_parts->hProcess, static_cast<UINT>(KILLED));
    return Wait();
}

void Process::Stop() const
{
    GetNtCall<LONG(NTAPI *)(HANDLE)>("NtSuspendProcess")(m_parts->hProcess);
}

void Process::Continue() const
{
    GetNtCall<LONG(NTAPI *)(HANDLE)>("NtResumeProcess")(m_parts->hProcess);
}

unsigned long Process::GetId() const
{
    return m_parts->nId;
}

long Process::GetMemory() const
{
    PROCESS_MEMORY_COUNTERS counters{};
    EXPECT_TRUE(GetProcessMemoryInfo(m_parts->hProcess, &counters, sizeof(counters)));
    return static_cast<long>(counters.WorkingSetSize >> 20);
}

RawClient::RawClient(int port)
{
    static int const s_nStarted = []
    {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data);
    }();
    EXPECT_EQ(s_nStarted, 0);
    SOCKET const socket = ::socket(AF_INET, SOCK_STREAM, 0);
    m_nSocket = static_cast<std::intptr_t>(socket);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    DWORD const patience = 10'000;
    int const on = 1;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char const *>(&patience), sizeof(patience));
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char const *>(&on), sizeof(on));
    EXPECT_EQ(connect(socket, reinterpret_cast<sockaddr const *>(&address), sizeof(address)), 0);
}

RawClient::~RawClient()
{
    closesocket(static_cast<SOCKET>(m_nSocket));
}

void RawClient::Send(std::string_view bytes) const
{
    // All are few enough for the socket's buffer; that the server has ended the link meanwhile is one of the cases.
    send(static_cast<SOCKET>(m_nSocket), bytes.data(), static_cast<int>(bytes.size()), 0);
}

void RawClient::EndSending() const
{
    shutdown(static_cast<SOCKET>(m_nSocket), SD_SEND);
}

std::string RawClient::Receive(std::size_t count) const
{
    std::string bytes(count, 0);
    std::size_t size = 0;
    // Wine doesn't wait for all by itself.
    for (int got = 1; size < count && got > 0; size += static_cast<std::size_t>(std::max(got, 0)))
    {
        got = recv(static_cast<SOCKET>(m_nSocket), bytes.data() + size, static_cast<int>(count - size), 0);
    }
    bytes.resize(size);
    return bytes;
}

bool RawClient::IsEnded() const
{
    char c = 0;
    int got = 0;
    while ((got = recv(static_cast<SOCKET>(m_nSocket), &c, 1, 0)) > 0)
    {
    }
    return got == 0 || WSAGetLastError() == WSAECONNRESET || WSAGetLastError() == WSAECONNABORTED;
}
} // namespace host
