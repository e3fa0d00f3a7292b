#pragma once

#include "kvx/platform/host.h"

#include <string>
#include <string_view>

using Wide = std::basic_string<WCHAR>;
using WideView = std::basic_string_view<WCHAR>;

inline Wide ToWide(std::string_view text)
{
    Wide wide(text.size(), 0);
    wide.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                             wide.data(), static_cast<int>(wide.size()))));
    return wide;
}

inline std::string ToNarrow(WideView text)
{
    std::string narrow(3 * text.size(), 0);
    narrow.resize(static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                               narrow.data(), static_cast<int>(narrow.size()), nullptr,
                                                               nullptr)));
    return narrow;
}
