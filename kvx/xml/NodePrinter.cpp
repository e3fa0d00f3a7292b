#include "kvx/xml/NodePrinter.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace tinyxml2
{
namespace
{
bool NeedsReference(char c)
{
    return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n';
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
    bool const bGoOn = XMLPrinter::Visit(text);
    m_bInText = false;
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
        char const * const control = std::find_if(data, end, NeedsReference);
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
