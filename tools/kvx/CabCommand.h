#pragma once

/// What `kvx cab` was told, and its actions. Names are UTF-8, or whatever bytes the host's names have.

#include "Output.h"

#include "kvx/cabinet/CabCompression.h"

#include <string>
#include <vector>

struct CabOptions
{
    std::string archive;
    std::vector<std::string> files; // of extract: patterns
    std::string directory = ".";
    std::vector<std::string> excludes;
    USHORT compression = tcompTYPE_MSZIP;
    kvx::cabinet::Level level = kvx::cabinet::Level::Default;
    ULONGLONG maxSize = 0;              // of a cabinet of a set; 0: one cabinet
    ULONGLONG folderSize = 64ull << 20; // of what goes into one
    unsigned jobs = 0;                  // 0: one for each processor
    bool isVerbose = false;
    Format format = Format::Table;
};

// Each gives the exit status.
int CreateCabinet(CabOptions const & options);
int ListCabinet(CabOptions const & options);
int ExtractCabinet(CabOptions const & options);
int TestCabinet(CabOptions const & options);

/// The name in a cabinet as UTF-8 with slashes: as it is where it is UTF-8, marked or not, for most programs don't mark
/// it; else it is in the ANSI code page.
std::string DecodeName(std::string const & bytes);
/// Ends a run of the engine from its callbacks when the user wants to: ERROR_OPERATION_ABORTED.
bool IsEndWanted();
/// A line on stderr for what is no failure.
void ReportNote(std::string const & name, std::string const & text);
/// Whether one of the patterns is the name (with slashes), a folder above it, or matches it as a whole or by its last
/// part.
bool IsAmong(std::vector<std::string> const & patterns, std::string const & name);
