#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "render/SoundFiles.h"

namespace tarnlow::render {
namespace {

namespace fs = std::filesystem;

constexpr int wavFloat = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
constexpr int wav16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
constexpr int flac24 = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
constexpr int vorbis = SF_FORMAT_OGG | SF_FORMAT_VORBIS;

TEST(OutputFormat, FollowsTheInputOrTheExtensionUnlessToldAndFallsBackOnlyWhereItMust)
{
    const struct {
        int input;
        FileKind kind;
        SampleKind samples;
        int expected;
    } cases[] = {
        {wavFloat, FileKind::AsInput, SampleKind::Pcm16, wav16},
        {wav16, FileKind::Aiff, SampleKind::AsInput, SF_FORMAT_AIFF | SF_FORMAT_PCM_16},
        // The byte order is kept only within one file type.
        {SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_BIG, FileKind::AsInput, SampleKind::AsInput,
         SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_BIG},
        {SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_BIG, FileKind::Wav, SampleKind::AsInput, SF_FORMAT_WAV | SF_FORMAT_PCM_24},
        {wavFloat, FileKind::Flac, SampleKind::AsInput, flac24},  // FLAC holds no float: 24-bit keeps the most
        {vorbis, FileKind::Wav, SampleKind::AsInput, wavFloat},   // compressed input: float samples
        {wav16, FileKind::Flac, SampleKind::Float, 0},
        {vorbis, FileKind::AsInput, SampleKind::Pcm24, 0},
    };
    for (const auto& c : cases) {
        const FormatChoice choice = ResolveOutputFormat(c.input, c.kind, c.samples, 1, 48000);
        EXPECT_EQ(choice.format, c.expected) << std::hex << c.input;
        EXPECT_EQ(choice.error.empty(), c.expected != 0) << choice.error;
    }
    // The refusal's text is checked where the user meets it (render_cli_test.sh, unsupported_format).
    // An impulse response has no input: its format comes from the option or the extension.
    EXPECT_EQ(ImpulseFormat("IR.FLAC", FileKind::AsInput, SampleKind::AsInput, 48000).format, flac24);
    EXPECT_EQ(ImpulseFormat("dir/ir.aif", FileKind::AsInput, SampleKind::Pcm16, 48000).format,
              SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
    EXPECT_EQ(ImpulseFormat("ir.bin", FileKind::Wav, SampleKind::AsInput, 48000).format, wavFloat);
    EXPECT_FALSE(ImpulseFormat("ir.flac", FileKind::AsInput, SampleKind::Float, 48000).error.empty());
}

class FileFolder : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all(folder);
        fs::create_directories(folder);
    }
    void TearDown() override { fs::remove_all(folder); }

    std::vector<std::string> Entries() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
        return names;
    }
    static std::string Contents(const fs::path& path)
    {
        std::ifstream stream(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }
    static void WriteText(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

    const fs::path folder = fs::temp_directory_path() / ("tarnlow-render-test-" + std::to_string(::getpid()) + "-" +
                                                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    const fs::path out = folder / "out.wav";
};

TEST_F(FileFolder, AnOutputAppearsOnlyOnCommitAndAnAbandonedOneLeavesNothing)
{
    const std::vector<float> samples(480, 0.25f);
    {
        PendingOutput output(out.string(), wav16, 2, 48000, false);
        output.Write(samples.data(), 240);
    }
    EXPECT_TRUE(Entries().empty());
    {
        PendingOutput output(out.string(), wav16, 1, 48000, false);
        output.Write(samples.data(), samples.size());
        EXPECT_FALSE(fs::exists(out));
        EXPECT_EQ(Entries().size(), 1u);  // the temporary file, renamed on commit
        output.Commit();
    }
    EXPECT_EQ(Entries(), std::vector<std::string>{"out.wav"});
    const SoundInput input(out.string());
    EXPECT_EQ(input.Info().frames, 480);
    EXPECT_EQ(input.Info().format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
}

// An output that exists before the render is refused at the start (render_cli_test.sh,
// existing_output); one made while the render runs is kept as well.
TEST_F(FileFolder, AnOutputMadeDuringTheRenderIsKeptWithoutOverwrite)
{
    PendingOutput output(out.string(), wav16, 1, 48000, false);
    const std::vector<float> samples(64, 0.1f);
    output.Write(samples.data(), samples.size());
    WriteText(out, "another program's file");
    EXPECT_THROW(output.Commit(), FileError);
    EXPECT_EQ(Contents(out), "another program's file");
}

TEST_F(FileFolder, OverwriteReplacesAndKeepsTheFileMode)
{
    WriteText(out, "old");
    const fs::perms mode = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
    fs::permissions(out, mode);
    PendingOutput output(out.string(), wavFloat, 1, 48000, true);
    const std::vector<float> samples(100, 0.25f);
    output.Write(samples.data(), samples.size());
    output.Commit();
    EXPECT_EQ(SoundInput(out.string()).Info().frames, 100);
    EXPECT_EQ(fs::status(out).permissions() & fs::perms::all, mode);
    EXPECT_EQ(Entries().size(), 1u);
    EXPECT_THROW(PendingOutput(folder.string(), wav16, 1, 48000, true), FileError);  // a folder is no output
}

}  // namespace
}  // namespace tarnlow::render
