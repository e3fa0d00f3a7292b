#pragma once

/// The MFC-style layer as a whole: what the headers of the library include.

#include "kvx/platform/mfc/Archive.h"
#include "kvx/platform/mfc/Array.h"
#include "kvx/platform/mfc/Exception.h"
#include "kvx/platform/mfc/File.h"
#include "kvx/platform/mfc/List.h"
#include "kvx/platform/mfc/Map.h"
#include "kvx/platform/mfc/Object.h"
#include "kvx/platform/mfc/OleDateTime.h"
#include "kvx/platform/mfc/Sync.h"
#include "kvx/platform/mfc/Text.h"
#include "kvx/platform/mfc/Time.h"
#include "kvx/platform/mfc/WinApp.h"
#include "kvx/platform/mfc/Wnd.h"
