#pragma once

/// Opening a file of the host, with a source for each.

#include <cstdio>
#include <string>

/// A file to read as bytes, by its name as on the command line. Null with errno.
std::FILE * OpenHostFile(std::string const & name);
