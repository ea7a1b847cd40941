#include "demo/GuitarDemo.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace demo {
namespace {

struct Note {
    double start;   // seconds
    double length;  // seconds
    double midi;
    double velocity;
};

// Linear congruential noise: the same excitation on every platform.
class Noise {
public:
    float Next()
    {
        state = state * 1664525u + 1013904223u;
        return float(int32_t(state >> 8) - (1 << 23)) / float(1 << 23);
    }

private:
    uint32_t state = 0x2468aceu;
};

void Pluck(std::vector<double>& out, int rate, const Note& note, Noise& noise)
{
    const double frequency = 440.0 * std::pow(2.0, (note.midi - 69.0) / 12.0);
    const int period = std::max(2, int(std::lround(rate / frequency)));
    std::vector<double> line(static_cast<std::size_t>(period));
    // A pick near the bridge: bright noise burst, lightly smoothed.
    double smooth = 0.0;
    for (double& v : line) {
        smooth = 0.6 * smooth + 0.4 * noise.Next();
        v = smooth * note.velocity;
    }
    const std::size_t begin = std::size_t(note.start * rate);
    const std::size_t end = std::min(out.size(), begin + std::size_t(note.length * rate));
    const double damping = 0.996;
    const std::size_t releaseStart = end > begin + std::size_t(0.03 * rate) ? end - std::size_t(0.03 * rate) : begin;
    std::size_t index = 0;
    for (std::size_t n = begin; n < end; ++n) {
        const std::size_t next = (index + 1) % line.size();
        const double sample = line[index];
        line[index] = damping * 0.5 * (line[index] + line[next]);
        index = next;
        double gain = 1.0;
        if (n >= releaseStart) gain = double(end - n) / double(end - releaseStart);
        out[n] += sample * gain;
    }
}

}  // namespace

std::vector<float> SynthesiseGuitarDi(int sampleRate)
{
    const double seconds = 5.0;
    std::vector<double> mix(std::size_t(seconds * sampleRate), 0.0);
    Noise noise;
    std::vector<Note> notes;
    // A palm-muted low riff on E, then an open E5 chord rung out.
    const double riff[] = {40, 40, 43, 40, 45, 40, 47, 45};
    for (int i = 0; i < 8; ++i) notes.push_back({0.25 * i, 0.22, riff[i], 0.9});
    for (int i = 0; i < 8; ++i) notes.push_back({2.0 + 0.125 * i, 0.11, riff[i % 4] + 12, 0.7});
    const double chord[] = {40, 47, 52, 56, 59, 64};
    for (int s = 0; s < 6; ++s) notes.push_back({3.2 + 0.012 * s, 1.75, chord[s], 0.8});
    for (const Note& note : notes) Pluck(mix, sampleRate, note, noise);

    // Pickup: a gentle resonance near 3 kHz and a roll-off above it.
    const double w = 2.0 * 3.14159265358979 * 3000.0 / sampleRate;
    const double q = 1.2;
    const double alpha = std::sin(w) / (2.0 * q);
    const double a0 = 1.0 + alpha;
    const double b0 = (1.0 - std::cos(w)) / 2.0 / a0, b1 = (1.0 - std::cos(w)) / a0, b2 = b0;
    const double a1 = -2.0 * std::cos(w) / a0, a2 = (1.0 - alpha) / a0;
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0, peak = 0;
    for (double& v : mix) {
        const double y = b0 * v + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
        x2 = x1, x1 = v, y2 = y1, y1 = y;
        v = 0.6 * y + 0.4 * v;
        peak = std::max(peak, std::abs(v));
    }
    std::vector<float> out(mix.size());
    const double scale = peak > 0 ? 0.5 / peak : 0.0;
    for (std::size_t n = 0; n < mix.size(); ++n) out[n] = float(mix[n] * scale);
    return out;
}

}  // namespace demo
