#pragma once

/// The text of tinyxml2's nodes and errors. Narrow text is UTF-8, as in all of that library.

#include "kvx/platform/mfc/Afx.h"

#include <tinyxml2.h>

namespace tinyxml2
{
/// The node and all below it, without white space added, as NodePrinter prints it; empty for a null node. Nothing
/// recurses on the depth.
KVX_API CStringA ToStringA(XMLNode const * node);
KVX_API CStringW ToStringW(XMLNode const * node);
KVX_API CString ToString(XMLNode const * node);

/// Walks a node and all below it in document order, as its Accept does, but with no more stack for a deep tree.
KVX_API void Walk(XMLNode const & node, XMLVisitor & visitor);

/// The name that goes with a number in the library's own list, "<<unknown:%d>>" outside it. By contract that list is a
/// fixed one, which only agrees up to 5 with the numbers of current releases: XML_ERROR_MISMATCHED_ELEMENT of release 9
/// gives "XML_ERROR_PARSING_UNKNOWN". ErrorName tells what really happened.
KVX_API CString ErrorText(XMLError error);

/// The name in the release that is linked.
KVX_API CString ErrorName(XMLError error);
} // namespace tinyxml2
