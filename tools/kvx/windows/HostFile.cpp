#include "kvx/HostFile.h"

#include "kvx/FileNames.h"

std::FILE * OpenHostFile(std::string const & name)
{
    return _wfopen(ToPath(name).c_str(), L"rb");
}
