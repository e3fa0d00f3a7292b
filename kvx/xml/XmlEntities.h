#pragma once

/// References to characters, as the documents of CXmlDocument read and write them.

#include "kvx/platform/mfc/Text.h"

#include <string>
#include <string_view>

namespace kvx
{
/// Numeric references become UTF-8, the five entities their characters. A numeric one that is malformed ends the text;
/// of anything else the `&` is left out. A byte that leads a UTF-8 sequence takes the bytes that belong to it along.
std::string DecodeXmlEntities(std::string_view text);

/// See CXmlDocument::Encode.
CString EncodeXmlEntities(CString const & text);

/// See CXmlDocument::DecodeEntities.
CString DecodeXmlReferences(CString const & text);
} // namespace kvx
