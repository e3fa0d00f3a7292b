#include "kvx/platform/win32/windows.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/time.h"
#include "kvx/platform/win32/upcase.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

using namespace kvx::win32;

namespace
{

constexpr LONG ERROR_INVALID_INDEX = 1413;
constexpr LONG ERROR_NOT_ENOUGH_QUOTA = 1816;

constexpr std::size_t MAX_POSTED = 10000;
constexpr DWORD LOOK_INTERVAL = 500; // milliseconds: how often a sender makes sure that the other thread is alive

/// Guards all queues: messages between threads are few, and a lock of each queue's own would need an order.
constinit std::mutex g_queueLock;

struct MessageQueue;

struct SentMessage
{
    MSG message;
    std::shared_ptr<MessageQueue> sender;
    LRESULT result = 0;
    bool bDone = false;
    bool bFailed = false;
};

/// What waits for a thread.
struct MessageQueue
{
    MessageQueue() : dwThread(GetCurrentThreadId()), hArrival(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}
    MessageQueue(MessageQueue const &) = delete;
    MessageQueue & operator=(MessageQueue const &) = delete;
    ~MessageQueue() { CloseHandle(hArrival); }

    DWORD const dwThread;
    HANDLE const hArrival; // something has come, or been answered
    std::deque<std::shared_ptr<SentMessage>> sent;
    std::deque<MSG> posted;
    std::optional<int> quit;
    std::vector<HWND> windows;
    bool bClosed = false;
};

template <class ACTION>
auto WithQueues(ACTION action)
{
    UninterruptedScope const scope;
    std::scoped_lock const guard(g_queueLock);
    return action();
}

void Answer(SentMessage & sent, LRESULT result, bool bFailed)
{
    WithQueues(
        [&]
        {
            sent.result = result;
            sent.bFailed = bFailed;
            sent.bDone = true;
        });
    SetEvent(sent.sender->hArrival);
}

/// The end of a thread: its windows go, and nobody waits for it any more.
struct QueueOwner
{
    std::shared_ptr<MessageQueue> queue;

    ~QueueOwner();
};

thread_local QueueOwner g_queue;

std::shared_ptr<MessageQueue> const & GetOwnQueue()
{
    if (!g_queue.queue)
    {
        g_queue.queue = std::make_shared<MessageQueue>();
    }
    return g_queue.queue;
}

/// A thread that was terminated closes nothing.
bool IsAlive(MessageQueue const & queue)
{
    return syscall(SYS_tgkill, getpid(), static_cast<pid_t>(queue.dwThread), 0) == 0 || errno != ESRCH;
}

class Window final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::Window;

    explicit Window(std::u16string_view text) : KernelObject(KIND), m_strText(text) {}

    bool IsOwnThread() const { return m_queue->dwThread == GetCurrentThreadId(); }
    std::shared_ptr<MessageQueue> const & GetQueue() const { return m_queue; }

    std::atomic<WNDPROC> m_pProcedure{&DefWindowProcW};
    std::atomic<LONG_PTR> m_userData{0};

    void SetText(std::u16string_view text)
    {
        std::u16string strText(text);
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        m_strText.swap(strText);
    }

    int CopyText(LPWSTR pszBuffer, int nChars)
    {
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        std::size_t const nCopied = std::min(m_strText.size(), static_cast<std::size_t>(nChars - 1));
        std::copy_n(m_strText.data(), nCopied, pszBuffer);
        pszBuffer[nCopied] = 0;
        return static_cast<int>(nCopied);
    }

    int GetLength()
    {
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        return static_cast<int>(std::min<std::size_t>(m_strText.size(), INT_MAX));
    }

private:
    std::shared_ptr<MessageQueue> const m_queue = GetOwnQueue();
    std::mutex m_mutex;
    std::u16string m_strText;
};

Ref<Window> FindWindowObject(HWND hWnd)
{
    Ref<Window> window = FindObject<Window>(reinterpret_cast<HANDLE>(hWnd));
    if (!window)
    {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    }
    return window;
}

std::u16string_view TextOf(LPCWSTR pszText)
{
    return pszText ? pszText : u"";
}

LRESULT CallProcedure(Window const & window, HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam)
{
    return window.m_pProcedure.load()(hWnd, nMessage, wParam, lParam);
}

QueueOwner::~QueueOwner()
{
    if (!queue)
    {
        return;
    }
    std::deque<std::shared_ptr<SentMessage>> sent;
    std::vector<HWND> windows;
    WithQueues(
        [&]
        {
            queue->bClosed = true;
            sent.swap(queue->sent);
            windows.swap(queue->windows);
        });
    for (HWND const hWnd : windows)
    {
        CloseObject(reinterpret_cast<HANDLE>(hWnd), &IsOfKind<Window>);
    }
    for (std::shared_ptr<SentMessage> const & each : sent)
    {
        Answer(*each, 0, true);
    }
}

/// Handles what other threads have sent to this one.
void HandleSent(MessageQueue & queue)
{
    for (;;)
    {
        std::shared_ptr<SentMessage> sent;
        WithQueues(
            [&]
            {
                if (!queue.sent.empty())
                {
                    sent = std::move(queue.sent.front());
                    queue.sent.pop_front();
                }
            });
        if (!sent)
        {
            return;
        }
        MSG const & message = sent->message;
        Ref<Window> const window = FindWindowObject(message.hwnd);
        LRESULT const result =
            window ? CallProcedure(*window, message.hwnd, message.message, message.wParam, message.lParam) : 0;
        Answer(*sent, result, !window);
    }
}

/// The next posted message, WM_QUIT behind all others.
std::optional<MSG> TakePosted(MessageQueue & queue, bool bRemove)
{
    return WithQueues(
        [&]() -> std::optional<MSG>
        {
            if (!queue.posted.empty())
            {
                MSG const message = queue.posted.front();
                if (bRemove)
                {
                    queue.posted.pop_front();
                }
                return message;
            }
            if (!queue.quit)
            {
                return std::nullopt;
            }
            MSG const message = {nullptr, WM_QUIT, static_cast<WPARAM>(*queue.quit), 0, GetTickCount(), {}};
            if (bRemove)
            {
                queue.quit.reset();
            }
            return message;
        });
}

bool IsUnfiltered(MSG * pMessage, HWND hWnd, UINT nFirst, UINT nLast)
{
    if (pMessage && !hWnd && nFirst == 0 && nLast == 0)
    {
        return true;
    }
    SetLastError(pMessage ? ERROR_NOT_SUPPORTED : ERROR_INVALID_PARAMETER);
    return false;
}

} // namespace

HWND CreateWindowExW(DWORD, LPCWSTR pszClass, LPCWSTR pszName, DWORD, int, int, int, int, HWND hParent, HMENU,
                     HINSTANCE, LPVOID)
{
    if (!pszClass || hParent != HWND_MESSAGE)
    {
        SetLastError(pszClass ? ERROR_NOT_SUPPORTED : ERROR_CANNOT_FIND_WND_CLASS);
        return nullptr;
    }
    HWND const hWnd = reinterpret_cast<HWND>(OpenHandle(Ref<Window>(new Window(TextOf(pszName)))));
    if (hWnd)
    {
        WithQueues([hWnd] { g_queue.queue->windows.push_back(hWnd); });
    }
    return hWnd;
}

BOOL DestroyWindow(HWND hWnd)
{
    Ref<Window> const window = FindWindowObject(hWnd);
    if (!window)
    {
        return FALSE;
    }
    if (!window->IsOwnThread())
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    CallProcedure(*window, hWnd, WM_DESTROY, 0, 0);
    CallProcedure(*window, hWnd, WM_NCDESTROY, 0, 0);
    WithQueues([&] { std::erase(window->GetQueue()->windows, hWnd); });
    return CloseObject(reinterpret_cast<HANDLE>(hWnd), &IsOfKind<Window>);
}

BOOL IsWindow(HWND hWnd)
{
    return static_cast<bool>(FindWindowObject(hWnd));
}

BOOL SetWindowTextW(HWND hWnd, LPCWSTR pszText)
{
    Ref<Window> const window = FindWindowObject(hWnd);
    if (!window)
    {
        return FALSE;
    }
    window->SetText(TextOf(pszText));
    return TRUE;
}

int GetWindowTextW(HWND hWnd, LPWSTR pszBuffer, int nChars)
{
    Ref<Window> const window = FindWindowObject(hWnd);
    if (!window)
    {
        return 0;
    }
    if (!pszBuffer || nChars <= 0)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return window->CopyText(pszBuffer, nChars);
}

int GetWindowTextLengthW(HWND hWnd)
{
    Ref<Window> const window = FindWindowObject(hWnd);
    return window ? window->GetLength() : 0;
}

LONG_PTR SetWindowLongPtrW(HWND hWnd, int nIndex, LONG_PTR value)
{
    Ref<Window> const window = FindWindowObject(hWnd);
    if (!window)
    {
        return 0;
    }
    SetLastError(ERROR_SUCCESS);
    switch (nIndex)
    {
    case GWLP_WNDPROC:
        return reinterpret_cast<LONG_PTR>(window->m_pProcedure.exchange(reinterpret_cast<WNDPROC>(value)));
    case GWLP_USERDATA:
        return window->m_userData.exchange(value);
    default:
        SetLastError(ERROR_INVALID_INDEX);
        return 0;
    }
}

LONG_PTR GetWindowLongPtrW(HWND hWnd, int nIndex)
{
    Ref<Window> const window = FindWindowObject(hWnd);
    if (!window)
    {
        return 0;
    }
    SetLastError(nIndex == GWLP_WNDPROC || nIndex == GWLP_USERDATA ? ERROR_SUCCESS : ERROR_INVALID_INDEX);
    return nIndex == GWLP_WNDPROC    ? reinterpret_cast<LONG_PTR>(window->m_pProcedure.load())
           : nIndex == GWLP_USERDATA ? window->m_userData.load()
                                     : 0;
}

LRESULT DefWindowProcW(HWND, UINT, WPARAM, LPARAM)
{
    return 0;
}

LRESULT CallWindowProcW(WNDPROC pProcedure, HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam)
{
    return pProcedure ? pProcedure(hWnd, nMessage, wParam, lParam) : 0;
}

UINT RegisterWindowMessageW(LPCWSTR pszText)
{
    constexpr std::size_t FIRST = 0xC000;
    constexpr std::size_t MAXIMUM = 0x4000;
    if (!pszText || !*pszText)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    static std::vector<std::u16string> & texts = *new std::vector<std::u16string>;
    return WithQueues(
        [&]() -> UINT
        {
            auto const it =
                std::ranges::find_if(texts, [&](std::u16string const & text) { return IsSameName(text, pszText); });
            std::size_t const nIndex = static_cast<std::size_t>(it - texts.begin());
            if (nIndex >= MAXIMUM)
            {
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return 0;
            }
            if (it == texts.end())
            {
                texts.emplace_back(pszText);
            }
            return static_cast<UINT>(FIRST + nIndex);
        });
}

LRESULT SendMessageW(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam)
{
    Ref<Window> window = FindWindowObject(hWnd);
    if (!window)
    {
        return 0;
    }
    if (window->IsOwnThread())
    {
        return CallProcedure(*window, hWnd, nMessage, wParam, lParam);
    }

    std::shared_ptr<MessageQueue> const receiver = window->GetQueue();
    window = nullptr;
    std::shared_ptr<MessageQueue> const own = GetOwnQueue();
    auto const sent = std::make_shared<SentMessage>(
        SentMessage{.message = {hWnd, nMessage, wParam, lParam, GetTickCount(), {}}, .sender = own});
    bool const bSent = WithQueues(
        [&]
        {
            if (!receiver->bClosed)
            {
                receiver->sent.push_back(sent);
            }
            return !receiver->bClosed;
        });
    if (bSent)
    {
        SetEvent(receiver->hArrival);
    }
    else
    {
        Answer(*sent, 0, true);
    }
    while (!WithQueues([&] { return sent->bDone; }))
    {
        HandleSent(*own);
        if (WaitForSingleObject(own->hArrival, LOOK_INTERVAL) == WAIT_TIMEOUT && !IsAlive(*receiver))
        {
            Answer(*sent, 0, true);
        }
    }
    // The event may have stood for more than this answer.
    SetEvent(own->hArrival);
    if (sent->bFailed)
    {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    }
    return sent->result;
}

BOOL PostMessageW(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam)
{
    std::shared_ptr<MessageQueue> receiver;
    if (!hWnd)
    {
        receiver = GetOwnQueue();
    }
    else if (Ref<Window> const window = FindWindowObject(hWnd))
    {
        receiver = window->GetQueue();
    }
    else
    {
        return FALSE;
    }
    bool const bPosted = WithQueues(
        [&]
        {
            if (receiver->posted.size() >= MAX_POSTED)
            {
                return false;
            }
            receiver->posted.push_back({hWnd, nMessage, wParam, lParam, GetTickCount(), {}});
            return true;
        });
    if (!bPosted)
    {
        SetLastError(ERROR_NOT_ENOUGH_QUOTA);
        return FALSE;
    }
    SetEvent(receiver->hArrival);
    return TRUE;
}

void PostQuitMessage(int nExitCode)
{
    std::shared_ptr<MessageQueue> const & own = GetOwnQueue();
    WithQueues([&] { own->quit = nExitCode; });
}

BOOL GetMessageW(MSG * pMessage, HWND hWnd, UINT nFirst, UINT nLast)
{
    if (!IsUnfiltered(pMessage, hWnd, nFirst, nLast))
    {
        return -1;
    }
    MessageQueue & own = *GetOwnQueue();
    for (;;)
    {
        HandleSent(own);
        if (std::optional<MSG> const message = TakePosted(own, true))
        {
            *pMessage = *message;
            return message->message != WM_QUIT;
        }
        WaitForSingleObject(own.hArrival, INFINITE);
    }
}

BOOL PeekMessageW(MSG * pMessage, HWND hWnd, UINT nFirst, UINT nLast, UINT nRemove)
{
    if (!IsUnfiltered(pMessage, hWnd, nFirst, nLast))
    {
        return FALSE;
    }
    MessageQueue & own = *GetOwnQueue();
    HandleSent(own);
    std::optional<MSG> const message = TakePosted(own, nRemove & PM_REMOVE);
    if (message)
    {
        *pMessage = *message;
    }
    return message.has_value();
}

LRESULT DispatchMessageW(MSG const * pMessage)
{
    Ref<Window> const window = pMessage && pMessage->hwnd ? FindWindowObject(pMessage->hwnd) : nullptr;
    if (!window || !window->IsOwnThread())
    {
        return 0;
    }
    return CallProcedure(*window, pMessage->hwnd, pMessage->message, pMessage->wParam, pMessage->lParam);
}
