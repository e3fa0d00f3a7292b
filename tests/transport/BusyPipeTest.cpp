#include "kvx/transport/MsgNTPipeConnection.h"
#include "tests/support/Host.h"
#include "tests/support/KeptLog.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// A living server that has no room for one more client: made by the host's own means, for the library's always has.
TEST(BusyPipe, IsTriedFiveTimes)
{
    std::string const folder = host::MakeFolder("kvx-busy");
    host::SetVariable("KVX_RUNTIME_DIR", folder.c_str());
    int const server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string const path = folder + "/pipe.full";
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    auto const * const generic = reinterpret_cast<sockaddr const *>(&address);
    ASSERT_EQ(::bind(server, generic, sizeof(address)) | ::listen(server, 0), 0);
    int const lock = ::open((path + "+lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock whole
    {
    };
    whole.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(lock, F_OFD_SETLK, &whole), 0);
    int const first = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::connect(first, generic, sizeof(address)), 0);
    KeptLog lines;
    CMsgNTPipeConnection client(nullptr, _T("full"), 1);
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_CONNECTED});
    EXPECT_THAT(lines.Take(),
                testing::ElementsAre(testing::EndsWith("Connect retry 1"), testing::EndsWith("Connect retry 2"),
                                     testing::EndsWith("Connect retry 3"), testing::EndsWith("Connect retry 4"),
                                     testing::EndsWith("Connect retry 5"), testing::HasSubstr("] Connection: ")));
    for (int const descriptor : {server, lock, first})
    {
        ::close(descriptor);
    }
    host::SetVariable("KVX_RUNTIME_DIR", nullptr);
    std::filesystem::remove_all(folder);
}
