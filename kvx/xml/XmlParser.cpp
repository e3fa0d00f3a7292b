#include "kvx/xml/XmlParser.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/xml/XmlEntities.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

namespace kvx
{
namespace
{
// Small documents, of which a program may keep a few texts for long, have no pools.
constexpr std::size_t NEVER_POOLED = 32768;
constexpr int PARSE_FAILURE = CArchiveException::badIndex;
constexpr char const * OTHER_CLOSING = "the closing tag is another one than that which was opened";

bool IsSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string_view Trim(std::string_view text)
{
    while (!text.empty() && IsSpace(text.back()))
    {
        text.remove_suffix(1);
    }
    while (!text.empty() && IsSpace(text.front()))
    {
        text.remove_prefix(1);
    }
    return text;
}

/// Without regard to case, in ASCII.
bool EqualsNoCase(std::string_view a, std::string_view b)
{
    auto const upper = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; };
    return std::ranges::equal(a, b, {}, upper, upper);
}

bool IsAscii(std::string_view bytes)
{
    unsigned char all = 0;
    for (char const c : bytes)
    {
        all = static_cast<unsigned char>(all | static_cast<unsigned char>(c));
    }
    return all < 0x80;
}

} // namespace

bool EqualsAscii(CString const & text, std::string_view bytes)
{
    auto const units = text.AsView();
    if (units.size() != bytes.size())
    {
        return false;
    }
    unsigned differences = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        auto const c = static_cast<unsigned char>(bytes[i]);
        differences |= (static_cast<unsigned>(units[i]) ^ c) | (c & 0x80U);
    }
    return differences == 0;
}

void XmlParser::Place::Advance(BYTE const * from, BYTE const * to)
{
    auto const lines = std::count(from, to, BYTE{'\n'});
    BYTE const * start = to;
    while (lines > 0 && start != from && start[-1] != '\n')
    {
        --start;
    }
    nLine += static_cast<int>(lines);
    nColumn = lines > 0 ? static_cast<int>(to - start) + 1 : nColumn + static_cast<int>(to - from);
}

XmlParser::OpenElements::~OpenElements()
{
    delete pNext;
    for (std::size_t i = 1; i < size(); ++i)
    {
        delete at(i).pElement;
    }
}

XmlParser::XmlParser(CArchive & archive, CXmlDocument * document)
    : m_archive(archive), m_pDocument(document), m_bUtf8(document && document->m_bUtf8),
      m_bStandardTags(document && document->m_bStandardTags)
{
    auto const unread = archive.GetUnread();
    m_pBegin = m_pCursor = unread.data();
    m_pEnd = m_pBegin + unread.size();
}

/// Tells the archive what has been used.
void XmlParser::GiveBack()
{
    if (m_pToken)
    {
        m_tokenPlace = m_place;
        m_tokenPlace.Advance(m_pBegin, m_pToken);
        m_pToken = nullptr;
    }
    m_place.Advance(m_pBegin, m_pCursor);
    m_nRead += static_cast<std::size_t>(m_pCursor - m_pBegin);
    m_archive.SkipUnread(static_cast<std::size_t>(m_pCursor - m_pBegin));
    m_pBegin = m_pCursor;
}

bool XmlParser::Fill()
{
    GiveBack();
    bool const bMore = m_archive.Refill();
    auto const unread = m_archive.GetUnread();
    m_pBegin = m_pCursor = unread.data();
    m_pEnd = m_pBegin + unread.size();
    return bMore;
}

void XmlParser::Fail(char const * text, bool bHere)
{
    GiveBack();
    if (m_pDocument)
    {
        Place const & place = bHere ? m_place : m_tokenPlace;
        m_pDocument->m_error = {place.nLine, place.nColumn, CString(text)};
    }
    AfxThrowArchiveException(PARSE_FAILURE, m_archive.m_strFileName);
}

BYTE XmlParser::Next()
{
    if (m_pCursor == m_pEnd && !Fill())
    {
        Fail("the text ends too early", true);
    }
    return *m_pCursor++;
}

/// What is neither a space nor not printable, of the signed values of bytes: those from 128 on don't print.
bool XmlParser::IsSkipped(BYTE c) const
{
    return c <= ' ' || c == 0x7F || (c > 0x7F && !m_bUtf8);
}

bool XmlParser::IsPrinted(BYTE c) const
{
    return c >= ' ' && (c < 0x7F || (c > 0x7F && m_bUtf8));
}

void XmlParser::SkipByteOrderMark()
{
    constexpr BYTE MARK[] = {0xEF, 0xBB, 0xBF};
    if (!m_bUtf8 || (m_pCursor == m_pEnd && !Fill()) || *m_pCursor != MARK[0])
    {
        return;
    }
    for (BYTE const c : MARK)
    {
        if (Next() != c)
        {
            Fail("the text does not begin with a tag", true);
        }
    }
}

BYTE XmlParser::SkipWhitespace()
{
    BYTE c = 0;
    do
    {
        c = Next();
    } while (IsSkipped(c));
    return c;
}

/// Whether a tag that a `>` follows ends there.
bool XmlParser::IsWholeTag(std::string_view tag, TagState & state) const
{
    if (!m_bStandardTags || tag.empty())
    {
        return true;
    }
    if (tag.starts_with("!--"))
    {
        return tag.size() >= 5 && tag.ends_with("--");
    }
    if (tag.front() == '?')
    {
        return tag.size() >= 2 && tag.ends_with('?');
    }
    bool const bDocumentType = tag.front() == '!';
    for (; state.nChecked < tag.size(); ++state.nChecked)
    {
        char const c = tag[state.nChecked];
        if (state.bComment)
        {
            state.bComment = c != '>' || !tag.substr(0, state.nChecked).ends_with("--");
        }
        else if (bDocumentType && c == '<' && tag.substr(state.nChecked).starts_with("<!--"))
        {
            state.bComment = true;
        }
        else if (state.chQuote)
        {
            state.chQuote = c == state.chQuote ? '\0' : state.chQuote;
        }
        else if (c == '"' || c == '\'')
        {
            state.chQuote = c;
        }
        else if (bDocumentType)
        {
            state.nBrackets += c == '[' ? 1 : 0;
            state.nBrackets -= c == ']' ? 1 : 0;
        }
    }
    return !state.chQuote && !state.bComment && state.nBrackets <= 0;
}

/// Reads up to a `>`. Without `bClear` what is read goes behind what m_tagBytes holds.
void XmlParser::ReadTag(bool bClear)
{
    if (bClear)
    {
        m_tagBytes.clear();
    }
    if (bClear || !m_bStandardTags)
    {
        BYTE c = SkipWhitespace();
        MarkToken();
        if (c == '<')
        {
            c = Next();
        }
        --m_pCursor; // the byte lies in the buffer, whether it was filled just now or not
    }
    TagState state;
    for (;;)
    {
        if (m_pCursor == m_pEnd && !Fill())
        {
            Fail("a tag is not closed");
        }
        auto const left = static_cast<std::size_t>(m_pEnd - m_pCursor);
        auto const * const end = static_cast<BYTE const *>(std::memchr(m_pCursor, '>', left));
        std::string_view const piece(reinterpret_cast<char const *>(m_pCursor),
                                     end ? static_cast<std::size_t>(end - m_pCursor) : left);
        m_pCursor += piece.size();
        if (!end || !m_tagBytes.empty())
        {
            m_tagBytes += piece;
        }
        if (!end)
        {
            continue;
        }
        ++m_pCursor;
        m_tag = m_tagBytes.empty() ? piece : std::string_view(m_tagBytes);
        if (IsWholeTag(m_tag, state))
        {
            break;
        }
        if (m_tagBytes.empty())
        {
            m_tagBytes = piece;
        }
        m_tagBytes += '>';
    }
    if (m_tag.empty())
    {
        Fail("a tag is empty");
    }
}

void XmlParser::Load(CXmlElement & element)
{
    ReadTag(true);
    ReadElement(element);
}

bool XmlParser::LoadNext(CXmlElement & element)
{
    ReadTag(true);
    if (m_bStandardTags && m_tag.front() == '!' && !m_tag.starts_with("!--"))
    {
        return false;
    }
    ReadElement(element);
    return true;
}

void XmlParser::PreProcess(CXmlElement * element)
{
    if (!m_pDocument || !m_pDocument->m_pPreprocessor)
    {
        return;
    }
    GiveBack();
    m_pDocument->PreProcessElement(element, m_archive); // it may read on in the archive
    auto const unread = m_archive.GetUnread();
    m_pBegin = m_pCursor = unread.data();
    m_pEnd = m_pBegin + unread.size();
}

/// Whether the tag closes an element.
bool XmlParser::IsClosing(CString const & tag) const
{
    if (m_tag.front() != '/')
    {
        return false;
    }
    std::string_view const name = m_bStandardTags ? Trim(m_tag.substr(1)) : m_tag.substr(1);
    return EqualsAscii(tag, name) || (!IsAscii(name) && ToBytes(tag).AsView() == name);
}

/// The tag of the element has been read.
void XmlParser::ReadElement(CXmlElement & top)
{
    OpenElements open;
    CXmlElement * element = &top;
    for (;;)
    {
        bool bWhole = !StartElement(*element);
        if (bWhole && element == &top)
        {
            return;
        }
        if (!bWhole)
        {
            open.push_back({element, element->m_strTag});
        }
        open.pNext = nullptr;
        for (;;)
        {
            if (bWhole)
            {
                open.back().pElement->m_strData.Empty();
                open.back().pElement->Append(element);
                PreProcess(element);
                BYTE const c = SkipWhitespace(); // normally the `<`
                if (m_bStandardTags && c != '<')
                {
                    MarkToken();
                    Fail("a text stands beside elements");
                }
                ReadTag(true);
            }
            if (!IsClosing(open.back().strTag))
            {
                if (m_bStandardTags && m_tag.front() == '/')
                {
                    Fail(OTHER_CLOSING);
                }
                break;
            }
            element = open.back().pElement;
            open.pop_back();
            bWhole = true;
            if (open.empty())
            {
                return;
            }
        }
        element = m_nTextRead > NEVER_POOLED ? new (m_objectPool) CXmlElement(nullptr) : new CXmlElement(nullptr);
        element->m_pParent = open.back().pElement;
        open.pNext = element;
    }
}

void XmlParser::SetSpecial(CXmlElement & element, std::string_view text)
{
    element.m_strTag = CString(static_cast<WCHAR>(text.front()), 1);
    element.m_strData = ToValue(text.substr(1), true);
}

/// Takes the tag, and what follows it up to the end of the element, or up to the first child's tag: then it is true.
bool XmlParser::StartElement(CXmlElement & element)
{
    element.m_strTag.Empty();
    element.m_strData.Empty();
    element.m_bCData = 0;
    element.m_attributes.RemoveAll();
    std::string_view tag = m_tag;
    bool bClosed = tag.back() == '/';
    if (tag.front() == '?' || tag.front() == '!')
    {
        if (!m_pDocument || m_pDocument->m_bProcessSpecialTags)
        {
            bool const bComment = tag.front() == '!';
            if (bComment ? !tag.starts_with("!--") || !tag.ends_with("--") : tag.back() != '?')
            {
                Fail(bComment ? "a tag with ! is no comment" : "an instruction does not end with ?");
            }
            std::size_t const ends = bComment ? 2 : 1;
            std::string_view inner = tag.substr(1, tag.size() > 1 + ends ? tag.size() - 1 - ends : 0);
            inner.remove_prefix(bComment ? std::min<std::size_t>(2, inner.size()) : 0);
            m_text.assign(1, tag.front()).append(inner);
            SetSpecial(element, m_text);
            return false;
        }
        bClosed = true; // its last character counts as the slash
    }
    tag = Trim(bClosed ? tag.substr(0, tag.size() - 1) : tag);
    std::size_t const blank = m_bStandardTags ? tag.find_first_of(" \t\n\v\f\r") : tag.find(' ');
    element.m_strTag = ToName(tag.substr(0, blank));
    if (blank != std::string_view::npos)
    {
        AttributesFromStringA(element, Trim(tag.substr(blank)));
    }
    if (bClosed)
    {
        return false;
    }

    if (SkipWhitespace() != '<')
    {
        MarkToken();
        ReadData(element);
        ReadClosing(element);
        return false;
    }
    MarkToken();
    char const first[] = {static_cast<char>(Next()), static_cast<char>(Next())};
    if (first[0] == '!' && first[1] == '[')
    {
        ReadCData(element);
        ReadClosing(element);
        return false;
    }
    m_tagBytes.assign(first, 2);
    if (m_bStandardTags && first[1] == '>')
    {
        m_tagBytes.resize(1);
        --m_pCursor;
    }
    ReadTag(false);
    return true;
}

void XmlParser::ReadClosing(CXmlElement const & element)
{
    ReadTag(true);
    if (!IsClosing(element.m_strTag))
    {
        Fail(OTHER_CLOSING);
    }
}

/// A text, of which the first byte has been taken.
void XmlParser::ReadData(CXmlElement & element)
{
    --m_pCursor;
    m_text.clear();
    std::string_view text;
    for (bool bMore = true; bMore;)
    {
        auto const left = static_cast<std::size_t>(m_pEnd - m_pCursor);
        auto const * const end = static_cast<BYTE const *>(std::memchr(m_pCursor, '<', left));
        std::string_view const piece(reinterpret_cast<char const *>(m_pCursor),
                                     end ? static_cast<std::size_t>(end - m_pCursor) : left);
        m_pCursor += piece.size() + (end ? 1 : 0);
        if (end && m_text.empty())
        {
            text = piece;
            break;
        }
        m_text += piece;
        text = m_text;
        bMore = !end && Fill();
    }
    bool bPrinted = true;
    for (char const c : text)
    {
        bPrinted = bPrinted && IsPrinted(static_cast<BYTE>(c));
    }
    if (!bPrinted)
    {
        std::string clean;
        clean.reserve(text.size());
        bool bBefore = true;
        for (char const c : text)
        {
            bool const bPrints = IsPrinted(static_cast<BYTE>(c));
            if (bPrints || bBefore)
            {
                clean += bPrints ? c : ' ';
            }
            bBefore = bPrints;
        }
        m_text = std::move(clean);
        text = m_text;
    }
    element.m_strData = ToValue(Trim(text), true);
}

/// A CDATA section behind `<![`.
void XmlParser::ReadCData(CXmlElement & element)
{
    char marker[6];
    for (char & c : marker)
    {
        c = static_cast<char>(Next());
    }
    if (!EqualsNoCase({marker, sizeof(marker)}, "CDATA["))
    {
        Fail("a section is no CDATA section");
    }
    m_text.clear();
    for (;;)
    {
        if (m_pCursor == m_pEnd && !Fill())
        {
            Fail("a CDATA section is not closed");
        }
        auto const left = static_cast<std::size_t>(m_pEnd - m_pCursor);
        auto const * const end = static_cast<BYTE const *>(std::memchr(m_pCursor, '>', left));
        std::size_t const used = end ? static_cast<std::size_t>(end - m_pCursor) + 1 : left;
        m_text.append(reinterpret_cast<char const *>(m_pCursor), used);
        m_pCursor += used;
        if (end && m_text.ends_with("]]>"))
        {
            m_text.resize(m_text.size() - 3);
            if (!m_text.empty() || m_bStandardTags)
            {
                break;
            }
        }
    }
    element.m_strData = ToValue(m_text, false);
    element.m_bCData = 1;
    if (m_pCursor != m_pEnd || Fill())
    {
        ++m_pCursor; // normally the `<` of the closing tag
    }
}

void XmlParser::AttributesFromStringA(CXmlElement & element, std::string_view text)
{
    constexpr auto NONE = std::string_view::npos;
    m_attributes.clear();
    for (std::size_t start = 0; start < text.size();)
    {
        std::size_t const equals = text.find('=', start);
        if (equals == NONE)
        {
            break;
        }
        std::string_view const name = Trim(text.substr(start, equals - start));
        std::size_t begin = equals + 1;
        // Blanks before a quote are passed over; those before anything else end an empty value.
        std::size_t const next = text.find_first_not_of(" \t\n\v\f\r", begin);
        if (next != NONE && (text[next] == '"' || text[next] == '\''))
        {
            begin = next;
        }
        std::size_t end = NONE;
        std::string_view value;
        std::string unescaped;
        if (char const quote = begin < text.size() ? text[begin] : '\0'; quote == '"' || quote == '\'')
        {
            ++begin;
            bool bEscapes = false;
            for (end = text.find(quote, begin); end != NONE && end > begin && text[end - 1] == '\\';
                 end = text.find(quote, end + 1))
            {
                bEscapes = true;
            }
            value = text.substr(begin, end == NONE ? NONE : end - begin);
            if (bEscapes)
            {
                for (std::size_t i = 0; i < value.size(); ++i)
                {
                    i += value[i] == '\\' && i + 1 < value.size() && value[i + 1] == quote ? 1 : 0;
                    unescaped += value[i];
                }
                value = unescaped;
            }
        }
        else if (begin < text.size())
        {
            end = m_bStandardTags ? text.find_first_of(" \t\n\v\f\r", begin) : text.find(' ', begin);
            value = text.substr(begin, end == NONE ? NONE : end - begin);
        }
        m_attributes.emplace_back(ToName(name), ToValue(value, true));
        start = end == NONE ? text.size() : end + 1;
    }
    if (m_attributes.empty())
    {
        return;
    }
    element.m_attributes.Reserve(static_cast<int>(std::min<std::size_t>(m_attributes.size(), 1024)),
                                 m_nTextRead > NEVER_POOLED ? &m_objectPool : nullptr);
    for (auto & [name, value] : m_attributes)
    {
        element.m_attributes.TakeValue(name, std::move(value));
    }
}

CString XmlParser::ToWide(std::string_view bytes)
{
    m_nTextRead += bytes.size();
    if (!IsAscii(bytes))
    {
        return m_bUtf8 ? FromUtf8(bytes) : CUtilities::AnsiToString(CStringA(CStringA::View(bytes)));
    }
    CString text;
    if (!bytes.empty())
    {
        bool const bPooled = m_nTextRead > NEVER_POOLED && bytes.size() <= TextPool::LONGEST;
        auto const length = static_cast<int>(bytes.size());
        WCHAR * const out = bPooled ? TextReferences::Make(text, bytes.size(), &m_textPool) : text.GetBuffer(length);
        for (std::size_t i = 0; i < bytes.size(); ++i)
        {
            out[i] = static_cast<unsigned char>(bytes[i]);
        }
        if (!bPooled)
        {
            text.ReleaseBufferSetLength(length);
        }
    }
    return text;
}

CStringA XmlParser::ToBytes(CString const & text) const
{
    return m_bUtf8 ? CUtilities::W2MB(text, CP_UTF8) : CUtilities::StringToAnsi(text);
}

CString XmlParser::ToName(std::string_view bytes)
{
    return m_names.Get(bytes, [this](std::string_view name) { return ToWide(name); });
}

CString XmlParser::ToValue(std::string_view bytes, bool bPreProcess)
{
    constexpr std::size_t SHORT = 16;
    if (bytes.empty() && !(bPreProcess && m_pDocument && m_pDocument->m_pPreprocessor))
    {
        return CString();
    }
    if (bPreProcess && m_pDocument)
    {
        if (m_pDocument->m_pPreprocessor)
        {
            CStringA text{CStringA::View(bytes)};
            m_pDocument->PreProcessString(text);
            return ToWide(text.AsView());
        }
        if (std::memchr(bytes.data(), '&', bytes.size()))
        {
            return ToWide(DecodeXmlEntities(bytes));
        }
    }
    if (bytes.size() > SHORT)
    {
        return ToWide(bytes);
    }
    return m_values.Get(bytes, [this](std::string_view value) { return ToWide(value); });
}
} // namespace kvx
