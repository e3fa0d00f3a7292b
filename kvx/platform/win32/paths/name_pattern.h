#pragma once

/// Patterns of file names, for the code of this folder.

#include "kvx/platform/win32/upcase.h"

#include <string_view>
#include <vector>

namespace kvx::win32
{

/// Matches names against a pattern with the rules of the original's file systems.
class NamePattern
{
public:
    explicit NamePattern(std::u16string_view pattern)
    {
        if (pattern == u"*" || pattern == u"*.*")
        {
            m_tokens = {{Token::AnyRun, 0}};
            return;
        }
        for (std::size_t n = 0; n < pattern.size(); ++n)
        {
            char16_t const c = pattern[n];
            char16_t const cNext = n + 1 < pattern.size() ? pattern[n + 1] : u'\0';
            if (c == u'*')
            {
                m_tokens.push_back({cNext == u'.' ? Token::RunToLastDot : Token::AnyRun, 0});
            }
            else if (c == u'?')
            {
                m_tokens.push_back({Token::AnyOrNone, 0});
            }
            else if (c == u'.' && (cNext == u'*' || cNext == u'?' || cNext == 0))
            {
                m_tokens.push_back({Token::DotOrEnd, 0});
            }
            else
            {
                m_tokens.push_back({Token::One, UpCase(c)});
            }
        }
    }

    static bool HasWildcards(std::u16string_view pattern) { return pattern.find_first_of(u"*?") != pattern.npos; }

    bool Matches(std::u16string_view name) const
    {
        if (m_tokens.size() == 1 && m_tokens[0].kind == Token::AnyRun)
        {
            return true;
        }
        // All positions of the pattern that the name read so far can have reached: no pattern takes more than
        // its length times the name's.
        std::vector<bool> reached(m_tokens.size() + 1);
        reached[0] = true;
        std::size_t const nLastDot = name.rfind(u'.');
        for (std::size_t n = 0;; ++n)
        {
            bool const bEnd = n == name.size();
            for (std::size_t i = 0; i < m_tokens.size(); ++i)
            {
                if (reached[i] && MayPass(m_tokens[i], bEnd, bEnd ? u'\0' : name[n]))
                {
                    reached[i + 1] = true;
                }
            }
            if (bEnd)
            {
                return reached.back();
            }
            std::vector<bool> next(m_tokens.size() + 1);
            char16_t const c = UpCase(name[n]);
            for (std::size_t i = 0; i < m_tokens.size(); ++i)
            {
                if (!reached[i])
                {
                    continue;
                }
                switch (m_tokens[i].kind)
                {
                case Token::One:
                    next[i + 1] = next[i + 1] || m_tokens[i].c == c;
                    break;
                case Token::AnyOrNone:
                    next[i + 1] = next[i + 1] || c != u'.';
                    break;
                case Token::DotOrEnd:
                    next[i + 1] = next[i + 1] || c == u'.';
                    break;
                case Token::AnyRun:
                    next[i] = true;
                    break;
                case Token::RunToLastDot:
                    next[i] = next[i] || n != nLastDot;
                    break;
                }
            }
            reached.swap(next);
        }
    }

private:
    struct Token
    {
        enum Kind
        {
            One,         ///< this character
            AnyOrNone,   ///< a character; nothing before a dot or at the end
            DotOrEnd,    ///< a dot, or nothing at the end
            AnyRun,      ///< any characters
            RunToLastDot ///< any characters but the last dot
        } kind;
        char16_t c;
    };

    static bool MayPass(Token const & token, bool bEnd, char16_t c)
    {
        switch (token.kind)
        {
        case Token::One:
            return false;
        case Token::AnyOrNone:
            return bEnd || c == u'.';
        case Token::DotOrEnd:
            return bEnd;
        default:
            return true;
        }
    }

    std::vector<Token> m_tokens;
};

} // namespace kvx::win32
