#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/CQuorvexAmp.h"
#include "models/ModelCatalogue.h"

namespace tarnlow::testing {

// One of the thirty models as the tests see it: the class, its compile-time description and
// its generated tables, with the description the table file gives of itself.
struct ModelEntry {
    std::string name;  // "4x12n96a"
    Speaker speaker;
    Band band;
    std::function<std::unique_ptr<CQuorvexAmp>()> create;
    std::function<std::string(CQuorvexAmp&)> modelNameOf;  // modelName of an amp made by create
    // ProcessPlain of an amp made by create: the section-by-section form of the network.
    std::function<void(CQuorvexAmp&, float*, float*, int32_t)> processPlain;
    std::span<const float> constants;
    std::span<const float> initialState;
    std::array<std::string_view, chainCount> tableChainPlans;
    int tablePreSectionCount;
    std::array<std::string_view, chainCount> plans;  // the model's own
    std::array<ChainLayout, chainCount> chains;
    ConstantRegions constantRegions;
    StateRegions stateRegions;
    float outputGain;
};

const std::vector<ModelEntry>& AllModels();
const ModelEntry& FindModel(std::string_view name);

}  // namespace tarnlow::testing
