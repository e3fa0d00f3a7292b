#include "FileNames.h"

#include "DisplayText.h"

#include "kvx/platform/Terminal.h"

#include <type_traits>

CString ToFileName(std::string_view name)
{
    CString text;
    while (!name.empty())
    {
        // A piece that comes back as it was is a character.
        std::size_t size = 1;
        CString character;
        for (; size <= 4 && size <= name.size(); ++size)
        {
            character = kvx::FromUtf8(name.substr(0, size));
            if (kvx::ToUtf8(character) == name.substr(0, size))
            {
                break;
            }
        }
        bool const bWhole = size <= 4 && size <= name.size();
        text += bWhole ? character : CString(static_cast<WCHAR>(0xDC00 + static_cast<unsigned char>(name[0])), 1);
        name.remove_prefix(bWhole ? size : 1);
    }
    return text;
}

std::filesystem::path ToPath(std::string_view name)
{
    if constexpr (std::is_same_v<std::filesystem::path::value_type, char>)
    {
        return name;
    }
    else
    {
        return ToFileName(name).GetString();
    }
}

std::string FromPath(std::filesystem::path const & path)
{
    if constexpr (std::is_same_v<std::filesystem::path::value_type, char>)
    {
        return path.string();
    }
    else
    {
        return kvx::ToUtf8(path.generic_string<WCHAR>());
    }
}

std::string ShowName(std::string const & text)
{
    static bool const s_bTerminal = kvx::IsTerminal(kvx::StandardStream::Output);
    return s_bTerminal ? ToDisplay(ToFileName(text)).strText : text;
}

bool IsUtf8(std::string_view text)
{
    return text.empty() || MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                               static_cast<int>(text.size()), nullptr, 0) > 0;
}

bool MatchesPattern(std::string_view name, std::string_view pattern)
{
    // Where the last star was, and the part of the name that it stands for so far: only that one need grow.
    std::size_t star = pattern.npos;
    std::size_t taken = 0;
    std::size_t n = 0;
    std::size_t p = 0;
    while (n < name.size())
    {
        if (p < pattern.size() && pattern[p] == '*')
        {
            star = p++;
            taken = n;
        }
        else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n]))
        {
            ++p;
            ++n;
        }
        else if (star != pattern.npos)
        {
            p = star + 1;
            n = ++taken;
        }
        else
        {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == pattern.npos;
}
