// Takes arbitrary bytes for an INI file. What is written into it is read back, and nothing else changes.

#include "Require.h"

#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/profiles.h"

#include <cstdint>
#include <string>
#include <vector>

namespace
{
using kvx::win32::IniText;

std::u16string_view Trim(std::u16string_view text)
{
    while (!text.empty() && text.front() <= u' ')
    {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() <= u' ')
    {
        text.remove_suffix(1);
    }
    return text;
}

/// The next line of the input as text.
std::u16string TakeText(std::string_view & bytes)
{
    std::size_t const nEnd = std::min(bytes.find('\1'), bytes.size());
    std::u16string strText = kvx::win32::FromUtf8(bytes.substr(0, nEnd));
    bytes.remove_prefix(std::min(nEnd + 1, bytes.size()));
    return strText;
}
} // namespace

// Section, key and value, each up to a byte 1, and the file.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    std::string_view bytes(reinterpret_cast<char const *>(data), size);
    std::u16string const strSection = TakeText(bytes);
    std::u16string const strKey = TakeText(bytes);
    std::u16string const strValue = TakeText(bytes);
    IniText text{std::string(bytes)};
    for (std::u16string const & strName : text.GetSections())
    {
        text.GetKeys(strName);
    }
    std::size_t const nSections = text.GetSections().size();

    std::u16string strFound;
    if (text.Set(strSection, strKey, strValue) != 0)
    {
        Require(text.GetBytes() == bytes);
        return 0;
    }
    Require(text.Find(strSection, strKey, strFound) && strFound == Trim(strValue));
    Require(text.GetSections().size() <= nSections + 1);
    IniText again(text.GetBytes());
    Require(again.Find(strSection, strKey, strFound) && strFound == Trim(strValue));
    Require(again.Set(strSection, strKey, strValue) == 0 && again.GetBytes() == text.GetBytes());
    std::size_t const nKeys = text.GetKeys(strSection).size();
    Require(text.RemoveKey(strSection, strKey) == 0 && text.GetKeys(strSection).size() < nKeys + 1);
    Require(text.RemoveSection(strSection) == 0);
    return 0;
}
