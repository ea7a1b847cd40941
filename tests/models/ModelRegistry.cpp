#include "ModelRegistry.h"

#include <stdexcept>

#include "models/SpeakerModels.h"
#include "models/tables/1x12n44a.h"
#include "models/tables/1x12n48a.h"
#include "models/tables/1x12n88a.h"
#include "models/tables/1x12n96a.h"
#include "models/tables/1x12n176a.h"
#include "models/tables/1x12n192a.h"
#include "models/tables/2x12n44a.h"
#include "models/tables/2x12n48a.h"
#include "models/tables/2x12n88a.h"
#include "models/tables/2x12n96a.h"
#include "models/tables/2x12n176a.h"
#include "models/tables/2x12n192a.h"
#include "models/tables/4x12n44a.h"
#include "models/tables/4x12n48a.h"
#include "models/tables/4x12n88a.h"
#include "models/tables/4x12n96a.h"
#include "models/tables/4x12n176a.h"
#include "models/tables/4x12n192a.h"
#include "models/tables/4x10n44a.h"
#include "models/tables/4x10n48a.h"
#include "models/tables/4x10n88a.h"
#include "models/tables/4x10n96a.h"
#include "models/tables/4x10n176a.h"
#include "models/tables/4x10n192a.h"
#include "models/tables/4x10Bassn44a.h"
#include "models/tables/4x10Bassn48a.h"
#include "models/tables/4x10Bassn88a.h"
#include "models/tables/4x10Bassn96a.h"
#include "models/tables/4x10Bassn176a.h"
#include "models/tables/4x10Bassn192a.h"

namespace tarnlow::testing {

namespace {

template <class Model, class Descriptor, std::size_t constantCount, std::size_t stateCount>
ModelEntry MakeEntry(const float (&constants)[constantCount], const float (&initialState)[stateCount],
                     const std::string_view (&tablePlans)[chainCount], int tablePreSectionCount)
{
    ModelEntry entry{
        std::string(Descriptor::name.data()),
        Descriptor::speaker,
        Descriptor::band,
        [] { return std::unique_ptr<CQuorvexAmp>(new Model()); },
        [](CQuorvexAmp& amp) { return std::string(static_cast<Model&>(amp).modelName); },
        [](CQuorvexAmp& amp, float* input, float* output, int32_t count) {
            static_cast<Model&>(amp).ProcessPlain(&input, &output, count);
        },
        std::span<const float>(constants, constantCount),
        std::span<const float>(initialState, stateCount),
        {},
        tablePreSectionCount,
        Descriptor::plans,
        Descriptor::chains,
        Descriptor::constantRegions,
        Descriptor::stateRegions,
        Descriptor::outputGain,
    };
    for (int32_t chain = 0; chain < chainCount; ++chain) entry.tableChainPlans[chain] = tablePlans[chain];
    return entry;
}

#define TARNLOW_MODEL_ENTRY(speaker, band)                                                              \
    MakeEntry<CQuorvexAmp_##speaker##n##band##a, ModelDescriptor<Speaker::k##speaker, Band::k##band>>( \
        tables::model_##speaker##n##band##a::constants, tables::model_##speaker##n##band##a::initialState, \
        tables::model_##speaker##n##band##a::chainPlans, tables::model_##speaker##n##band##a::preSectionCount)

#define TARNLOW_SPEAKER_ENTRIES(speaker)                                                  \
    TARNLOW_MODEL_ENTRY(speaker, 44), TARNLOW_MODEL_ENTRY(speaker, 48),                   \
        TARNLOW_MODEL_ENTRY(speaker, 88), TARNLOW_MODEL_ENTRY(speaker, 96),               \
        TARNLOW_MODEL_ENTRY(speaker, 176), TARNLOW_MODEL_ENTRY(speaker, 192)

}  // namespace

const std::vector<ModelEntry>& AllModels()
{
    static const std::vector<ModelEntry> models = {
        TARNLOW_SPEAKER_ENTRIES(1x12), TARNLOW_SPEAKER_ENTRIES(2x12), TARNLOW_SPEAKER_ENTRIES(4x12),
        TARNLOW_SPEAKER_ENTRIES(4x10), TARNLOW_SPEAKER_ENTRIES(4x10Bass),
    };
    return models;
}

const ModelEntry& FindModel(std::string_view name)
{
    for (const ModelEntry& entry : AllModels()) {
        if (entry.name == name) return entry;
    }
    throw std::invalid_argument("no model named " + std::string(name));
}

}  // namespace tarnlow::testing
