#include "kvx/platform/Terminal.h"
#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/low_descriptors.h"
#include "kvx/platform/win32/modules.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/processes.h"
#include "kvx/platform/win32/profiles.h"
#include "kvx/platform/win32/registry.h"
#include "kvx/platform/win32/sockets.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/system.h"
#include "kvx/platform/win32/threads.h"

#include "tests/support/TestFolder.h"

#include <functional>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kvx::win32;

namespace
{

class LowDescriptors : public TestFolder
{
protected:
    /// Everything that opens something for long; what a step opens stays open for the others.
    std::vector<std::function<bool()>> Openers() const
    {
        auto const sockets = []
        {
            SOCKET const hListener = winsock::socket(winsock::AddressFamilyInet, winsock::SocketStream, 0);
            winsock::SockAddrIn address{};
            address.sin_family = winsock::AddressFamilyInet;
            address.sin_addr.s_addr = winsock::inet_addr("127.0.0.1");
            int nLength = sizeof address;
            auto * const pAddress = reinterpret_cast<winsock::SockAddr *>(&address);
            SOCKET const hClient = winsock::socket(winsock::AddressFamilyInet, winsock::SocketStream, 0);
            return winsock::bind(hListener, pAddress, nLength) == 0 && winsock::listen(hListener, 1) == 0 &&
                   winsock::getsockname(hListener, pAddress, &nLength) == 0 &&
                   winsock::connect(hClient, pAddress, nLength) == 0 &&
                   winsock::accept(hListener, nullptr, nullptr) != INVALID_SOCKET;
        };
        auto const namedPipe = []
        {
            LPCWSTR const pszName = u"\\\\.\\pipe\\low";
            HANDLE const hServer = CreateNamedPipeW(pszName, PIPE_ACCESS_DUPLEX, 0, 2, 0, 0, 0, nullptr);
            HANDLE const hClient =
                CreateFileW(pszName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
            return hClient != INVALID_HANDLE_VALUE &&
                   (ConnectNamedPipe(hServer, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED);
        };
        auto const registry = []
        {
            HKEY hKey = nullptr;
            std::vector<BYTE> const data(100000);
            bool bGood =
                RegCreateKeyExW(HKEY_CURRENT_USER, u"Low", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, nullptr) == 0;
            for (int i = 0; i < 100; ++i) // enough for the log to be written back
            {
                bGood = bGood && RegSetValueExW(hKey, u"v", 0, REG_BINARY, data.data(), 100000) == 0;
            }
            return bGood;
        };
        return {
            [] { return kvx::CatchEndSignals(); },
            [this] {
                return CreateFileW(Path(u"f"), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr) !=
                       INVALID_HANDLE_VALUE;
            },
            [this] { return GetFileAttributesW(Path(u"none")) == INVALID_FILE_ATTRIBUTES; },
            [this]
            {
                WIN32_FIND_DATAW data;
                return FindFirstFileW(Path(u"*"), &data) != INVALID_HANDLE_VALUE;
            },
            sockets,
            namedPipe,
            []
            {
                HANDLE hRead;
                HANDLE hWrite;
                return CreatePipe(&hRead, &hWrite, nullptr, 0) != FALSE;
            },
            [] { return CreateEventW(nullptr, FALSE, FALSE, u"Global\\low") != nullptr; },
            [] { return OpenProcess(SYNCHRONIZE, FALSE, GetCurrentProcessId()) != nullptr; },
            registry,
            [this] { return WritePrivateProfileStringW(u"s", u"k", u"v", Path(u"p.ini")) != FALSE; },
            [] { return MultiByteToWideChar(932, 0, "a", 1, nullptr, 0) == 1; },
            [] { return winsock::gethostbyname("localhost") != nullptr; },
            [] { return LoadLibraryExW(u"libanl.so.1", nullptr, 0) || GetLastError() == ERROR_MOD_NOT_FOUND; },
            []
            {
                MEMORY_BASIC_INFORMATION info{};
                return VirtualQuery(&info, &info, sizeof info) != 0;
            },
        };
    }

    /// Runs all in a process of its own that has closed these streams. 0, or the number of the opener that took one.
    int Run(unsigned nClosed) const
    {
        pid_t const nChild = fork();
        if (nChild == 0)
        {
            setenv("KVX_REGISTRY", Host("registry" + std::to_string(nClosed)).c_str(), 1);
            setenv("KVX_RUNTIME_DIR", Host("run").c_str(), 1);
            std::filesystem::remove(Host("f"));
            auto const isClosed = [&](int nFd) { return (nClosed >> nFd & 1) != 0; };
            for (int nFd = 0; nFd <= 2; ++nFd)
            {
                if (isClosed(nFd))
                {
                    close(nFd);
                }
            }
            int nOpener = 0;
            for (auto const & open : Openers())
            {
                ++nOpener;
                if (!open())
                {
                    _exit(100 + nOpener);
                }
                for (int nFd = 0; nFd <= 2; ++nFd)
                {
                    if (isClosed(nFd) && fcntl(nFd, F_GETFD) >= 0)
                    {
                        _exit(nOpener);
                    }
                }
            }
            _exit(0);
        }
        int nStatus = -1;
        waitpid(nChild, &nStatus, 0);
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    }
};

TEST_F(LowDescriptors, StayTheStandardStreams)
{
    for (unsigned nClosed = 0; nClosed < 8; ++nClosed)
    {
        EXPECT_EQ(Run(nClosed), 0) << "closed: " << nClosed;
    }
}

} // namespace
