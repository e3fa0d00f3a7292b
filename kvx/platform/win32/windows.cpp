#include "kvx/platform/win32/windows.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/termination.h"

#include <algorithm>
#include <climits>
#include <mutex>
#include <string>
#include <thread>

using namespace kvx::win32;

namespace
{

class Window final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::Window;

    explicit Window(std::u16string_view text) : KernelObject(KIND), m_strText(text) {}

    bool IsOwnThread() const { return m_owner == std::this_thread::get_id(); }

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
    std::thread::id const m_owner = std::this_thread::get_id();
    std::mutex m_mutex;
    std::u16string m_strText;
};

Ref<Window> FindWindowObject(HWND hWnd)
{
    Ref<Window> window = FindObject<Window>(reinterpret_cast<HANDLE>(hWnd));
    if (!window)
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return window;
}

std::u16string_view TextOf(LPCWSTR pszText)
{
    return pszText ? pszText : u"";
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
    return reinterpret_cast<HWND>(OpenHandle(Ref<Window>(new Window(TextOf(pszName)))));
}

BOOL DestroyWindow(HWND hWnd)
{
    Ref<Window> const window = FindWindowObject(hWnd);
    if (!window)
        return FALSE;
    if (!window->IsOwnThread())
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
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
        return FALSE;
    window->SetText(TextOf(pszText));
    return TRUE;
}

int GetWindowTextW(HWND hWnd, LPWSTR pszBuffer, int nChars)
{
    Ref<Window> const window = FindWindowObject(hWnd);
    if (!window)
        return 0;
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
