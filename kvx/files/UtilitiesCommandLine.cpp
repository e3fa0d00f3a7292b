#include "kvx/foundation/Utilities.h"

#include "kvx/files/FilePath.h"

#include <algorithm>
#include <map>
#include <vector>

namespace
{
/// Which beginnings of a text are worth looking for: whatever the text, the search takes bounded time.
class ProgramBounds
{
public:
    explicit ProgramBounds(CString::View text) : m_nLongest(FindLongest(text)) {}

    bool CanBeProgram(CString::View head) const
    {
        std::size_t const name = head.find_last_of(_T("\\/")) + 1; // 0 behind npos
        return head.size() <= m_nLongest && head.size() - name <= LONGEST_NAME;
    }

    /// No system takes a longer path of a program, or a longer name.
    static constexpr std::size_t LONGEST_PATH = 4096;
    static constexpr std::size_t LONGEST_NAME = 255;

private:
    std::size_t m_nLongest;

    static std::size_t FindLongest(CString::View text)
    {
        bool const bDrive = text.size() > 2 && text[1] == ':' && (text[2] == '\\' || text[2] == '/');
        if (!bDrive)
        {
            return text.starts_with(_T("\\\\")) ? LONGEST_PATH : MAX_PATH;
        }
        // Behind the first folder that isn't there nothing is.
        for (std::size_t at = 3; at < std::min(text.size(), LONGEST_PATH); ++at)
        {
            at = std::min(text.find_first_of(_T("\\/"), at), text.size());
            if (at < text.size() && !CUtilities::DirectoryExists(CString(text.substr(0, at))))
            {
                return at;
            }
        }
        return LONGEST_PATH;
    }
};

/// Tries the text, and the text with parts cut off its end.
DWORD SearchWithExtension(CString const & text, ProgramBounds const & bounds, LPCTSTR extension, int & cut,
                          LPTSTR buffer, DWORD size)
{
    CString::View head = text;
    for (cut = -1; !head.empty();)
    {
        if (bounds.CanBeProgram(head))
        {
            DWORD const length = ::SearchPathW(nullptr, CString(head), extension, size, buffer, nullptr);
            if (length > 0 && length < size)
            {
                return length;
            }
        }
        std::size_t const blank = head.rfind(' ');
        if (blank == head.npos)
        {
            break;
        }
        // Of a row of blanks the first is where it was cut.
        head = head.substr(0, head.substr(0, blank).find_last_not_of(' ') + 1);
        cut = static_cast<int>(head.size());
    }
    cut = -1;
    return 0;
}

/// Replaces each "%...%" that means something.
CString ExpandTokens(CString const & line)
{
    std::map<CString, CString> known;
    CString::View rest = line;
    CString result;
    for (;;)
    {
        std::size_t const begin = std::min(rest.find('%'), rest.size());
        result.Append(rest.substr(0, begin));
        rest.remove_prefix(begin);
        std::size_t const end = rest.find('%', 1);
        if (end == rest.npos)
        {
            result.Append(rest);
            return result;
        }
        CString const token(rest.substr(0, end + 1));
        auto const [entry, bNew] = known.try_emplace(token);
        if (bNew)
        {
            entry->second = CUtilities::ExpandPath(token, CUtilities::expandDefault);
        }
        bool const bReplaced = !entry->second.IsEmpty() && entry->second != token;
        result.Append(bReplaced ? entry->second : token.Left(static_cast<int>(end)));
        rest.remove_prefix(bReplaced ? end + 1 : end); // the second sign may begin another token
    }
}

/// The length of the longest folder that the line begins with; 0 for none.
int FindFolder(CString const & line)
{
    constexpr int LONGEST_PATH = 32767;
    CString const head = line.Left(LONGEST_PATH);
    for (int at = head.ReverseFind('\\'); at > 0; at = head.Left(at).ReverseFind('\\'))
    {
        if (CUtilities::DirectoryExists(head.Left(at)))
        {
            return at;
        }
    }
    return 0;
}

/// Where the arguments of a line begin whose program isn't found.
int SplitByLooks(CString & line)
{
    int const length = line.GetLength();
    auto const blankBehind = [&](int from)
    {
        int const blank = line.Find(_T(' '), from);
        return blank < 0 ? length : blank;
    };
    if (!CUtilities::IsAbsolutePath(line))
    {
        return blankBehind(0);
    }
    int const folder = FindFolder(line);
    if (folder == 0)
    {
        return length;
    }
    CString extension;
    int const found = CUtilities::ContainsExecutableExt(line, extension);
    return std::max(blankBehind(folder), found > 0 ? found + extension.GetLength() : 0);
}
} // namespace

CStringArray const & CUtilities::GetExecutableExtensions()
{
    static CStringArray const & s_extensions = []() -> CStringArray const &
    {
        constexpr LPCTSTR VARIABLE = _T("%PATHEXT%");
        constexpr DWORD ROOM = 5120;
        auto * const list = new CStringArray;
        std::vector<WCHAR> buffer(ROOM);
        DWORD size = ExpandEnvironmentStringsW(VARIABLE, buffer.data(), ROOM);
        if (size > ROOM)
        {
            buffer.assign(size, 0);
            size = ExpandEnvironmentStringsW(VARIABLE, buffer.data(), size);
        }
        CString text(buffer.data());
        text = size > buffer.size() || text == VARIABLE ? CString() : text.MakeLower();
        auto const has = [&](CString const & extension)
        {
            for (INT_PTR i = 0; i < list->GetSize(); ++i)
            {
                if (list->GetAt(i) == extension)
                {
                    return true;
                }
            }
            return false;
        };
        for (int at = 0; at >= 0 && !text.IsEmpty();)
        {
            if (CString const extension = text.Tokenize(_T(";"), at); !extension.IsEmpty())
            {
                list->Add(extension);
            }
        }
        if (list->IsEmpty())
        {
            for (LPCTSTR const extension : {_T(".exe"), _T(".dll"), _T(".sys"), _T(".bat"), _T(".com"), _T(".cmd"),
                                            _T(".vbs"), _T(".vbe"), _T(".js"), _T(".jse"), _T(".wsf"), _T(".wsh")})
            {
                list->Add(extension);
            }
        }
        for (LPCTSTR const extension : {_T(".dll"), _T(".sys")})
        {
            if (!has(extension))
            {
                list->Add(extension);
            }
        }
        return *list;
    }();
    return s_extensions;
}

int CUtilities::ContainsExecutableExt(CString & text, CString & extension)
{
    CStringArray const & extensions = GetExecutableExtensions();
    CString::View const view = text;
    // Where each comes next: whatever the text, it is read once for each extension.
    std::vector<std::size_t> next(static_cast<std::size_t>(extensions.GetSize()), 0);
    std::vector<bool> known(next.size(), false);
    for (std::size_t from = 0;;)
    {
        std::size_t at = view.npos;
        CString::View found;
        for (std::size_t i = 0; i < next.size() && at == view.npos; ++i)
        {
            found = extensions.GetAt(static_cast<INT_PTR>(i)).AsView();
            if (!known[i] || (next[i] != view.npos && next[i] < from))
            {
                next[i] = view.find(found, from);
                known[i] = true;
            }
            at = next[i];
        }
        if (at == view.npos)
        {
            return 0;
        }
        from = at + found.size();
        if (from == view.size() || view[from] == ' ')
        {
            extension = CString(found);
            return static_cast<int>(at);
        }
    }
}

DWORD CUtilities::SearchPathAllExt(CString const & text, int & cut, LPTSTR buffer, DWORD size)
{
    cut = -1;
    if (text.IsEmpty() || !buffer)
    {
        return 0;
    }
    ProgramBounds const bounds(text);
    if (bounds.CanBeProgram(text))
    {
        DWORD const length = ::SearchPathW(nullptr, text, nullptr, size, buffer, nullptr);
        if (length > 0 && length < size)
        {
            return length;
        }
    }
    CStringArray const & extensions = GetExecutableExtensions();
    for (INT_PTR i = 0; i < extensions.GetSize(); ++i)
    {
        if (DWORD const length = SearchWithExtension(text, bounds, extensions.GetAt(i), cut, buffer, size))
        {
            return length;
        }
    }
    return 0;
}

DWORD CUtilities::SearchPathW(CString const & text, int & cut, LPTSTR buffer, DWORD size)
{
    cut = -1;
    return buffer ? SearchWithExtension(text, ProgramBounds(text), _T(".exe"), cut, buffer, size) : 0;
}

int CUtilities::SplitCommandLine2(LPCTSTR given, CString & program, CString & arguments)
{
    CString line(given);
    line.MakeLower().Trim();
    if (line.AsView().starts_with(_T("\\??\\")))
    {
        line.Delete(0, 4);
    }
    line = ExpandTokens(line);
    program.Empty();
    arguments.Empty();
    if (line.IsEmpty())
    {
        return 0;
    }
    constexpr DWORD ROOM = ProgramBounds::LONGEST_PATH + 1;
    std::vector<WCHAR> buffer(ROOM);
    auto const search = [&](CString const & text, int & cut)
    { return SearchPathAllExt(text, cut, buffer.data(), ROOM) > 0; };
    int result = 1;
    int cut = -1;
    if (line[0] == '"')
    {
        int const quote = line.Find(_T('"'), 1);
        program = quote < 0 ? line.Mid(1) : line.Mid(1, quote - 1);
        arguments = quote < 0 ? CString() : line.Mid(quote + 1);
        result = search(program, cut);
        if (result)
        {
            if (cut >= 0)
            {
                arguments = program.Mid(cut).TrimLeft() + _T(' ') + arguments.TrimLeft();
            }
            program = buffer.data();
        }
    }
    else if (search(line, cut))
    {
        program = buffer.data();
        arguments = cut >= 0 ? line.Mid(cut) : CString();
    }
    else
    {
        cut = SplitByLooks(line);
        program = line.Left(cut);
        arguments = line.Mid(cut);
    }
    program = CFilePath::GetLongPathNameW(program);
    program.Trim();
    arguments.Trim();
    return result;
}
