#pragma once

/// All that an application needs: the public headers of every folder.

#include "kvx/platform/mfc/Afx.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/AutoHandle.h"
#include "kvx/foundation/Dictionary.h"
#include "kvx/foundation/Lockable.h"
#include "kvx/foundation/ObCache.h"
#include "kvx/foundation/ObIterator.h"
#include "kvx/foundation/ObLookup.h"
#include "kvx/foundation/RefCounter.h"
#include "kvx/foundation/SortedTree.h"
#include "kvx/foundation/StringValue.h"
#include "kvx/foundation/Stringable.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/foundation/ValueAccessor.h"

#include "kvx/text/StringPattern.h"
#include "kvx/text/StringTokenizer.h"

#include "kvx/logging/LogManager.h"
#include "kvx/logging/LogSink.h"

#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadContext.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/ThreadQueue.h"

#include "kvx/msgdata/MsgCursor.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/msgdata/MsgMultipleTables.h"
#include "kvx/msgdata/MsgResults.h"
#include "kvx/msgdata/MsgRowSet.h"
#include "kvx/msgdata/MsgTable.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgFactory.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/messaging/MsgRequest.h"
#include "kvx/messaging/MsgResponse.h"
#include "kvx/messaging/MsgTarget.h"

#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgConnectionProvider.h"
#include "kvx/transport/MsgListener.h"
#include "kvx/transport/MsgListenerSession.h"
#include "kvx/transport/MsgStream.h"
#include "kvx/transport/MsgTCPConnection.h"
#include "kvx/transport/MsgTCPFactory.h"
