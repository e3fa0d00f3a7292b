#pragma once

#include "kvx/platform/mfc/Text.h"

#include <string_view>

/// A text to look up: what a text collection takes wherever no copy is needed. It is made from a CString, a
/// literal, a pointer (null is the empty text) or a view, never allocates, and lives as long as the call.
class CStringKey
{
public:
    using View = std::basic_string_view<WCHAR>;

    CStringKey(CString const & str) : m_view(str), m_pSource(&str) {}
    CStringKey(LPCTSTR psz) : m_view(psz ? View(psz) : View()) {}
    CStringKey(View view) : m_view(view) {}

    View GetView() const { return m_view; }

    /// Shares the characters of the CString it was made from.
    CString ToString() const { return m_pSource ? *m_pSource : CString(m_view); }

    friend bool operator==(CString const & str, CStringKey const & key) { return CString::View(str) == key.m_view; }

private:
    View m_view;
    CString const * m_pSource = nullptr;
};
