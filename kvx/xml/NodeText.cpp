#include "kvx/xml/NodeText.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/xml/NodePrinter.h"

#include <array>

namespace tinyxml2
{
namespace
{
// True if what is below the node is to be visited.
bool Enter(XMLNode const & node, XMLVisitor & visitor)
{
    if (XMLElement const * const element = node.ToElement())
    {
        return visitor.VisitEnter(*element, element->FirstAttribute());
    }
    if (XMLDocument const * const document = node.ToDocument())
    {
        return visitor.VisitEnter(*document);
    }
    return node.Accept(&visitor);
}

bool Leave(XMLNode const & node, XMLVisitor & visitor)
{
    if (XMLElement const * const element = node.ToElement())
    {
        return visitor.VisitExit(*element);
    }
    if (XMLDocument const * const document = node.ToDocument())
    {
        return visitor.VisitExit(*document);
    }
    return true;
}

CString UnknownText(int number)
{
    CString text;
    text.Format(_T("<<unknown:%d>>"), number);
    return text;
}
} // namespace

void Walk(XMLNode const & node, XMLVisitor & visitor)
{
    bool bGoOn = true; // with the siblings of what was visited last
    XMLNode const * at = &node;
    bool bEntered = Enter(*at, visitor);
    for (;;)
    {
        bool const bLeaf = !at->ToElement() && !at->ToDocument();
        if (bEntered && at->FirstChild())
        {
            at = at->FirstChild();
            bEntered = Enter(*at, visitor);
            continue;
        }
        // What says no is left all the same; the siblings behind it are skipped only if it says no again.
        bGoOn = bLeaf ? bEntered : Leave(*at, visitor);
        while (at != &node && !(bGoOn && at->NextSibling()))
        {
            at = at->Parent();
            bGoOn = Leave(*at, visitor);
        }
        if (at == &node)
        {
            return;
        }
        at = at->NextSibling();
        bEntered = Enter(*at, visitor);
    }
}

CStringA ToStringA(XMLNode const * node)
{
    if (!node)
    {
        return {};
    }
    NodePrinter printer(nullptr, true);
    Walk(*node, printer);
    return {printer.CStr(), printer.CStrSize() - 1};
}

CStringW ToStringW(XMLNode const * node)
{
    return CUtilities::MB2W(ToStringA(node), CP_UTF8);
}

CString ToString(XMLNode const * node)
{
    return ToStringW(node);
}

CString ErrorText(XMLError error)
{
    static constexpr std::array<LPCTSTR, 20> NAMES{
        _T("XML_SUCCESS"),
        _T("XML_NO_ATTRIBUTE"),
        _T("XML_WRONG_ATTRIBUTE_TYPE"),
        _T("XML_ERROR_FILE_NOT_FOUND"),
        _T("XML_ERROR_FILE_COULD_NOT_BE_OPENED"),
        _T("XML_ERROR_FILE_READ_ERROR"),
        _T("XML_ERROR_ELEMENT_MISMATCH"),
        _T("XML_ERROR_PARSING_ELEMENT"),
        _T("XML_ERROR_PARSING_ATTRIBUTE"),
        _T("XML_ERROR_IDENTIFYING_TAG"),
        _T("XML_ERROR_PARSING_TEXT"),
        _T("XML_ERROR_PARSING_CDATA"),
        _T("XML_ERROR_PARSING_COMMENT"),
        _T("XML_ERROR_PARSING_DECLARATION"),
        _T("XML_ERROR_PARSING_UNKNOWN"),
        _T("XML_ERROR_EMPTY_DOCUMENT"),
        _T("XML_ERROR_MISMATCHED_ELEMENT"),
        _T("XML_ERROR_PARSING"),
        _T("XML_CAN_NOT_CONVERT_TEXT"),
        _T("XML_NO_TEXT_NODE"),
    };
    auto const number = static_cast<int>(error);
    if (number >= 0 && number < static_cast<int>(NAMES.size()))
    {
        return NAMES[static_cast<std::size_t>(number)];
    }
    return UnknownText(number);
}

CString ErrorName(XMLError error)
{
    auto const number = static_cast<int>(error);
    if (number >= 0 && number < XML_ERROR_COUNT)
    {
        return CUtilities::MB2T(XMLDocument::ErrorIDToName(error), CP_UTF8);
    }
    return UnknownText(number);
}
} // namespace tinyxml2
