#include "HostParams.h"

#include <charconv>
#include <string>

std::optional<LONGLONG> ReadNumber(CMsgRequest & request, LPCTSTR name, std::optional<LONGLONG> fallback,
                                   LONGLONG minimum, LONGLONG maximum)
{
    CString value;
    if (!static_cast<CValueAccessor const &>(request).GetValue(name, value))
    {
        if (!fallback)
        {
            request.SetResponseError(ERROR_INVALID_PARAMETER, _T("The parameter '%s' is missing"), name);
        }
        return fallback;
    }
    std::string const text = kvx::ToUtf8(value);
    LONGLONG number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < minimum || number > maximum)
    {
        request.SetResponseError(ERROR_INVALID_PARAMETER,
                                 _T("The parameter '%s' must be a whole number from %I64d to %I64d"), name, minimum,
                                 maximum);
        return std::nullopt;
    }
    return number;
}
