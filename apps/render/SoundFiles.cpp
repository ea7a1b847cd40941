#include "render/SoundFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <vector>

namespace tarnlow::render {
namespace {

int MajorOf(FileKind kind)
{
    switch (kind) {
    case FileKind::Wav: return SF_FORMAT_WAV;
    case FileKind::Flac: return SF_FORMAT_FLAC;
    case FileKind::Aiff: return SF_FORMAT_AIFF;
    case FileKind::AsInput: break;
    }
    return 0;
}

int SubtypeOf(SampleKind samples)
{
    switch (samples) {
    case SampleKind::Pcm16: return SF_FORMAT_PCM_16;
    case SampleKind::Pcm24: return SF_FORMAT_PCM_24;
    case SampleKind::Float: return SF_FORMAT_FLOAT;
    case SampleKind::AsInput: break;
    }
    return 0;
}

bool Writable(int format, int channels, int sampleRate)
{
    SF_INFO info{};
    info.format = format;
    info.channels = channels;
    info.samplerate = sampleRate;
    return sf_format_check(&info) == SF_TRUE;
}

// Float keeps every peak the cabinet may add; FLAC holds integers only.
int DefaultSubtype(int major, int channels, int sampleRate)
{
    for (const int subtype : {SF_FORMAT_FLOAT, SF_FORMAT_PCM_24, SF_FORMAT_PCM_16})
        if (Writable(major | subtype, channels, sampleRate)) return subtype;
    return 0;
}

std::string FormatInfoName(int format, int command)
{
    SF_FORMAT_INFO info{};
    info.format = format;
    if (sf_command(nullptr, command, &info, sizeof(info)) != 0 || info.name == nullptr) {
        std::ostringstream text;
        text << "format 0x" << std::hex << format;
        return text.str();
    }
    return info.name;
}

std::string MajorName(int format)
{
    return FormatInfoName(format & SF_FORMAT_TYPEMASK, SFC_GET_FORMAT_INFO);
}

std::string SubtypeName(int format)
{
    return FormatInfoName(format & SF_FORMAT_SUBMASK, SFC_GET_FORMAT_INFO);
}

FormatChoice Unwritable(int major, int subtype, bool subtypeAsked)
{
    if (subtypeAsked)
        return {0, MajorName(major) + " files cannot hold " + SubtypeName(subtype) + " samples"};
    return {0, "cannot write " + MajorName(major) + " files; choose --format wav, flac or aiff"};
}

std::string SystemError(int error)
{
    return std::strerror(error);
}

// libsndfile opens a file whose audio ends before its header says, with the frame count
// cut to what is there; only its log tells. Such a file is damaged, not short.
bool HeaderPromisesMoreThanFile(SNDFILE* file)
{
    std::vector<char> log(16384, '\0');
    sf_command(file, SFC_GET_LOG_INFO, log.data(), int(log.size()) - 1);
    std::istringstream lines(log.data());
    for (std::string line; std::getline(lines, line);) {
        const auto first = line.find_first_not_of(' ');
        if (first == std::string::npos) continue;
        const std::string_view text = std::string_view(line).substr(first);
        const bool audioChunk = text.starts_with("data ") || text.starts_with("SSND ");
        if (audioChunk && text.find("(should be") != std::string_view::npos) return true;
        if (text.find("> file length") != std::string_view::npos) return true;
    }
    return false;
}

}  // namespace

FormatChoice ResolveOutputFormat(int inputFormat, FileKind kind, SampleKind samples, int channels, int sampleRate)
{
    const int inputMajor = inputFormat & SF_FORMAT_TYPEMASK;
    const int major = kind == FileKind::AsInput ? inputMajor : MajorOf(kind);
    const bool subtypeAsked = samples != SampleKind::AsInput;
    int subtype = subtypeAsked ? SubtypeOf(samples) : inputFormat & SF_FORMAT_SUBMASK;
    if (!subtypeAsked && !Writable(major | subtype, channels, sampleRate))
        subtype = DefaultSubtype(major, channels, sampleRate);
    const int plain = major | subtype;
    if (subtype == 0 || !Writable(plain, channels, sampleRate))
        return Unwritable(major, subtype, subtypeAsked);
    // The input's byte order goes along when the file type stays.
    const int endian = major == inputMajor ? inputFormat & SF_FORMAT_ENDMASK : 0;
    if (endian != 0 && Writable(plain | endian, channels, sampleRate)) return {plain | endian, {}};
    return {plain, {}};
}

std::optional<int> FormatFromExtension(const std::string& path)
{
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    if (extension == ".wav" || extension == ".wave") return SF_FORMAT_WAV;
    if (extension == ".flac") return SF_FORMAT_FLAC;
    if (extension == ".aif" || extension == ".aiff" || extension == ".aifc") return SF_FORMAT_AIFF;
    return std::nullopt;
}

FormatChoice ImpulseFormat(const std::string& path, FileKind kind, SampleKind samples, int sampleRate)
{
    int major = MajorOf(kind);
    if (major == 0) {
        const auto fromName = FormatFromExtension(path);
        if (!fromName)
            return {0, "cannot tell the format of '" + path + "' from its name; add --format wav, flac or aiff"};
        major = *fromName;
    }
    const bool subtypeAsked = samples != SampleKind::AsInput;
    const int subtype = subtypeAsked ? SubtypeOf(samples) : DefaultSubtype(major, 1, sampleRate);
    if (subtype == 0 || !Writable(major | subtype, 1, sampleRate)) return Unwritable(major, subtype, subtypeAsked);
    return {major | subtype, {}};
}

std::string DescribeFormat(int format)
{
    return MajorName(format) + ", " + SubtypeName(format);
}

bool HoldsFloatSamples(int format)
{
    const int subtype = format & SF_FORMAT_SUBMASK;
    return subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE;
}

SoundInput::SoundInput(const std::string& path) : path(path)
{
    std::error_code error;
    if (!std::filesystem::exists(path, error)) throw FileError("cannot read '" + path + "': no such file");
    if (std::filesystem::is_directory(path, error)) throw FileError("cannot read '" + path + "': it is a directory");
    file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) throw FileError("cannot read '" + path + "': " + sf_strerror(nullptr));
    if (HeaderPromisesMoreThanFile(file)) {
        sf_close(file);
        file = nullptr;
        throw FileError("cannot read '" + path + "': the file is truncated (its header promises more audio)");
    }
    if (info.channels < 1 || info.samplerate < 1) {
        sf_close(file);
        file = nullptr;
        throw FileError("cannot read '" + path + "': no channels or no sample rate");
    }
}

SoundInput::~SoundInput()
{
    if (file != nullptr) sf_close(file);
}

std::size_t SoundInput::Read(float* interleaved, std::size_t frames)
{
    const sf_count_t read = sf_readf_float(file, interleaved, sf_count_t(frames));
    if (sf_error(file) != SF_ERR_NO_ERROR)
        throw FileError("cannot read '" + path + "': " + sf_strerror(file));
    return read > 0 ? std::size_t(read) : 0;
}

void SoundInput::CopyTextTo(SNDFILE* output) const
{
    for (int field = SF_STR_FIRST; field <= SF_STR_LAST; ++field) {
        if (field == SF_STR_SOFTWARE) continue;
        if (const char* text = sf_get_string(file, field)) sf_set_string(output, field, text);
    }
}

PendingOutput::PendingOutput(const std::string& path, int format, int channels, int sampleRate, bool overwrite)
    : path(path), overwrite(overwrite)
{
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status)) throw FileError("cannot write '" + path + "': it is a directory");
    const bool exists = fs::exists(status);
    if (exists && !overwrite) throw FileError("'" + path + "' exists; add --force to replace it");

    fs::path folder = fs::path(path).parent_path();
    if (folder.empty()) folder = ".";
    std::string hiddenName(1, '.');
    hiddenName.append(fs::path(path).filename().string()).append(".tarnlow-XXXXXX");
    std::string pattern = (folder / hiddenName).string();
    const int descriptor = mkstemp(pattern.data());
    if (descriptor < 0) throw FileError("cannot write '" + path + "': " + SystemError(errno));
    temporaryPath = pattern;

    // mkstemp makes the file private; the result gets the mode a plain new file would have,
    // or the mode of the file it replaces.
    mode_t mode = 0;
    struct stat existing {};
    if (exists && ::stat(path.c_str(), &existing) == 0) {
        mode = existing.st_mode & 07777;
    } else {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }
    ::fchmod(descriptor, mode);

    SF_INFO info{};
    info.format = format;
    info.channels = channels;
    info.samplerate = sampleRate;
    file = sf_open_fd(descriptor, SFM_WRITE, &info, SF_TRUE);
    if (file == nullptr) {
        const std::string reason = sf_strerror(nullptr);
        ::close(descriptor);
        Discard();
        throw FileError("cannot write '" + path + "' as " + DescribeFormat(format) + ": " + reason);
    }
    // Integer files: samples past full scale are clipped instead of wrapping around.
    if (!HoldsFloatSamples(format)) sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
}

PendingOutput::~PendingOutput()
{
    if (!committed) Discard();
}

void PendingOutput::Write(const float* interleaved, std::size_t frames)
{
    const sf_count_t written = sf_writef_float(file, interleaved, sf_count_t(frames));
    if (written != sf_count_t(frames)) throw FileError("cannot write '" + path + "': " + sf_strerror(file));
}

void PendingOutput::Commit()
{
    sf_write_sync(file);
    const int closed = sf_close(file);
    file = nullptr;
    if (closed != 0) throw FileError("cannot write '" + path + "': " + sf_error_number(closed));
    if (overwrite) {
        if (std::rename(temporaryPath.c_str(), path.c_str()) != 0)
            throw FileError("cannot write '" + path + "': " + SystemError(errno));
    } else {
        // Another program may have made OUTPUT since the check at the start: never replace it.
        if (::renameat2(AT_FDCWD, temporaryPath.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0) {
            const int error = errno;
            if (error == EEXIST) throw FileError("'" + path + "' exists; add --force to replace it");
            if (error != EINVAL && error != ENOSYS) throw FileError("cannot write '" + path + "': " + SystemError(error));
            // A file system without renameat2: link fails as well if OUTPUT exists.
            if (::link(temporaryPath.c_str(), path.c_str()) != 0) {
                const int linkError = errno;
                if (linkError == EEXIST) throw FileError("'" + path + "' exists; add --force to replace it");
                throw FileError("cannot write '" + path + "': " + SystemError(linkError));
            }
            ::unlink(temporaryPath.c_str());
        }
    }
    committed = true;
}

void PendingOutput::Discard() noexcept
{
    if (file != nullptr) {
        sf_close(file);
        file = nullptr;
    }
    if (!temporaryPath.empty()) ::unlink(temporaryPath.c_str());
}

}  // namespace tarnlow::render
