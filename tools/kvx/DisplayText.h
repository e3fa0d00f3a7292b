#pragma once

/// Text for people who read it on a terminal.

#include "kvx/platform/mfc/Text.h"

#include <string>
#include <string_view>

/// UTF-8, and the number of columns that it takes.
struct DisplayText
{
    std::string strText;
    int nWidth = 0;
};

/// Control characters are shown as escapes (`\n`, `\x1B`): data can neither break lines nor give commands to a
/// terminal.
DisplayText ToDisplay(CString::View text);

/// The part of a text that `ToDisplay` made that fits in `width` columns, with an ellipsis in the place of what is cut.
std::string CutToWidth(std::string_view text, int width);
