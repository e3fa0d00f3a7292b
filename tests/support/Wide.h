#pragma once

#include "kvx/platform/host.h"

#include <string>

using Wide = std::basic_string<WCHAR>;
using WideView = std::basic_string_view<WCHAR>;
