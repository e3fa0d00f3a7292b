#include "kvx/platform/win32/registry/names.h"

#include "kvx/platform/win32/errors.h"

#include <algorithm>
#include <cstring>

namespace kvx::win32::registry
{

std::optional<std::u16string> ToName(std::string_view bytes, std::size_t nLongest)
{
    if (bytes.size() % 2 != 0 || bytes.size() / 2 > nLongest)
    {
        return {};
    }
    std::u16string strName(bytes.size() / 2, u'\0');
    if (!bytes.empty())
    {
        std::memcpy(strName.data(), bytes.data(), bytes.size());
    }
    return strName;
}

LONG SplitPath(Name path, std::vector<Name> & names)
{
    if (path.starts_with(u'\\'))
    {
        return ERROR_BAD_PATHNAME;
    }
    while (!path.empty())
    {
        std::size_t const nEnd = std::min(path.find(u'\\'), path.size());
        if (nEnd > MAX_KEY_NAME)
        {
            return ERROR_INVALID_PARAMETER;
        }
        if (nEnd > 0)
        {
            names.push_back(path.substr(0, nEnd));
        }
        if (names.size() > MAX_KEY_DEPTH)
        {
            return ERROR_INVALID_PARAMETER;
        }
        path.remove_prefix(std::min(nEnd + 1, path.size()));
    }
    return 0;
}

bool CopyName(Name name, LPWSTR pszName, DWORD & nName) noexcept
{
    if (nName <= name.size())
    {
        return false;
    }
    *std::ranges::copy(name, pszName).out = u'\0';
    nName = static_cast<DWORD>(name.size());
    return true;
}

} // namespace kvx::win32::registry
