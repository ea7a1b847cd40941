#pragma once

// A one-line progress bar for long renders, drawn on a terminal only.

#include <cstdint>
#include <cstdio>

namespace tarnlow::render {

// A minute of audio or more, and a terminal to draw on: shorter files finish before a bar
// would say anything.
bool ShouldShowProgress(bool isTerminal, int64_t frames, int sampleRate);

class ProgressBar {
public:
    // Draws nothing unless `enabled`.
    ProgressBar(std::FILE* stream, int64_t totalFrames, bool enabled);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Update(int64_t doneFrames);
    // Clears the line, so that any message after it starts on a clean line.
    void Finish();

private:
    std::FILE* stream;
    int64_t total;
    bool enabled;
    int shownPercent = -1;
};

}  // namespace tarnlow::render
