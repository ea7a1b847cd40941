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

TEST(OutputFormat, FollowsTheInputUnlessTold)
{
    EXPECT_EQ(ResolveOutputFormat(wav16, FileKind::AsInput, SampleKind::AsInput, 2, 44100).format, wav16);
    EXPECT_EQ(ResolveOutputFormat(SF_FORMAT_FLAC | SF_FORMAT_PCM_24, FileKind::AsInput, SampleKind::AsInput, 1, 96000)
                  .format,
              SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    EXPECT_EQ(ResolveOutputFormat(wavFloat, FileKind::AsInput, SampleKind::Pcm16, 1, 48000).format, wav16);
    EXPECT_EQ(ResolveOutputFormat(wav16, FileKind::Aiff, SampleKind::AsInput, 1, 48000).format,
              SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
}

TEST(OutputFormat, KeepsTheByteOrderOnlyWithinOneFileType)
{
    const int bigEndianAiff = SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_BIG;
    EXPECT_EQ(ResolveOutputFormat(bigEndianAiff, FileKind::AsInput, SampleKind::AsInput, 1, 48000).format,
              bigEndianAiff);
    EXPECT_EQ(ResolveOutputFormat(bigEndianAiff, FileKind::Wav, SampleKind::AsInput, 1, 48000).format,
              SF_FORMAT_WAV | SF_FORMAT_PCM_24);
}

TEST(OutputFormat, ASubtypeTheNewTypeCannotHoldFallsBack)
{
    // FLAC holds no float: 24-bit keeps the most.
    EXPECT_EQ(ResolveOutputFormat(wavFloat, FileKind::Flac, SampleKind::AsInput, 2, 48000).format,
              SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    // A compressed input written as WAV gets float samples.
    EXPECT_EQ(ResolveOutputFormat(SF_FORMAT_OGG | SF_FORMAT_VORBIS, FileKind::Wav, SampleKind::AsInput, 2, 48000)
                  .format,
              wavFloat);
}

TEST(OutputFormat, AnImpossibleRequestIsRefusedWithAReason)
{
    const FormatChoice choice = ResolveOutputFormat(wav16, FileKind::Flac, SampleKind::Float, 1, 48000);
    EXPECT_EQ(choice.format, 0);
    EXPECT_NE(choice.error.find("FLAC"), std::string::npos) << choice.error;
    EXPECT_NE(choice.error.find("cannot hold 32 bit float samples"), std::string::npos) << choice.error;
    const FormatChoice vorbisPcm =
        ResolveOutputFormat(SF_FORMAT_OGG | SF_FORMAT_VORBIS, FileKind::AsInput, SampleKind::Pcm24, 1, 48000);
    EXPECT_FALSE(vorbisPcm.error.empty());
}

TEST(ImpulseFormat, ComesFromTheOptionOrTheExtension)
{
    EXPECT_EQ(ImpulseFormat("ir.wav", FileKind::AsInput, SampleKind::AsInput, 48000).format, wavFloat);
    EXPECT_EQ(ImpulseFormat("IR.FLAC", FileKind::AsInput, SampleKind::AsInput, 48000).format,
              SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    EXPECT_EQ(ImpulseFormat("dir/ir.aif", FileKind::AsInput, SampleKind::Pcm16, 48000).format,
              SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
    EXPECT_EQ(ImpulseFormat("ir.bin", FileKind::Wav, SampleKind::AsInput, 48000).format, wavFloat);
    EXPECT_NE(ImpulseFormat("ir.bin", FileKind::AsInput, SampleKind::AsInput, 48000).error.find("cannot tell"),
              std::string::npos);
    EXPECT_FALSE(ImpulseFormat("ir.flac", FileKind::AsInput, SampleKind::Float, 48000).error.empty());
}

class FileFolder : public ::testing::Test {
protected:
    void SetUp() override
    {
        folder = fs::temp_directory_path() /
                 ("tarnlow-render-test-" + std::to_string(::getpid()) + "-" +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name());
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

    fs::path folder;
};

TEST_F(FileFolder, AnOutputAppearsOnlyOnCommit)
{
    const std::string path = (folder / "out.wav").string();
    const std::vector<float> samples(480, 0.25f);
    {
        PendingOutput output(path, wav16, 1, 48000, false);
        output.Write(samples.data(), samples.size());
        EXPECT_FALSE(fs::exists(path));
        EXPECT_EQ(Entries().size(), 1u);
        output.Commit();
    }
    EXPECT_EQ(Entries(), std::vector<std::string>{"out.wav"});
    SoundInput input(path);
    EXPECT_EQ(input.Info().frames, 480);
    EXPECT_EQ(input.Info().format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
}

TEST_F(FileFolder, AnAbandonedOutputLeavesNothing)
{
    {
        PendingOutput output((folder / "out.wav").string(), wav16, 2, 48000, false);
        const std::vector<float> samples(96, 0.5f);
        output.Write(samples.data(), 48);
    }
    EXPECT_TRUE(Entries().empty());
}

TEST_F(FileFolder, AnExistingOutputIsKeptWithoutOverwrite)
{
    const fs::path path = folder / "out.wav";
    WriteText(path, "keep me");
    EXPECT_THROW(PendingOutput(path.string(), wav16, 1, 48000, false), FileError);
    EXPECT_EQ(Contents(path), "keep me");
    EXPECT_EQ(Entries().size(), 1u);
}

TEST_F(FileFolder, AnOutputMadeDuringTheRenderIsNotReplaced)
{
    const fs::path path = folder / "out.wav";
    PendingOutput output(path.string(), wav16, 1, 48000, false);
    const std::vector<float> samples(64, 0.1f);
    output.Write(samples.data(), samples.size());
    WriteText(path, "another program's file");
    EXPECT_THROW(output.Commit(), FileError);
    EXPECT_EQ(Contents(path), "another program's file");
}

TEST_F(FileFolder, OverwriteReplacesAndKeepsTheFileMode)
{
    const fs::path path = folder / "out.wav";
    WriteText(path, "old");
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    {
        PendingOutput output(path.string(), wavFloat, 1, 44100, true);
        const std::vector<float> samples(100, -0.5f);
        output.Write(samples.data(), samples.size());
        output.Commit();
    }
    EXPECT_EQ(SoundInput(path.string()).Info().frames, 100);
    EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(Entries().size(), 1u);
}

TEST_F(FileFolder, AFolderIsNeitherInputNorOutput)
{
    EXPECT_THROW(SoundInput(folder.string()), FileError);
    EXPECT_THROW(PendingOutput(folder.string(), wav16, 1, 48000, true), FileError);
}

TEST_F(FileFolder, DamagedInputsAreRefused)
{
    const fs::path whole = folder / "whole.wav";
    {
        PendingOutput output(whole.string(), wav16, 1, 48000, false);
        const std::vector<float> samples(4800, 0.3f);
        output.Write(samples.data(), samples.size());
        output.Commit();
    }
    const std::string bytes = Contents(whole);
    WriteText(folder / "cut.wav", bytes.substr(0, bytes.size() / 2));
    WriteText(folder / "text.wav", "just words\n");
    try {
        SoundInput input((folder / "cut.wav").string());
        FAIL() << "a truncated file was opened";
    } catch (const FileError& error) {
        EXPECT_NE(std::string(error.what()).find("truncated"), std::string::npos) << error.what();
    }
    EXPECT_THROW(SoundInput((folder / "text.wav").string()), FileError);
    EXPECT_THROW(SoundInput((folder / "absent.wav").string()), FileError);
    EXPECT_EQ(SoundInput(whole.string()).Info().frames, 4800);
}

}  // namespace
}  // namespace tarnlow::render
