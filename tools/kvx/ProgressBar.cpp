#include "ProgressBar.h"

#include "StandardOutput.h"

#include "kvx/platform/Terminal.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

namespace
{
constexpr ULONGLONG LARGE = 256ull << 20;
constexpr ULONGLONG EVERY = 100; // milliseconds
constexpr std::size_t BAR_WIDTH = 40;
} // namespace

ProgressBar::ProgressBar(ULONGLONG size)
    : m_nSize(size), m_nStart(GetTickCount64()),
      m_bWanted(size > LARGE && kvx::TakesEscapes(kvx::StandardStream::Error))
{
}

void ProgressBar::Add(ULONGLONG size)
{
    m_nDone += size;
    ULONGLONG const now = GetTickCount64();
    if (!m_bWanted || now - m_nShown < EVERY)
    {
        return;
    }
    m_nShown = now;
    m_bVisible = true;
    double const part = std::min(1.0, static_cast<double>(m_nDone) / static_cast<double>(m_nSize));
    auto const filled = static_cast<std::size_t>(part * BAR_WIDTH);
    double const seconds = std::max(0.001, static_cast<double>(now - m_nStart) / 1000);
    auto const left = static_cast<ULONGLONG>(seconds * (1 - part) / std::max(part, 0.001));
    std::array<char, 200> line{};
    std::snprintf(line.data(), line.size(), "\r[%s%s] %3d%%  %llu MiB  %.0f MiB/s  %llu:%02llu left\x1B[K",
                  std::string(filled, '#').c_str(), std::string(BAR_WIDTH - filled, '.').c_str(),
                  static_cast<int>(part * 100), m_nDone >> 20, static_cast<double>(m_nDone) / seconds / (1 << 20),
                  left / 60, left % 60);
    WriteError(line.data());
}

void ProgressBar::Hide()
{
    if (m_bVisible)
    {
        WriteError("\r\x1B[K");
        m_bVisible = false;
    }
}
