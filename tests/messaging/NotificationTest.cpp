#include "TestProvider.h"
#include "tests/support/KeptLog.h"
#include "tests/support/Patience.h"
#include "tests/support/RunThreads.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

using testing::ElementsAre;

namespace
{
/// Serves "notes" on whatever thread it comes, and keeps what came. It stays to the end of the program: a queue may
/// still be on its way out of the tree when a test has seen all that it waited for.
class Receiver
{
public:
    static Receiver & Fresh()
    {
        static Receiver & s_receiver = *new Receiver;
        std::scoped_lock const guard(s_receiver.m_lock);
        s_receiver.m_seen.clear();
        s_receiver.m_nMost = 0;
        return s_receiver;
    }
    Receiver(Receiver const &) = delete;
    Receiver & operator=(Receiver const &) = delete;

    static void Send(int number, LPCTSTR queue)
    {
        CMsgRequest request;
        request[_T("n")] = number;
        request.SetNotifyQueueName(queue);
        EXPECT_TRUE(request.Notify(_T("notes")));
        EXPECT_TRUE(request.DiscardResults());
        request[_T("n")] = -1; // the queue has a copy
    }
    std::vector<int> WaitFor(std::size_t count)
    {
        for (DWORD waited = 0; waited < PATIENCE; ++waited)
        {
            m_served.Lock(1);
            std::scoped_lock const guard(m_lock);
            if (m_seen.size() >= count)
            {
                break;
            }
        }
        std::scoped_lock const guard(m_lock);
        return m_seen;
    }
    int Inside() const { return m_nInside; }
    int Most() const { return m_nMost; }

    CEvent m_go{TRUE, TRUE};

private:
    Receiver()
    {
        Dispatcher().RegisterProvider(
            _T("notes"), [](CMsgRequest & request, void * self) { static_cast<Receiver *>(self)->Serve(request); },
            this);
    }

    void Serve(CMsgRequest & request)
    {
        {
            std::scoped_lock const guard(m_lock);
            m_nMost = std::max<int>(m_nMost, ++m_nInside);
        }
        m_go.Lock(PATIENCE);
        int const number = request[_T("n")].ToInteger();
        {
            std::scoped_lock const guard(m_lock);
            m_seen.push_back(request.DiscardResults() && !request.GetConnection() ? number : -2);
            --m_nInside;
        }
        m_served.SetEvent();
        if (number > 100 && number % 7 == 3)
        {
            throw number;
        }
    }

    std::mutex m_lock;
    std::vector<int> m_seen;
    std::atomic<int> m_nInside{0};
    std::atomic<int> m_nMost{0};
    CEvent m_served;
};

std::vector<int> Numbers(int count)
{
    std::vector<int> numbers(static_cast<std::size_t>(count));
    std::ranges::generate(numbers, [i = 0]() mutable { return i++; });
    return numbers;
}
} // namespace

TEST(Notification, NamedQueuesServeInOrderAndTheCommonOneThreeAtOnce)
{
    for (int const most : {2, 3})
    {
        KeptLog log;
        Receiver & receiver = Receiver::Fresh();
        receiver.m_go.ResetEvent();
        for (int i = 0; i < 300; ++i)
        {
            Receiver::Send(i, most == 2 ? _T("test") : _T(""));
        }
        if (most == 2)
        {
            Receiver::Send(300, _T("Test")); // another queue: names are exact
        }
        while (receiver.Inside() < most)
        {
            std::this_thread::yield();
        }
        receiver.m_go.SetEvent();
        std::vector<int> seen = receiver.WaitFor(most == 2 ? 301 : 300);
        if (most == 2)
        {
            EXPECT_EQ(std::erase(seen, 300), 1u);
        }
        else
        {
            std::ranges::sort(seen);
        }
        EXPECT_EQ(seen, Numbers(300));
        EXPECT_EQ(receiver.Most(), most);
    }
}

TEST(Notification, ThreadsThatNameAQueueFirstShareIt)
{
    for (int round = 0; round < 20; ++round)
    {
        KeptLog log;
        Receiver & receiver = Receiver::Fresh();
        CString name;
        name.Format(_T("fresh %d"), round);
        receiver.m_go.ResetEvent();
        RunThreads(4, [&](std::size_t t) { Receiver::Send(static_cast<int>(t), name); });
        receiver.m_go.SetEvent();
        ASSERT_EQ(receiver.WaitFor(4).size(), 4u);
        ASSERT_EQ(receiver.Most(), 1);
    }
}

TEST(Notification, DisabledTheyAreDroppedWithoutAWord)
{
    Receiver & receiver = Receiver::Fresh();
    Dispatcher().EnableNotifications(0);
    EXPECT_FALSE(Dispatcher().AreNotificationsEnabled());
    Receiver::Send(1, _T(""));
    Receiver::Send(2, _T("test"));
    Dispatcher().EnableNotifications(1);
    Receiver::Send(4, _T("test"));
    EXPECT_THAT(receiver.WaitFor(1), ElementsAre(4));
}
