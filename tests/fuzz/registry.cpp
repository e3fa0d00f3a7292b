// Registry values to text and back, and paths of keys, out of arbitrary bytes.

#include "Require.h"

#include "kvx/registry/Registry.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace
{
class Key : public CRegistry
{
public:
    using CRegistry::ConvertFromString;
    using CRegistry::ConvertToString;
    using CRegistry::GetRegistryTypeFromName;
    using CRegistry::GetRegistryTypeName;
};

std::vector<BYTE> FromText(CString const & text, DWORD type)
{
    void * data = nullptr;
    DWORD size = 0;
    Key::ConvertFromString(text, type, &data, &size);
    std::unique_ptr<void, decltype(&std::free)> const owner(data, &std::free);
    auto const * const bytes = static_cast<BYTE const *>(data);
    return std::vector<BYTE>(bytes, bytes + size);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    DWORD const type = data[0] % 16;
    std::vector<BYTE> const bytes(data + 1, data + size);
    std::vector<WCHAR> characters(bytes.size() / sizeof(WCHAR));
    std::copy_n(bytes.data(), characters.size() * sizeof(WCHAR), reinterpret_cast<BYTE *>(characters.data()));
    CString const text(CString::View(characters.data(), characters.size()));

    // As data: numbers and bytes come back from their texts.
    CString const shown = Key::ConvertToString(type, bytes.data(), static_cast<DWORD>(bytes.size()));
    std::vector<BYTE> const back = FromText(shown, type);
    if (!bytes.empty() && (type == REG_BINARY || type == REG_RESOURCE_LIST || type == REG_RESOURCE_REQUIREMENTS_LIST))
    {
        Require(back == bytes);
    }
    if (type == REG_DWORD || type == REG_QWORD)
    {
        std::vector<BYTE> number = bytes;
        number.resize(type == REG_DWORD ? 4 : 8);
        Require(back == number);
    }

    // As text: whatever it gives has a text.
    std::vector<BYTE> const made = FromText(text, type);
    Require(made.size() <= sizeof(WCHAR) * (characters.size() + 4));
    CString const again = Key::ConvertToString(type, made.data(), static_cast<DWORD>(made.size()));
    if (type == REG_SZ)
    {
        Require(again.AsView() == text.AsView().substr(0, text.AsView().find(WCHAR{0})));
    }

    HKEY root = nullptr;
    CString subKey;
    CRegistry::ParseRootKey(text, root, subKey);
    Require(subKey.GetLength() <= text.GetLength());
    Key::GetRegistryTypeFromName(text);
    Key::GetRegistryTypeName(type);
    return 0;
}
