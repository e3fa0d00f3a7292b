/// Publishing to a hundred subscribers over TCP, against a loop that writes the same bytes to as many sockets; and what
/// ten of them that stop reading do to the others, where the publisher has a limit.

#include "Harness.h"
#include "Limits.h"
#include "Services.h"

#include "kvx/events/MsgPublisher.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/transport/MsgStream.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{
using namespace bench;

constexpr int SUBSCRIBERS = 100;
constexpr double TARGET = 0.8;

struct Effort
{
    int nRounds;
    int nPublished;
};

constexpr Effort FULL = {24, 200};
constexpr Effort BRIEF = {2, 5};

CMsgPublisher * g_pPublisher = nullptr;

/// The subscribing command: the value "events" of the request.
void Subscribe(CMsgRequest & request, void *)
{
    g_pPublisher->RegisterSubscription(request, request[_T("events")].GetString());
}

CMsgRequest MakeTick(LPCTSTR topic = _T("bench.tick"))
{
    CMsgRequest tick(CMsgRequest::FLAG_DISCARD_RESULTS);
    tick.SetCommand(topic);
    tick.SetParam(_T("number"), 12345);
    tick.SetParam(_T("time"), _T("2024-05-06 07:08:09.123"));
    return tick;
}

Bytes BytesOfTick()
{
    ByteStream stream;
    MakeTick().Write(stream);
    return stream.m_bytes;
}

/// The client's messages on a plain socket.
class PlainStream : public CMsgStream
{
public:
    explicit PlainStream(PlainSocket const & socket) : CMsgStream(1), m_socket(socket) {}
    ~PlainStream() override { DeleteCompact(); }

    int ReadData(void * buffer, DWORD count) override { return m_socket.ReceiveAll(buffer, count); }
    int WriteData(void const * buffer, DWORD count) override
    {
        auto const * const from = static_cast<unsigned char const *>(buffer);
        m_socket.Send({from, from + count});
        return 1;
    }

private:
    PlainSocket const & m_socket;
};

void SubscribeBy(PlainSocket const & socket, std::string const & topic)
{
    std::string tag = "VJOP"; // with compaction
    PlainStream stream(socket);
    CMsgRequest request;
    request.SetCommand(_T("host.subscribe"));
    request.GetParam(_T("events")) = kvx::FromUtf8(topic);
    if (!stream.Write(tag.data(), static_cast<DWORD>(tag.size())) ||
        !stream.Read(tag.data(), static_cast<DWORD>(tag.size())))
    {
        Fail("no handshake");
    }
    stream.EnableCompact();
    if (!request.Write(stream) || !request.GetResponse().Read(stream) || request.GetResponse().Failed())
    {
        Fail("cannot subscribe");
    }
}

/// The other process: a hundred sockets that are drained, and a byte to the publisher each time that as many bytes have
/// come in all. Both measurements have the same readers.
class Readers
{
public:
    explicit Readers(std::size_t total) : m_nTotal(total), m_nEpoll(::epoll_create1(0)) {}

    void Add(int socket)
    {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = socket;
        ::epoll_ctl(m_nEpoll, EPOLL_CTL_ADD, socket, &event);
    }
    void Run()
    {
        Bytes buffer(65536);
        std::array<epoll_event, SUBSCRIBERS> events{};
        std::size_t got = 0;
        for (;;)
        {
            int const count = ::epoll_wait(m_nEpoll, events.data(), SUBSCRIBERS, -1);
            for (int i = 0; i < count; ++i)
            {
                ssize_t const read =
                    ::recv(events[static_cast<std::size_t>(i)].data.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
                if (read == 0)
                {
                    return;
                }
                got += read > 0 ? static_cast<std::size_t>(read) : 0;
            }
            if (got >= m_nTotal)
            {
                got -= m_nTotal;
                SayLine("done");
            }
        }
    }

private:
    std::size_t m_nTotal;
    int m_nEpoll;
};

int RunReaders(Options const & options)
{
    PinTo(options.GetNumber("cpu", -1));
    int const port = options.GetNumber("port", 0);
    int const stopped = options.GetNumber("stopped", 0);
    Readers readers(BytesOfTick().size() * static_cast<std::size_t>(SUBSCRIBERS - stopped) *
                    static_cast<std::size_t>(options.GetNumber("messages", 1)));
    std::vector<PlainSocket> sockets;
    for (int i = 0; i < SUBSCRIBERS; ++i)
    {
        sockets.push_back(PlainSocket::Connect(port));
        if (options.Get("read", "") == "kvx")
        {
            SubscribeBy(sockets.back(), options.Get("topic", "bench.tick"));
        }
        if (i >= stopped)
        {
            readers.Add(sockets.back().GetHandle());
        }
    }
    SayLine("ready");
    std::thread([&] { readers.Run(); }).detach();
    WaitForParent();
    std::_Exit(0);
}

std::vector<std::string> ReadersArguments(char const * kind, int port, int messages)
{
    return {std::string("--read=") + kind, "--cpu=1", "--port=" + std::to_string(port),
            "--messages=" + std::to_string(messages)};
}

/// The sockets of the limit, as the other process connects to them.
class PlainPublisher
{
public:
    PlainPublisher()
        : m_nPort(ServePlain(
              [this](PlainSocket & socket)
              {
                  std::lock_guard const guard(m_mutex);
                  m_sockets.push_back(std::move(socket));
                  m_changed.notify_one();
              }))
    {
    }

    int GetPort() const { return m_nPort; }
    /// `noDelay`: whether the system sends each message at once, or may gather several while one is on its way.
    void WaitForAll(int noDelay)
    {
        std::unique_lock guard(m_mutex);
        m_changed.wait(guard, [this] { return m_sockets.size() == SUBSCRIBERS; });
        for (PlainSocket const & socket : m_sockets)
        {
            ::setsockopt(socket.GetHandle(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
        }
    }
    void Publish(Bytes const & bytes) const
    {
        for (PlainSocket const & socket : m_sockets)
        {
            socket.Send(bytes);
        }
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<PlainSocket> m_sockets;
    int m_nPort;
};

/// Nanoseconds for one delivery, up to the byte that the readers get last.
template <class PUBLISH>
double TimeDeliveries(int published, Child const & readers, PUBLISH const & publish, int reading = SUBSCRIBERS)
{
    auto const start = Clock::now();
    for (int i = 0; i < published; ++i)
    {
        publish();
    }
    readers.ReadLine();
    return Since(start) / (published * reading);
}

void MeasurePublishing(Effort const & effort, int port)
{
    PinAllTo(0);
    CMsgRequest tick = MakeTick();
    Bytes const bytes = BytesOfTick();
    PlainPublisher plain;
    Child const subscribers(ReadersArguments("kvx", port, effort.nPublished));
    Child const readers(ReadersArguments("plain", plain.GetPort(), effort.nPublished));
    subscribers.ReadLine();
    readers.ReadLine();
    // The library leaves the gathering of small messages to the system: so does the limit.
    for (int const noDelay : {0, 1})
    {
        plain.WaitForAll(noDelay);
        Compare(
            {.strName = noDelay ? "  the same, where each send is a packet"
                                : "a delivery to one of 100 subscribers : a send of the same bytes",
             .target = Target::AtLeast,
             .nTarget = noDelay ? 0 : TARGET},
            effort.nRounds, [&] { return TimeDeliveries(effort.nPublished, subscribers, [&] { tick.Send(); }); },
            [&] { return TimeDeliveries(effort.nPublished, readers, [&] { plain.Publish(bytes); }); });
    }
}

/// Two topics with a hundred subscribers each; of one topic's, ten don't read. What waits for them is within the limit.
void MeasureStopped(Effort const & effort, int port)
{
    constexpr int STOPPED = 10;
    PinAllTo(-1);
    g_pPublisher->SetSubscriberLimit(0, ULONGLONG{256} << 20);
    Child const all(ReadersArguments("kvx", port, effort.nPublished));
    std::vector<std::string> arguments = ReadersArguments("kvx", port, effort.nPublished);
    arguments.push_back("--stopped=" + std::to_string(STOPPED));
    arguments.emplace_back("--topic=bench.other");
    Child const some(arguments);
    all.ReadLine();
    some.ReadLine();
    CMsgRequest tick = MakeTick();
    CMsgRequest other = MakeTick(_T("bench.other"));
    // Until the system takes nothing more for those who don't read.
    int const fill = &effort == &BRIEF ? 1 : 150;
    auto const publishOther = [&] { other.Send(); };
    for (int i = 0; i < fill; ++i)
    {
        TimeDeliveries(effort.nPublished, some, publishOther, SUBSCRIBERS - STOPPED);
    }
    double const memory = ResidentMemory(::getpid());
    Compare(
        {.strName = "a delivery while 10 of 100 don't read : while all do", .target = Target::AtMost, .nTarget = 1.25},
        effort.nRounds, [&] { return TimeDeliveries(effort.nPublished, some, publishOther, SUBSCRIBERS - STOPPED); },
        [&] { return TimeDeliveries(effort.nPublished, all, [&] { tick.Send(); }); });
    PrintValue("  growth of the publisher's memory meanwhile", (ResidentMemory(::getpid()) - memory) / 1024, 0, "KiB");
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    if (!options.Get("read", "").empty())
    {
        return RunReaders(options);
    }
    Effort const effort = options.IsBrief() ? BRIEF : FULL;
    g_pPublisher = new CMsgPublisher;
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    dispatcher.RegisterProvider(_T("bench"), g_pPublisher, 0);
    dispatcher.RegisterProvider(_T("host.subscribe"), &Subscribe, nullptr);
    int const port = StartServices();
    if (options.Wants("publish"))
    {
        MeasurePublishing(effort, port);
    }
    if (options.Wants("stopped"))
    {
        MeasureStopped(effort, port);
    }
    dispatcher.DeleteTarget(_T("bench"));
    StopServices();
    return 0;
}
