#include "render/Progress.h"

#include <algorithm>
#include <string>

namespace tarnlow::render {

namespace {
constexpr int64_t longFileSeconds = 60;
constexpr int barWidth = 40;
}  // namespace

bool ShouldShowProgress(bool isTerminal, int64_t frames, int sampleRate)
{
    return isTerminal && sampleRate > 0 && frames >= longFileSeconds * int64_t(sampleRate);
}

ProgressBar::ProgressBar(std::FILE* stream, int64_t totalFrames, bool enabled)
    : stream(stream), total(std::max<int64_t>(totalFrames, 1)), enabled(enabled)
{
}

ProgressBar::~ProgressBar()
{
    Finish();
}

void ProgressBar::Update(int64_t doneFrames)
{
    if (!enabled) return;
    const int percent = int(std::clamp<int64_t>(doneFrames * 100 / total, 0, 100));
    if (percent == shownPercent) return;
    shownPercent = percent;
    const int filled = percent * barWidth / 100;
    const std::string bar = std::string(std::size_t(filled), '#') + std::string(std::size_t(barWidth - filled), '-');
    std::fprintf(stream, "\r[%s] %3d%%", bar.c_str(), percent);
    std::fflush(stream);
}

void ProgressBar::Finish()
{
    if (!enabled || shownPercent < 0) return;
    std::fprintf(stream, "\r%*s\r", barWidth + 8, "");
    std::fflush(stream);
    shownPercent = -1;
}

}  // namespace tarnlow::render
