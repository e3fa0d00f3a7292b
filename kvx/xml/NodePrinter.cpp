#include "kvx/xml/NodePrinter.h"

#include <array>
#include <charconv>

namespace tinyxml2
{
namespace
{
// The first character that needs a reference. The line ends of a text need none.
char const * FindControl(char const * data, char const * end, bool lineEnds)
{
    for (; data != end; ++data)
    {
        bool const bLineEnd = lineEnds && *data == '\r' && end - data > 1 && data[1] == '\n';
        if (static_cast<unsigned char>(*data) < 0x20 && *data != '\t' && *data != '\n' && !bLineEnd)
        {
            break;
        }
    }
    return data;
}
} // namespace

bool NodePrinter::VisitEnter(XMLDocument const & document)
{
    m_bEntities = document.ProcessEntities();
    return XMLPrinter::VisitEnter(document);
}

bool NodePrinter::VisitEnter(XMLElement const & element, XMLAttribute const * firstAttribute)
{
    m_bInText = true;
    bool const bGoOn = XMLPrinter::VisitEnter(element, firstAttribute);
    m_bInText = false;
    return bGoOn;
}

bool NodePrinter::Visit(XMLText const & text)
{
    m_bInText = !text.CData();
    m_bLineEnds = true;
    bool const bGoOn = XMLPrinter::Visit(text);
    m_bInText = m_bLineEnds = false;
    return bGoOn;
}

void NodePrinter::Write(char const * data, std::size_t size)
{
    if (!m_bInText || !m_bEntities)
    {
        XMLPrinter::Write(data, size);
        return;
    }
    for (char const * const end = data + size; data != end;)
    {
        char const * const control = FindControl(data, end, m_bLineEnds);
        if (control != data)
        {
            XMLPrinter::Write(data, static_cast<std::size_t>(control - data));
        }
        if (control == end)
        {
            return;
        }
        std::array<char, 5> reference{'&', '#'};
        char * const last = std::to_chars(reference.data() + 2, reference.data() + 4, static_cast<int>(*control)).ptr;
        *last = ';';
        XMLPrinter::Write(reference.data(), static_cast<std::size_t>(last + 1 - reference.data()));
        data = control + 1;
    }
}
} // namespace tinyxml2
