#pragma once

/// Text for people who read it on a terminal, and the escapes of JSON.

#include "kvx/platform/mfc/Text.h"

#include <string>
#include <string_view>

/// UTF-8, and the number of columns that it takes.
struct DisplayText
{
    std::string strText;
    int nWidth = 0;
};

/// Which characters are shown as escapes (`\n`, `\x1B`, `\u202E`).
enum class Escaped
{
    Controls, // what breaks lines or gives commands to a terminal
    All,      // also what can't be seen, or turns the order of what can: bidirectional and zero-width characters, line
              // and paragraph separators, halves of surrogate pairs
    AllButLines // the same, with line feeds and tabs as they are
};

DisplayText ToDisplay(CString::View text, Escaped escaped = Escaped::All);

/// What goes to stdout as a line or a table: whatever may deceive the reader of a terminal is escaped; a file or a
/// pipe gets all that doesn't break lines as it is.
DisplayText ToStdout(CString::View text);

/// A string of JSON with its quotes. What `Escaped::All` names is escaped here too: it is the same text for a program.
std::string ToJson(CString::View text);

/// The part of a text that `ToDisplay` made that fits in `width` columns, with an ellipsis in the place of what is cut.
std::string CutToWidth(std::string_view text, int width);
