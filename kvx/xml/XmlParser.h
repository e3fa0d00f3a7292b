#pragma once

/// Reads elements from an archive: the grammar that CXmlDocument tells of.

#include "kvx/xml/XmlDocument.h"

#include "kvx/platform/mfc/Archive.h"
#include "kvx/platform/mfc/TextReferences.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kvx
{
/// Bytes that pass through an archive at once.
inline constexpr int XML_BUFFER = 65536;

/// Whether a text holds these bytes, all of them ASCII.
bool EqualsAscii(CString const & text, std::string_view bytes);

/// Short texts that were seen lately: names and values of documents repeat, and then share their characters.
template <std::size_t COUNT>
class RecentTexts
{
public:
    /// The text of these bytes, which `make` makes if it isn't here.
    template <class MAKE>
    CString Get(std::string_view bytes, MAKE const & make)
    {
        std::uint64_t const hash = Hash(bytes);
        Slot & slot = m_slots[(hash >> 40) % COUNT];
        if (slot.nHash == hash && EqualsAscii(slot.strText, bytes))
        {
            return slot.strText;
        }
        CString text = make(bytes);
        // A text that comes once must not cost the look at a cold one that it drives out: only some get in.
        constexpr unsigned ONE_OF = 4;
        if (slot.nHash == 0 || ++m_nMissed % ONE_OF == 0)
        {
            slot = {hash, text};
        }
        return text;
    }

private:
    struct Slot
    {
        std::uint64_t nHash = 0;
        CString strText;
    };

    std::array<Slot, COUNT> m_slots;
    unsigned m_nMissed = 0;

    static std::uint64_t Hash(std::string_view bytes)
    {
        constexpr std::uint64_t FACTOR = 0x9E3779B97F4A7C15;
        std::size_t const size = bytes.size();
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        if (size >= 8)
        {
            std::memcpy(&first, bytes.data(), 8);
            std::memcpy(&last, bytes.data() + size - 8, 8);
        }
        else if (size >= 4)
        {
            std::memcpy(&first, bytes.data(), 4);
            std::memcpy(&last, bytes.data() + size - 4, 4);
        }
        else if (size > 0)
        {
            first = static_cast<unsigned char>(bytes[0]) | static_cast<unsigned>(bytes[size / 2]) << 8;
            last = static_cast<unsigned char>(bytes[size - 1]);
        }
        return ((first * FACTOR) ^ (last + size)) * FACTOR;
    }
};

/// One load. The bytes are scanned where they lie in the archive's buffer, and the archive stands behind what was used
/// whenever others see it, and at the end.
class XmlParser
{
public:
    /// The document may be null: entities and preprocessing are its.
    XmlParser(CArchive & archive, CXmlDocument * document);
    XmlParser(XmlParser const &) = delete;
    XmlParser & operator=(XmlParser const &) = delete;
    ~XmlParser() { GiveBack(); }

    void SkipByteOrderMark();
    /// Reads an element, with all that is below it.
    void Load(CXmlElement & element);
    /// The same; false if it was a document type instead, which counts for nothing.
    bool LoadNext(CXmlElement & element);
    /// Bytes that have been used.
    std::size_t GetRead() const { return m_nRead + static_cast<std::size_t>(m_pCursor - m_pBegin); }
    /// Shows an element to the document's preprocessor.
    void PreProcess(CXmlElement * element);

private:
    struct Place
    {
        int nLine = 1;
        int nColumn = 1;

        void Advance(BYTE const * from, BYTE const * to);
    };
    struct OpenElement
    {
        CXmlElement * pElement;
        CString strTag; // as it was read: a preprocessor may rename the element
    };
    /// The elements between the one that is loaded and the one that is read: nobody owns them yet.
    struct OpenElements : std::vector<OpenElement>
    {
        CXmlElement * pNext = nullptr;
        ~OpenElements();
    };
    /// Where a tag can end, in standard tags.
    struct TagState
    {
        std::size_t nChecked = 0;
        char chQuote = 0;
        bool bComment = false; // within a document type
        int nBrackets = 0;
    };

    CArchive & m_archive;
    CXmlDocument * m_pDocument;
    bool m_bUtf8;
    bool m_bStandardTags;
    BYTE const * m_pBegin = nullptr; // of what the archive counts as unread
    BYTE const * m_pCursor = nullptr;
    BYTE const * m_pEnd = nullptr;
    BYTE const * m_pToken = nullptr; // where the present tag or text begins, if that lies in the buffer
    Place m_place;                   // of m_pBegin
    Place m_tokenPlace;              // if it doesn't
    std::string m_tagBytes;
    std::string_view m_tag;
    std::string m_text;
    std::vector<std::pair<CString, CString>> m_attributes;
    TextPool m_textPool;
    ObjectPieces m_objectPool;
    std::size_t m_nTextRead = 0; // characters
    std::size_t m_nRead = 0;     // bytes, up to m_pBegin
    RecentTexts<256> m_names;
    RecentTexts<512> m_values;

    [[noreturn]] void Fail(char const * text, bool bHere = false);
    void GiveBack();
    bool Fill();
    BYTE Next();
    bool IsSkipped(BYTE c) const;
    bool IsPrinted(BYTE c) const;
    void MarkToken() { m_pToken = m_pCursor - 1; }

    BYTE SkipWhitespace();
    void ReadTag(bool bClear);
    bool IsWholeTag(std::string_view tag, TagState & state) const;
    void ReadElement(CXmlElement & top);
    bool StartElement(CXmlElement & element);
    void SetSpecial(CXmlElement & element, std::string_view text);
    void ReadData(CXmlElement & element);
    void ReadCData(CXmlElement & element);
    void ReadClosing(CXmlElement const & element);
    bool IsClosing(CString const & tag) const;
    void AttributesFromStringA(CXmlElement & element, std::string_view text);

    CString ToWide(std::string_view bytes);
    CStringA ToBytes(CString const & text) const;
    CString ToName(std::string_view bytes);
    CString ToValue(std::string_view bytes, bool bPreProcess);
};
} // namespace kvx
