#pragma once

/// Printing of tinyxml2's nodes so that their texts are read back as they were.

#include "kvx/platform/mfc/Afx.h"

#include <tinyxml2.h>

namespace tinyxml2
{
/// A printer that writes CR and the other control characters below 0x20, but for TAB and LF, as character references
/// wherever those are read: in attribute values and in texts. XMLPrinter, which Print and SaveFile of the base class
/// use, writes them raw, and every reader of XML then takes a CR for an LF. For the rest both print the same, and so
/// for the line ends of texts, CR LF, of which readers make an LF.
///
/// Not in CDATA sections, comments and declarations, where nothing can stand for a CR, nor in a document that doesn't
/// process entities: a CR is lost there. XML 1.0 knows no control characters beside TAB, LF and CR; tinyxml2 reads the
/// references to them, a strict reader refuses them as it does the raw ones.
class KVX_API NodePrinter : public XMLPrinter
{
public:
    using XMLPrinter::XMLPrinter;

    using XMLPrinter::Visit;
    using XMLPrinter::VisitEnter;
    bool VisitEnter(XMLDocument const & document) override;
    bool VisitEnter(XMLElement const & element, XMLAttribute const * firstAttribute) override;
    bool Visit(XMLText const & text) override;

protected:
    using XMLPrinter::Write;
    void Write(char const * data, std::size_t size) override;

private:
    bool m_bEntities = true;  // the document that is printed processes them
    bool m_bInText = false;   // what is written now is a name or a text, not markup
    bool m_bLineEnds = false; // and CR LF is one
};
} // namespace tinyxml2
