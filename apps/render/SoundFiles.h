#pragma once

// The file side of tarnlow-render: reading through libsndfile, choosing the output format,
// and writing so that OUTPUT appears whole or not at all. Knows nothing of the library.

#include <sndfile.h>

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include "render/RenderOptions.h"

namespace tarnlow::render {

// A failure worth one line to the user: the text names the file and the reason.
class FileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Exactly one of the two is set.
struct FormatChoice {
    int format = 0;  // libsndfile SF_FORMAT_* word, major type | subtype | endianness
    std::string error;
};

// The output format of a render: the input's own unless `kind` or `samples` say otherwise. An
// input subtype that the new file type cannot hold falls back to float (24-bit for FLAC).
FormatChoice ResolveOutputFormat(int inputFormat, FileKind kind, SampleKind samples, int channels, int sampleRate);

// The format of an impulse response: `kind`, else the extension of `path`; float samples
// (24-bit for FLAC) unless `samples` says otherwise.
FormatChoice ImpulseFormat(const std::string& path, FileKind kind, SampleKind samples, int sampleRate);

// The major type that the extension of `path` names, if it is one tarnlow-render writes.
std::optional<int> FormatFromExtension(const std::string& path);

// "WAV (Microsoft), 16 bit PCM"
std::string DescribeFormat(int format);

bool HoldsFloatSamples(int format);

class SoundInput {
public:
    explicit SoundInput(const std::string& path);  // throws FileError
    ~SoundInput();
    SoundInput(const SoundInput&) = delete;
    SoundInput& operator=(const SoundInput&) = delete;

    const SF_INFO& Info() const { return info; }

    // Interleaved; fewer than `frames` only at the end of the file. Throws FileError on a
    // decoding error.
    std::size_t Read(float* interleaved, std::size_t frames);

    // Title, artist and the other text fields, carried into `output` where its type has room.
    void CopyTextTo(SNDFILE* output) const;

    const std::string& Path() const { return path; }

private:
    std::string path;
    SF_INFO info{};
    SNDFILE* file = nullptr;
};

// A new file under a temporary name in OUTPUT's folder; Commit renames it to OUTPUT. Until
// then OUTPUT is untouched, and a destructor before Commit removes the temporary file.
class PendingOutput {
public:
    // Throws FileError if OUTPUT exists and `overwrite` is false, or cannot be made.
    PendingOutput(const std::string& path, int format, int channels, int sampleRate, bool overwrite);
    ~PendingOutput();
    PendingOutput(const PendingOutput&) = delete;
    PendingOutput& operator=(const PendingOutput&) = delete;

    SNDFILE* Handle() const { return file; }
    void Write(const float* interleaved, std::size_t frames);  // throws FileError
    void Commit();                                             // throws FileError

    const std::string& Path() const { return path; }

private:
    void Discard() noexcept;

    std::string path;
    std::string temporaryPath;
    SNDFILE* file = nullptr;
    bool overwrite = false;
    bool committed = false;
};

}  // namespace tarnlow::render
