#include "kvx/text/RegExpCode.h"

#include <algorithm>
#include <cstdlib>
#include <deque>

namespace kvx
{
using namespace regexp;

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
