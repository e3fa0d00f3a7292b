// A process of its own at work on the registry, for the tests: its store can be bad, and it can be killed.

#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/registry.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

namespace
{
constexpr LPCWSTR WORK = _T("Work");

/// Says each number once it is written.
int Fill(std::u16string const & name, unsigned count, std::size_t size)
{
    HKEY hKey = nullptr;
    LONG error = RegCreateKeyExW(HKEY_CURRENT_USER, WORK, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, nullptr);
    std::vector<BYTE> data(size);
    for (unsigned i = 0; i < count && error == 0; ++i)
    {
        std::string const number = std::to_string(i);
        for (std::size_t n = 0; n < size; ++n)
        {
            data[n] = static_cast<BYTE>(i >> 8 * (n % 4));
        }
        error = RegSetValueExW(hKey, (name + kvx::win32::FromUtf8(number)).c_str(), 0, REG_BINARY, data.data(),
                               static_cast<DWORD>(size));
        std::printf("%u\n", i);
        std::fflush(stdout);
    }
    RegCloseKey(hKey);
    return error == 0 ? 0 : 1;
}

/// Says the codes of a few calls.
int Probe()
{
    HKEY hKey = nullptr;
    DWORD number = 7;
    DWORD size = sizeof number;
    LONG const open = RegOpenKeyExW(HKEY_CURRENT_USER, _T(""), 0, KEY_ALL_ACCESS, &hKey);
    LONG const query =
        RegQueryValueExW(HKEY_CURRENT_USER, _T("Number"), nullptr, nullptr, reinterpret_cast<BYTE *>(&number), &size);
    LONG const set = RegSetValueExW(HKEY_CURRENT_USER, _T("Other"), 0, REG_DWORD, reinterpret_cast<BYTE *>(&number), 4);
    LONG const remove = SHDeleteKeyW(HKEY_CURRENT_USER, WORK);
    WCHAR name[256];
    DWORD length = 256;
    LONG const list = RegEnumKeyExW(HKEY_CURRENT_USER, 0, name, &length, nullptr, nullptr, nullptr, nullptr);
    std::printf("open %d query %d=%u set %d remove %d list %d\n", open, query, number, set, remove, list);
    return 0;
}

/// Adds 1 to a number, again and again; whoever else does so must never be lost sight of.
int Watch(unsigned until)
{
    for (DWORD seen = 0; seen < until;)
    {
        DWORD now = 0;
        DWORD size = sizeof now;
        if (RegQueryValueExW(HKEY_CURRENT_USER, _T("Number"), nullptr, nullptr, reinterpret_cast<BYTE *>(&now),
                             &size) != 0)
        {
            return 1;
        }
        if (now < seen)
        {
            return 2;
        }
        seen = now;
    }
    return 0;
}
} // namespace

int main(int argc, char ** argv)
{
    std::vector<std::string> const words(argv + 1, argv + argc);
    if (words.size() == 4 && words[0] == "fill")
    {
        return Fill(kvx::win32::FromUtf8(words[1]), static_cast<unsigned>(std::stoul(words[2])), std::stoul(words[3]));
    }
    if (words.size() == 2 && words[0] == "watch")
    {
        return Watch(static_cast<unsigned>(std::stoul(words[1])));
    }
    if (words.size() == 2 && words[0] == "probe")
    {
        // Root may do anything with a file.
        if (words[1] == "unprivileged" && geteuid() == 0 && setresuid(65534, 65534, 65534) != 0)
        {
            return 3;
        }
        return Probe();
    }
    return 4;
}
