#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/CQuorvexAmp.h"
#include "models/NetworkWavefront.h"
#include "models/ModelCatalogue.h"

namespace tarnlow {

// One speaker at one band: the network of pre-sections, six tapped all-pass chains, four
// all-pass lines and the ambience path, run from the model's two tables. Descriptor is a
// ModelDescriptor; it fixes the chain plans and table regions at compile time, so that each
// model's network is straight-line code over constant offsets.
//
// Process runs the pre-sections and the chain as a wavefront (NetworkWavefront.h) and
// ProcessPlain section by section; both give the same bits.
//
// The member functions are defined in CQuorvexSpeakerModelImpl.h and instantiated once per
// model, in the file that binds the model to its generated tables.
template <class Descriptor>
class CQuorvexSpeakerModel : public CQuorvexAmp {
public:
    using ModelDescriptorType = Descriptor;

    ~CQuorvexSpeakerModel() override;

    // Audio thread. count is 1 to controlPeriod (0 runs only the small-value test);
    // inputs[0] and outputs[0] may be the same buffer.
    void Process(float** inputs, float** outputs, int32_t count, bool inputIsSingle,
                 bool outputIsSingle, float** sideInputs, int32_t sideCount) override;

    // Audio thread: count samples of the frame's cutting, pieces to the period's end, with
    // the Updates and meter copies the frame would make between them; the network runs
    // several pieces in one go. Gives what Process piece by piece gives, bit for bit.
    bool ProcessPieces(float* input, float* output, int32_t count, int32_t sideCount, int32_t bank) override;

    // The same network with each section over the whole block in turn, one after another:
    // the plain form that Process must match bit for bit, kept for the tests and the
    // benchmarks. Same contract as Process.
    void ProcessPlain(float** inputs, float** outputs, int32_t count);

    using CQuorvexAmp::Update;
    // Audio thread, between Process calls: turns the two parameter values into the branch,
    // position and gain words of the state table.
    void Update(bool immediate, int32_t sideCount, int32_t bank) override;

    int32_t GetInputCount() override;
    int32_t GetOutputCount() override;

    char modelName[128] = {};

private:
    // The chain that the state's type and position words select.
    int32_t ChainInUse() const;
    // Appends a piece of length samples of chain to run, with the gains the state holds now.
    void AddPiece(speaker_network::NetworkRun& run, int32_t length, int32_t chain) const;
    void RunNetworkOn(int32_t chain, const speaker_network::NetworkRun& run, const float* input, float* output);

    // The pre-sections with each of the six chains, lane by lane for the wavefront, copied
    // from the constant table when the model is made; the table itself stays as it is.
    speaker_network::PackedNetwork networks[chainCount];

protected:
    // Loads the two tables; their lengths are checked against the catalogue here.
    template <std::size_t constantCount, std::size_t stateCount>
    CQuorvexSpeakerModel(const float (&constants)[constantCount],
                         const float (&initialState)[stateCount]);
};

}  // namespace tarnlow
