#include "kvx/platform/RegistryValues.h"

namespace kvx
{
LONG SetRegistryValues(std::span<RegistryValue const> values)
{
    for (RegistryValue const & value : values)
    {
        // A NUL that happens to stand behind a text would be stored with it.
        std::vector<BYTE> data = value.data;
        data.insert(data.end(), sizeof(WCHAR), 0xFF);
        LONG const code = RegSetValueExW(value.key, value.strName.c_str(), 0, value.nType, data.data(),
                                         static_cast<DWORD>(value.data.size()));
        if (code != 0)
        {
            return code;
        }
    }
    return 0;
}

LONG RegistryValueReader::Read(std::vector<RegistryValue> & values)
{
    constexpr DWORD LONGEST_NAME = 16384; // with the NUL
    constexpr std::size_t PIECE = 1 << 20;
    values.clear();
    std::vector<WCHAR> name(LONGEST_NAME);
    std::vector<BYTE> data(m_bNamesOnly ? 0 : 65536);
    for (std::size_t bytes = 0; bytes < PIECE;)
    {
        RegistryValue value;
        DWORD length = LONGEST_NAME;
        DWORD size = static_cast<DWORD>(data.size());
        LONG const code = RegEnumValueW(m_key, static_cast<DWORD>(m_nNext), name.data(), &length, nullptr, &value.nType,
                                        m_bNamesOnly ? nullptr : data.data(), m_bNamesOnly ? nullptr : &size);
        if (code == ERROR_MORE_DATA)
        {
            data.resize(size + size / 2);
            continue;
        }
        if (code != 0)
        {
            return code == ERROR_NO_MORE_ITEMS ? 0 : code;
        }
        value.strName.assign(name.data(), length);
        value.data.assign(data.begin(), data.begin() + (m_bNamesOnly ? 0 : size));
        bytes += length + value.data.size() + sizeof(value);
        values.push_back(std::move(value));
        ++m_nNext;
    }
    return 0;
}
} // namespace kvx
