#include "kvx/text/RegExpCode.h"

#include <algorithm>

namespace kvx
{
using namespace regexp;

namespace
{
// The classes, by their letters.
constexpr std::string_view CLASS_LETTERS = "mabcdglpnsuxw";

bool IsRepeat(int c)
{
    return c == '*' || c == '+' || c == '?';
}
} // namespace

/// Translates a pattern in one pass, with a stack of the groups that are open.
class RegExpCompiler
{
public:
    RegExpCompiler(std::string_view pattern, std::vector<unsigned char> & code) : m_rest(pattern), m_code(code) {}

    /// Returns whether every match has at least one character.
    bool Compile(int & groups);

private:
    struct Piece
    {
        std::size_t start;
        bool bHasWidth; // can't be matched by nothing
        bool bSimple;   // one operation that takes one character
    };
    struct Group
    {
        int nNumber;              // 0 is the whole pattern
        std::size_t start = NONE; // its first operation
        std::size_t piece = NONE; // the last piece of the present alternative
        bool bHasWidth = true;    // all alternatives so far
        bool bAlternativeHasWidth = false;
    };

    std::string_view m_rest;
    std::vector<unsigned char> & m_code;
    std::vector<Group> m_groups;
    int m_nGroups = 1;

    int Peek() const { return m_rest.empty() ? -1 : static_cast<unsigned char>(m_rest.front()); }
    int Take()
    {
        int const c = Peek();
        m_rest.remove_prefix(1);
        return c;
    }

    void Emit(int byte);
    std::size_t Node(int operation);
    std::size_t GroupNode(Operation operation, int number);
    void Insert(Operation operation, std::size_t at);
    void Link(std::size_t from, std::size_t to);
    void LinkAlternative(std::size_t branch, std::size_t to);

    void BeginGroup(int number);
    void BeginAlternative();
    void EndAlternative();
    Piece EndGroup();
    void AddPiece(Piece piece);
    Piece Repeat(Piece piece);
    Piece ParseAtom();
    Piece ParseEscape();
    Piece ParseSet();
    Piece ParseRun();
};

void RegExpCompiler::Emit(int byte)
{
    m_code.push_back(static_cast<unsigned char>(byte));
    if (m_code.size() >= RegExpProgram::SIZE_MAX_BYTES)
    {
        Fail(ERROR_TOO_BIG, "regexp too big");
    }
}

std::size_t RegExpCompiler::Node(int operation)
{
    std::size_t const at = m_code.size();
    Emit(operation);
    Emit(0);
    Emit(0);
    return at;
}

std::size_t RegExpCompiler::GroupNode(Operation operation, int number)
{
    if (number <= 9)
    {
        return Node(operation + number);
    }
    std::size_t const at = Node(operation);
    Emit(number >> 8);
    Emit(number & 0xFF);
    return at;
}

// Puts an operation in front of the ones that begin there, which move as a whole: their distances hold.
void RegExpCompiler::Insert(Operation operation, std::size_t at)
{
    if (m_code.size() + HEAD >= RegExpProgram::SIZE_MAX_BYTES)
    {
        Fail(ERROR_TOO_BIG, "regexp too big");
    }
    unsigned char const node[HEAD] = {operation, 0, 0};
    m_code.insert(m_code.begin() + static_cast<std::ptrdiff_t>(at), node, node + HEAD);
}

// Makes `to` the next of the last operation in the chain.
void RegExpCompiler::Link(std::size_t from, std::size_t to)
{
    for (std::size_t next = NextOf(m_code, from); next != NONE; next = NextOf(m_code, from))
    {
        from = next;
    }
    std::size_t const distance = m_code[from] == Back ? from - to : to - from;
    m_code[from + 1] = static_cast<unsigned char>(distance >> 8);
    m_code[from + 2] = static_cast<unsigned char>(distance);
}

void RegExpCompiler::LinkAlternative(std::size_t branch, std::size_t to)
{
    if (m_code[branch] == Branch)
    {
        Link(branch + HEAD, to);
    }
}

void RegExpCompiler::BeginGroup(int number)
{
    Group group{number};
    if (number > 0)
    {
        group.start = GroupNode(Open, number);
    }
    m_groups.push_back(group);
    BeginAlternative();
}

void RegExpCompiler::BeginAlternative()
{
    Group & group = m_groups.back();
    std::size_t const branch = Node(Branch);
    if (group.start == NONE)
    {
        group.start = branch;
    }
    else
    {
        Link(group.start, branch);
    }
    group.piece = NONE;
    group.bAlternativeHasWidth = false;
}

void RegExpCompiler::EndAlternative()
{
    Group & group = m_groups.back();
    if (group.piece == NONE)
    {
        Node(Nothing);
    }
    group.bHasWidth = group.bHasWidth && group.bAlternativeHasWidth;
}

RegExpCompiler::Piece RegExpCompiler::EndGroup()
{
    Group const group = m_groups.back();
    m_groups.pop_back();
    std::size_t const end = group.nNumber > 0 ? GroupNode(Close, group.nNumber) : Node(End);
    Link(group.start, end);
    for (std::size_t at = group.start; at != NONE; at = NextOf(m_code, at))
    {
        LinkAlternative(at, end);
    }
    return {group.start, group.bHasWidth, false};
}

RegExpCompiler::Piece RegExpCompiler::Repeat(Piece piece)
{
    int const c = Peek();
    if (!IsRepeat(c))
    {
        return piece;
    }
    if (!piece.bHasWidth && c != '?')
    {
        Fail(ERROR_REPEAT, "*+ operand could be empty");
    }
    std::size_t const start = piece.start;
    if (piece.bSimple && c != '?')
    {
        Insert(c == '*' ? Star : Plus, start);
    }
    else if (c == '*')
    {
        // An alternative that comes back behind itself, and an empty one.
        Insert(Branch, start);
        LinkAlternative(start, Node(Back));
        LinkAlternative(start, start);
        Link(start, Node(Branch));
        Link(start, Node(Nothing));
    }
    else if (c == '+')
    {
        std::size_t const again = Node(Branch);
        Link(start, again);
        Link(Node(Back), start);
        Link(again, Node(Branch));
        Link(start, Node(Nothing));
    }
    else
    {
        Insert(Branch, start);
        Link(start, Node(Branch));
        std::size_t const behind = Node(Nothing);
        Link(start, behind);
        LinkAlternative(start, behind);
    }
    Take();
    if (IsRepeat(Peek()))
    {
        Fail(ERROR_REPEAT, "nested *?+");
    }
    return {start, c == '+', false};
}

void RegExpCompiler::AddPiece(Piece piece)
{
    piece = Repeat(piece);
    Group & group = m_groups.back();
    if (group.piece != NONE)
    {
        Link(group.piece, piece.start);
    }
    group.piece = piece.start;
    group.bAlternativeHasWidth = group.bAlternativeHasWidth || piece.bHasWidth;
}

RegExpCompiler::Piece RegExpCompiler::ParseAtom()
{
    switch (Peek())
    {
    case '^':
        Take();
        return {Node(TextStart), false, false};
    case '$':
        Take();
        return {Node(TextEnd), false, false};
    case '.':
        Take();
        return {Node(Any), true, true};
    case '[':
        return ParseSet();
    case '\\':
        return ParseEscape();
    case '*':
    case '+':
    case '?':
        Fail(ERROR_REPEAT, "?+* follows nothing");
    default:
        return ParseRun();
    }
}

RegExpCompiler::Piece RegExpCompiler::ParseEscape()
{
    Take();
    if (m_rest.empty())
    {
        Fail(ERROR_ESCAPE, "trailing \\");
    }
    int const c = Take();
    if (c == '<' || c == '>')
    {
        return {Node(c == '<' ? WordStart : WordEnd), false, false};
    }
    bool const bUpper = c >= 'A' && c <= 'Z';
    std::size_t const index = CLASS_LETTERS.find(static_cast<char>(bUpper ? c - 'A' + 'a' : c));
    if (index != CLASS_LETTERS.npos)
    {
        // An upper-case letter doesn't mean the complement, but the row in front: so it is settled.
        std::size_t const at = Node(Class);
        Emit(static_cast<int>(index) - (bUpper ? 1 : 0));
        return {at, true, true};
    }
    std::size_t const at = Node(Exactly);
    Emit(c);
    Emit(0);
    return {at, true, true};
}

RegExpCompiler::Piece RegExpCompiler::ParseSet()
{
    Take();
    bool const bNot = Peek() == '^';
    if (bNot)
    {
        Take();
    }
    std::size_t const at = Node(bNot ? AnyBut : AnyOf);
    int last = -1;
    if (Peek() == ']' || Peek() == '-')
    {
        Emit(last = Take());
    }
    while (Peek() != -1 && Peek() != ']')
    {
        int const c = Take();
        if (c != '-' || Peek() == -1 || Peek() == ']')
        {
            Emit(last = c);
            continue;
        }
        int const end = Take();
        if (last > end)
        {
            Fail(ERROR_RANGE, "invalid [] range");
        }
        for (int member = last + 1; member <= end; ++member)
        {
            Emit(member);
        }
        last = end;
    }
    if (Peek() != ']')
    {
        Fail(ERROR_BRACKETS, "unmatched []");
    }
    Take();
    Emit(0);
    return {at, true, true};
}

RegExpCompiler::Piece RegExpCompiler::ParseRun()
{
    std::size_t length = std::min(m_rest.find_first_of("^$.[()|?+*\\"), m_rest.size());
    if (length == 0)
    {
        Fail(-99, "internal error: strcspn 0");
    }
    if (length > 1 && length < m_rest.size() && IsRepeat(static_cast<unsigned char>(m_rest[length])))
    {
        --length; // what is repeated is the last character
    }
    std::size_t const at = Node(Exactly);
    bool const bSimple = length == 1;
    for (; length > 0; --length)
    {
        Emit(Take());
    }
    Emit(0);
    return {at, true, bSimple};
}

bool RegExpCompiler::Compile(int & groups)
{
    for (BeginGroup(0);;)
    {
        int const c = Peek();
        if (c == '(')
        {
            Take();
            if (m_nGroups >= RegExpProgram::GROUPS_MAX)
            {
                Fail(ERROR_GROUPS, "Too many ()");
            }
            BeginGroup(m_nGroups++);
        }
        else if (c != -1 && c != '|' && c != ')')
        {
            AddPiece(ParseAtom());
        }
        else if (EndAlternative(); c == '|')
        {
            Take();
            BeginAlternative();
        }
        else if (m_groups.size() > 1)
        {
            if (c != ')')
            {
                Fail(ERROR_GROUPS, "unterminated ()");
            }
            Take();
            AddPiece(EndGroup());
        }
        else if (c == ')')
        {
            Fail(ERROR_GROUPS, "unmatched ()");
        }
        else
        {
            groups = m_nGroups;
            return EndGroup().bHasWidth;
        }
    }
}

RegExpProgram::RegExpProgram(std::string_view pattern)
{
    m_code.push_back(MAGIC);
    // In the notation a pattern ends at a NUL, as a text in it does.
    bool const bHasWidth = RegExpCompiler(pattern.substr(0, pattern.find('\0')), m_code).Compile(m_nGroups);
    CollectSets();
    Optimise(bHasWidth);
}

// What the search can look for first: a text where there is one alternative at the top, else a set.
void RegExpProgram::Optimise(bool hasWidth)
{
    m_bHasFirst = AddFirst(1, m_first, 0);
    std::size_t at = 1;
    if (m_code[NextOf(m_code, at)] != End)
    {
        return;
    }
    at += HEAD;
    if (m_code[at] == Exactly)
    {
        m_prefix = TextAt(m_code, at);
    }
    m_bAnchored = m_code[at] == TextStart;
    for (; hasWidth && at != NONE; at = NextOf(m_code, at))
    {
        if (m_code[at] == Exactly && TextAt(m_code, at).size() >= m_must.size())
        {
            m_must = TextAt(m_code, at);
        }
    }
}

// Adds what a match that begins with this operation can start with. False where that isn't known, or can be nothing.
bool RegExpProgram::AddFirst(std::size_t at, CharSet & set, int depth) const
{
    constexpr int DEPTH_MAX = 20;
    unsigned char const operation = m_code[at];
    if (TestsOneCharacter(operation))
    {
        set |= m_sets[m_setOf[at]];
        return true;
    }
    if (operation == Exactly)
    {
        set.set(m_code[at + HEAD]);
        return true;
    }
    if (operation == Plus)
    {
        return AddFirst(at + HEAD, set, depth);
    }
    if (depth == DEPTH_MAX)
    {
        return false;
    }
    if ((operation >= Open && operation < Close) || operation == WordStart)
    {
        return AddFirst(NextOf(m_code, at), set, depth + 1);
    }
    bool bKnown = operation == Branch;
    for (; bKnown && m_code[at] == Branch; at = NextOf(m_code, at))
    {
        bKnown = AddFirst(at + HEAD, set, depth + 1);
    }
    return bKnown;
}

// The operations that test one character, as sets: a search through each operand would cost far more.
void RegExpProgram::CollectSets()
{
    m_setOf.resize(m_code.size());
    std::size_t at = 1;
    while (at < m_code.size())
    {
        unsigned char const operation = m_code[at];
        std::size_t operand = 0;
        if (operation == AnyOf || operation == AnyBut || operation == Exactly)
        {
            operand = TextAt(m_code, at).size() + 1;
        }
        else if (operation == Class)
        {
            operand = 1;
        }
        else if (operation == Open || operation == Close)
        {
            operand = 2;
        }
        if (TestsOneCharacter(operation) || (operation == Exactly && operand == 2))
        {
            CharSet set;
            for (std::size_t c = 0; c < set.size(); ++c)
            {
                auto const member = static_cast<char>(c);
                bool const bListed = operand > 1 && c != 0 && TextAt(m_code, at).find(member) != std::string_view::npos;
                set[c] = operation == Any ? true
                         : operation == Class
                             ? IsInClass(static_cast<signed char>(m_code[at + HEAD]), static_cast<unsigned char>(c))
                         : operation == AnyBut ? !bListed
                                               : bListed;
            }
            m_setOf[at] = static_cast<unsigned short>(m_sets.size());
            m_sets.push_back(set);
        }
        at += HEAD + operand;
    }
}
} // namespace kvx
