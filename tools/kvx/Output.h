#pragma once

/// Responses as aligned tables, JSON or CSV on stdout, and the error line on stderr.

#include "StandardOutput.h"

#include "kvx/messaging/MsgRequest.h"

namespace CLI
{
class App;
}

enum class Format
{
    Line, // of events alone
    Table,
    Json,
    Csv
};

/// Adds the option --format: table, which is the default, json or csv.
void AddFormatOption(CLI::App & command, Format & format);

/// Row sets that claim more cells than this (rows times columns, a row without columns counts too) are neither made nor
/// taken: the claim alone costs its sender nothing.
inline constexpr ULONGLONG CELL_LIMIT = 10'000'000;

/// What the row sets claim in all.
ULONGLONG CountClaimedCells(CMsgMultipleRowSets const & rowSets);

/// Writes the response, the failed one too, in the given format, and the error line if it failed. A response that
/// claims too many cells, or a stdout that can't be written to, is reported as an error. The exit status: 0, or 1 for a
/// failure.
int PrintResponse(CMsgResponse & response, Format format);

/// Writes an event to stdout: a line with its name and its parameters, sorted by name, or an object of JSON on a line.
Written PrintEvent(CMsgRequest const & event, Format format);
