#pragma once

#include <vector>

namespace demo {

// A few seconds of a synthetic electric guitar, as a direct input would give it: plucked
// strings (Karplus-Strong) with a pickup-like tone, a riff and a strummed chord, peaking
// near -6 dBFS. Deterministic: the same samples on every run.
std::vector<float> SynthesiseGuitarDi(int sampleRate);

}  // namespace demo
