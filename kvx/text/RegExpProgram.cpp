#include "kvx/text/RegExpProgram.h"

#include <algorithm>
#include <cstdlib>
#include <deque>

namespace kvx
{
namespace
{
// An operation is a byte, two bytes with the distance to the next one (0: none; Back counts backwards), and an operand.
enum Operation : unsigned char
{
    End = 0,
    TextStart = 1,
    TextEnd = 2,
    Any = 3,
    AnyOf = 4,  // characters, ended by NUL
    AnyBut = 5, // the same
    Branch = 6, // an alternative; its operand is the operations of the alternative
    Back = 7,
    Exactly = 8, // characters, ended by NUL
    Nothing = 9,
    Star = 10,  // a single-character operation
    Plus = 11,  // the same
    Class = 12, // the number of a class
    WordStart = 13,
    WordEnd = 14,
    Open = 20, // the number of the group, two bytes; or, for groups 1 to 9, this operation and the number in one
    Close = 30
};

constexpr std::size_t HEAD = 3;
constexpr std::size_t NONE = ~std::size_t{0};

constexpr int ERROR_TOO_BIG = -2;
constexpr int ERROR_GROUPS = -4;
constexpr int ERROR_RANGE = -5;
constexpr int ERROR_BRACKETS = -6;
constexpr int ERROR_REPEAT = -7;
constexpr int ERROR_ESCAPE = -8;
constexpr int ERROR_STEPS = -50;

[[noreturn]] void Fail(int error, char const * complaint)
{
    throw RegExpFault{error, complaint};
}

// The classes, by their letters. These are the C locale's, whatever that of the process is.
constexpr std::string_view CLASS_LETTERS = "mabcdglpnsuxw";

bool IsInClass(int index, unsigned char c)
{
    bool const bDigit = c >= '0' && c <= '9';
    bool const bLower = c >= 'a' && c <= 'z';
    bool const bUpper = c >= 'A' && c <= 'Z';
    bool const bAlnum = bDigit || bLower || bUpper;
    bool const bGraph = c > ' ' && c < 0x7F;
    switch (index)
    {
    case 0:
        return bAlnum;
    case 1:
        return bLower || bUpper;
    case 2:
        return c == ' ' || c == '\t';
    case 3:
        return c < ' ' || c == 0x7F;
    case 4:
        return bDigit;
    case 5:
        return bGraph;
    case 6:
        return bLower;
    case 7:
        return bGraph || c == ' ';
    case 8:
        return bGraph && !bAlnum;
    case 9:
        return c == ' ' || (c >= '\t' && c <= '\r');
    case 10:
        return bUpper;
    case 11:
        return bDigit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    case 12:
        return bAlnum || c == '_';
    default:
        return false; // there is no row in front of the first
    }
}

bool IsWord(unsigned char c)
{
    return IsInClass(12, c);
}

bool IsRepeat(int c)
{
    return c == '*' || c == '+' || c == '?';
}

std::size_t Distance(std::vector<unsigned char> const & code, std::size_t at)
{
    return static_cast<std::size_t>(code[at + 1]) << 8 | code[at + 2];
}

std::size_t NextOf(std::vector<unsigned char> const & code, std::size_t at)
{
    std::size_t const distance = Distance(code, at);
    return distance == 0 ? NONE : code[at] == Back ? at - distance : at + distance;
}

std::string_view TextAt(std::vector<unsigned char> const & code, std::size_t at)
{
    return reinterpret_cast<char const *>(code.data() + at + HEAD); // ended by NUL
}

bool TestsOneCharacter(unsigned char operation)
{
    return operation == Any || operation == AnyOf || operation == AnyBut || operation == Class;
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

/// The steps that a search has left.
class RegExpBudget
{
public:
    explicit RegExpBudget(ULONGLONG steps) : m_nLeft(steps) {}

    void Spend(ULONGLONG steps)
    {
        if (steps > m_nLeft)
        {
            Fail(ERROR_STEPS, "too many steps");
        }
        m_nLeft -= steps;
    }

private:
    ULONGLONG m_nLeft;
};

namespace
{
// Where the text is, from `start` on, or npos. A text that nearly fits everywhere costs its length each time, and so is
// paid for.
std::size_t FindText(std::string_view subject, std::string_view text, std::size_t start, RegExpBudget & budget)
{
    while (text.size() <= subject.size() && start <= subject.size() - text.size())
    {
        std::size_t const found = subject.find(text.front(), start);
        if (found == subject.npos || found > subject.size() - text.size())
        {
            return subject.npos;
        }
        auto const end = std::mismatch(text.begin(), text.end(), subject.begin() + static_cast<std::ptrdiff_t>(found));
        if (end.first == text.end())
        {
            return found;
        }
        budget.Spend((found - start + static_cast<std::size_t>(end.first - text.begin())) / 16);
        start = found + 1;
    }
    return subject.npos;
}
} // namespace

/// One search. What could still be tried stands on a stack of its own, and what groups have been passed on a trail that
/// is cut when the search goes back.
class RegExpMatch
{
public:
    RegExpMatch(RegExpProgram const & program, std::string_view subject, RegExpBudget & budget)
        : m_program(program), m_code(program.m_code), m_subject(subject), m_budget(budget)
    {
    }

    bool TryAt(std::size_t start);
    void Report(std::vector<RegExpRange> & ranges) const;

private:
    // To go on at an operation from a place in the subject; for a repeat, with the counts from the smallest to the
    // largest one that are still to be tried, from the place where it begins.
    struct Choice
    {
        unsigned int operation : 30;
        unsigned int bRepeat : 1;
        unsigned int bAtLeastOne : 1;
        unsigned int place;
        unsigned int trail;
        unsigned int largest;
    };
    struct Passed
    {
        int nGroup; // negative: closed
        unsigned int place;
    };

    RegExpProgram const & m_program;
    std::vector<unsigned char> const & m_code;
    std::string_view m_subject;
    RegExpBudget & m_budget;
    // In blocks: what a vector needs to grow would count twice.
    std::deque<Choice> m_choices;
    std::deque<Passed> m_trail;
    std::size_t m_start = 0;
    std::size_t m_at = 0;    // in the code
    std::size_t m_place = 0; // in the subject

    void CheckMemory() const
    {
        if (m_choices.size() * sizeof(Choice) + m_trail.size() * sizeof(Passed) >= RegExpProgram::MEMORY_MAX)
        {
            Fail(ERROR_STEPS, "too many places to come back to");
        }
    }
    void Push(Choice const & choice)
    {
        CheckMemory();
        m_choices.push_back(choice);
    }
    bool IsMember(std::size_t operation, std::size_t place) const
    {
        return m_program.m_sets[m_program.m_setOf[operation]][static_cast<unsigned char>(m_subject[place])];
    }
    Choice MakeChoice(std::size_t operation, bool isRepeat, bool atLeastOne, unsigned int largest) const
    {
        return {
            static_cast<unsigned int>(operation) & 0x3FFFFFFF, isRepeat, atLeastOne, static_cast<unsigned int>(m_place),
            static_cast<unsigned int>(m_trail.size()),         largest};
    }
    bool Step();
    bool GoBack();
    bool TakeRepeat(Choice const & repeat);
    bool IsWordBorder(bool atStart) const;
};

bool RegExpMatch::IsWordBorder(bool atStart) const
{
    bool const bBefore = m_place > 0 && IsWord(static_cast<unsigned char>(m_subject[m_place - 1]));
    bool const bHere = m_place < m_subject.size() && IsWord(static_cast<unsigned char>(m_subject[m_place]));
    return atStart ? bHere && !bBefore : bBefore && !bHere;
}

// Goes on behind the repeat with the largest count that what follows doesn't rule out at once.
bool RegExpMatch::TakeRepeat(Choice const & repeat)
{
    std::size_t const next = NextOf(m_code, repeat.operation);
    int const follows = m_code[next] == Exactly ? m_code[next + HEAD] : -1;
    unsigned int const smallest = repeat.bAtLeastOne ? 1 : 0;
    unsigned int count = repeat.largest;
    if (follows >= 0)
    {
        auto const fits = [&](unsigned int tried)
        {
            std::size_t const place = repeat.place + tried;
            return place < m_subject.size() && static_cast<unsigned char>(m_subject[place]) == follows;
        };
        while (count > smallest && !fits(count))
        {
            --count;
        }
        m_budget.Spend((repeat.largest - count) / 16);
        if (!fits(count))
        {
            return false;
        }
    }
    if (count > smallest)
    {
        Choice fewer = repeat;
        fewer.largest = count - 1;
        Push(fewer);
    }
    m_place = repeat.place + count;
    m_at = next;
    return true;
}

// Takes the operation at m_at. False if it doesn't fit.
bool RegExpMatch::Step()
{
    unsigned char const operation = m_code[m_at];
    switch (operation)
    {
    case TextStart:
        if (m_place != 0)
        {
            return false;
        }
        break;
    case TextEnd:
        if (m_place != m_subject.size())
        {
            return false;
        }
        break;
    case Any:
    case AnyOf:
    case AnyBut:
    case Class:
        if (m_place == m_subject.size() || !IsMember(m_at, m_place))
        {
            return false;
        }
        ++m_place;
        break;
    case Exactly:
    {
        std::string_view const text = TextAt(m_code, m_at);
        m_budget.Spend(text.size() / 16);
        if (m_subject.compare(m_place, text.size(), text) != 0)
        {
            return false;
        }
        m_place += text.size();
        break;
    }
    case WordStart:
    case WordEnd:
        if (!IsWordBorder(operation == WordStart))
        {
            return false;
        }
        break;
    case Branch:
    {
        std::size_t const other = NextOf(m_code, m_at);
        if (m_code[other] == Branch)
        {
            Push(MakeChoice(other, false, false, 0));
        }
        m_at += HEAD;
        return true;
    }
    case Star:
    case Plus:
    {
        std::size_t end = m_place;
        while (end < m_subject.size() && IsMember(m_at + HEAD, end))
        {
            ++end;
        }
        auto const count = static_cast<unsigned int>(end - m_place);
        m_budget.Spend(count / 16);
        Choice const repeat = MakeChoice(m_at, true, operation == Plus, count);
        return (count > 0 || operation == Star) && TakeRepeat(repeat);
    }
    case Nothing:
    case Back:
        break;
    default: // groups
    {
        bool const bClose = operation >= Close;
        int const base = bClose ? Close : Open;
        int const group = operation == base ? m_code[m_at + HEAD] << 8 | m_code[m_at + HEAD + 1] : operation - base;
        CheckMemory();
        m_trail.push_back({bClose ? -group : group, static_cast<unsigned int>(m_place)});
        break;
    }
    }
    m_at = NextOf(m_code, m_at);
    return true;
}

// Takes up the last choice that was left. False if there is none.
bool RegExpMatch::GoBack()
{
    while (!m_choices.empty())
    {
        Choice const choice = m_choices.back();
        m_choices.pop_back();
        m_budget.Spend(1);
        m_trail.resize(choice.trail);
        if (!choice.bRepeat)
        {
            m_at = choice.operation;
            m_place = choice.place;
            return true;
        }
        if (TakeRepeat(choice))
        {
            return true;
        }
    }
    return false;
}

bool RegExpMatch::TryAt(std::size_t start)
{
    m_choices.clear();
    m_trail.clear();
    m_start = m_place = start;
    m_at = 1;
    while (m_code[m_at] != End)
    {
        m_budget.Spend(1);
        if (!Step() && !GoBack())
        {
            return false;
        }
    }
    return true;
}

// A group that was passed several times has its last values.
void RegExpMatch::Report(std::vector<RegExpRange> & ranges) const
{
    ranges[0] = {static_cast<int>(m_start), static_cast<int>(m_place)};
    for (Passed const & passed : m_trail)
    {
        RegExpRange & range = ranges[static_cast<std::size_t>(std::abs(passed.nGroup))];
        (passed.nGroup < 0 ? range.nEnd : range.nStart) = static_cast<int>(passed.place);
    }
}

bool RegExpProgram::Search(std::string_view subject, std::vector<RegExpRange> & ranges, ULONGLONG limit) const
{
    if (m_code.empty() || m_code.front() != MAGIC)
    {
        Fail(-1, "corrupted regexp");
    }
    RegExpBudget budget(limit);
    bool const bMust = !m_must.empty() && m_must.data() != m_prefix.data();
    if (bMust && FindText(subject, m_must, 0, budget) == subject.npos)
    {
        return false;
    }
    RegExpMatch match(*this, subject, budget);
    for (std::size_t start = 0; SkipToStart(subject, start, budget); ++start)
    {
        if (match.TryAt(start))
        {
            match.Report(ranges);
            return true;
        }
    }
    return false;
}

// Moves on to the next place where a match may start. False if there is none.
bool RegExpProgram::SkipToStart(std::string_view subject, std::size_t & start, RegExpBudget & budget) const
{
    if (start > subject.size() || (m_bAnchored && start > 0))
    {
        return false;
    }
    if (!m_prefix.empty())
    {
        start = FindText(subject, m_prefix, start, budget);
        return start != subject.npos;
    }
    if (m_bHasFirst)
    {
        while (start < subject.size() && !m_first[static_cast<unsigned char>(subject[start])])
        {
            ++start;
        }
        return start < subject.size();
    }
    return true;
}
} // namespace kvx
