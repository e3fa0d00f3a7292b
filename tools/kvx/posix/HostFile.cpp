#include "kvx/HostFile.h"

std::FILE * OpenHostFile(std::string const & name)
{
    return std::fopen(name.c_str(), "rb");
}
