#include "kvx/LineEditor.h"

#include <histedit.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace
{
constexpr int LINES_KEPT = 1000;

void SaveHistory(History * history, std::string const & path)
{
    std::error_code ignored;
    fs::path const folder = fs::path(path).parent_path();
    if (!fs::exists(folder, ignored) && fs::create_directories(folder, ignored))
    {
        fs::permissions(folder, fs::perms::owner_all, ignored);
    }
    // Nobody else may read it at any time: it gets its mode before its contents.
    std::ofstream(path, std::ios::app).flush();
    std::error_code failed;
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write, failed);
    if (!failed)
    {
        HistEvent event;
        ::history(history, &event, H_SAVE, path.c_str());
    }
}
} // namespace

struct LineEditor::Parts
{
    std::string strPath;
    std::string strPrompt;
    EditLine * pEditor = nullptr;
    History * pHistory = nullptr;
    bool bInterrupted = false;

    static char * Prompt(EditLine * editor) { return Of(editor).strPrompt.data(); }
    static unsigned char OnInterrupt(EditLine * editor, int)
    {
        Of(editor).bInterrupted = true;
        return CC_NEWLINE;
    }
    static Parts & Of(EditLine * editor)
    {
        void * parts = nullptr;
        el_get(editor, EL_CLIENTDATA, &parts);
        return *static_cast<Parts *>(parts);
    }
};

LineEditor::LineEditor(std::string historyPath) : m_parts(std::make_unique<Parts>())
{
    std::setlocale(LC_CTYPE, ""); // which tells the editor how characters are written
    m_parts->strPath = std::move(historyPath);
    m_parts->pHistory = history_init();
    m_parts->pEditor = el_init("kvx", stdin, stderr, stderr);
    if (!IsUsable())
    {
        return;
    }
    HistEvent event;
    ::history(m_parts->pHistory, &event, H_SETSIZE, LINES_KEPT);
    ::history(m_parts->pHistory, &event, H_SETUNIQUE, 1);
    if (!m_parts->strPath.empty())
    {
        ::history(m_parts->pHistory, &event, H_LOAD, m_parts->strPath.c_str());
    }
    EditLine * const editor = m_parts->pEditor;
    el_set(editor, EL_CLIENTDATA, m_parts.get());
    el_set(editor, EL_PROMPT, &Parts::Prompt);
    el_set(editor, EL_HIST, &::history, m_parts->pHistory);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_ADDFN, "kvx-interrupt", "Give up the line", &Parts::OnInterrupt);
    // While a line is typed Ctrl-C is a key as any other; at all other times it is a signal.
    el_set(editor, EL_SETTY, "-d", "-isig", nullptr);
    el_set(editor, EL_BIND, "^C", "kvx-interrupt", nullptr);
}

LineEditor::~LineEditor()
{
    if (IsUsable() && !m_parts->strPath.empty())
    {
        SaveHistory(m_parts->pHistory, m_parts->strPath);
    }
    if (m_parts->pEditor)
    {
        el_end(m_parts->pEditor);
    }
    if (m_parts->pHistory)
    {
        history_end(m_parts->pHistory);
    }
}

bool LineEditor::IsUsable() const
{
    return m_parts->pEditor && m_parts->pHistory;
}

LineEditor::Key LineEditor::Read(std::string const & prompt, std::string & line)
{
    m_parts->strPrompt = prompt;
    m_parts->bInterrupted = false;
    int count = 0;
    char const * const text = el_gets(m_parts->pEditor, &count);
    if (m_parts->bInterrupted)
    {
        std::fputs("\n", stderr);
        return Key::Interrupt;
    }
    if (!text || count <= 0)
    {
        std::fputs("\n", stderr);
        return Key::End;
    }
    line.assign(text, static_cast<std::size_t>(count));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
    {
        line.pop_back();
    }
    return Key::Line;
}

void LineEditor::Remember(std::string const & line)
{
    HistEvent event;
    ::history(m_parts->pHistory, &event, H_ENTER, line.c_str());
}

std::string LineEditor::GetHelp()
{
    return "On a terminal lines can be edited, by libedit, and are kept for this user in kvx/sql_history below "
           "XDG_DATA_HOME or ~/.local/share; Ctrl-C gives up the line or the call, Ctrl-D or quit ends.";
}

std::string LineEditor::GetHistoryPath(std::string const & name)
{
    char const * const data = std::getenv("XDG_DATA_HOME");
    if (data && *data == '/')
    {
        return (fs::path(data) / "kvx" / name).string();
    }
    char const * const home = std::getenv("HOME");
    return home && *home == '/' ? (fs::path(home) / ".local/share/kvx" / name).string() : std::string();
}
