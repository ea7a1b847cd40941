#pragma once

// The thirty speaker models, CQuorvexAmp_<speaker>n<band>a: one class per speaker and band
// of sample rate, each binding the shared network to its own generated tables. The room
// constructs them by name; the constructors are in Models<speaker>.cpp.

#include "models/CQuorvexSpeakerModel.h"

namespace tarnlow {

template <Speaker speaker, Band band>
using SpeakerModel = CQuorvexSpeakerModel<ModelDescriptor<speaker, band>>;

// Instantiated once, next to the tables, not in every file that names a model.
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k1x12, Band::k44>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k1x12, Band::k48>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k1x12, Band::k88>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k1x12, Band::k96>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k1x12, Band::k176>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k1x12, Band::k192>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k2x12, Band::k44>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k2x12, Band::k48>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k2x12, Band::k88>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k2x12, Band::k96>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k2x12, Band::k176>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k2x12, Band::k192>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x12, Band::k44>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x12, Band::k48>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x12, Band::k88>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x12, Band::k96>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x12, Band::k176>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x12, Band::k192>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10, Band::k44>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10, Band::k48>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10, Band::k88>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10, Band::k96>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10, Band::k176>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10, Band::k192>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10Bass, Band::k44>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10Bass, Band::k48>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10Bass, Band::k88>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10Bass, Band::k96>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10Bass, Band::k176>>;
extern template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k4x10Bass, Band::k192>>;

class CQuorvexAmp_1x12n44a final : public SpeakerModel<Speaker::k1x12, Band::k44> {
public:
    CQuorvexAmp_1x12n44a();
};
class CQuorvexAmp_1x12n48a final : public SpeakerModel<Speaker::k1x12, Band::k48> {
public:
    CQuorvexAmp_1x12n48a();
};
class CQuorvexAmp_1x12n88a final : public SpeakerModel<Speaker::k1x12, Band::k88> {
public:
    CQuorvexAmp_1x12n88a();
};
class CQuorvexAmp_1x12n96a final : public SpeakerModel<Speaker::k1x12, Band::k96> {
public:
    CQuorvexAmp_1x12n96a();
};
class CQuorvexAmp_1x12n176a final : public SpeakerModel<Speaker::k1x12, Band::k176> {
public:
    CQuorvexAmp_1x12n176a();
};
class CQuorvexAmp_1x12n192a final : public SpeakerModel<Speaker::k1x12, Band::k192> {
public:
    CQuorvexAmp_1x12n192a();
};

class CQuorvexAmp_2x12n44a final : public SpeakerModel<Speaker::k2x12, Band::k44> {
public:
    CQuorvexAmp_2x12n44a();
};
class CQuorvexAmp_2x12n48a final : public SpeakerModel<Speaker::k2x12, Band::k48> {
public:
    CQuorvexAmp_2x12n48a();
};
class CQuorvexAmp_2x12n88a final : public SpeakerModel<Speaker::k2x12, Band::k88> {
public:
    CQuorvexAmp_2x12n88a();
};
class CQuorvexAmp_2x12n96a final : public SpeakerModel<Speaker::k2x12, Band::k96> {
public:
    CQuorvexAmp_2x12n96a();
};
class CQuorvexAmp_2x12n176a final : public SpeakerModel<Speaker::k2x12, Band::k176> {
public:
    CQuorvexAmp_2x12n176a();
};
class CQuorvexAmp_2x12n192a final : public SpeakerModel<Speaker::k2x12, Band::k192> {
public:
    CQuorvexAmp_2x12n192a();
};

class CQuorvexAmp_4x12n44a final : public SpeakerModel<Speaker::k4x12, Band::k44> {
public:
    CQuorvexAmp_4x12n44a();
};
class CQuorvexAmp_4x12n48a final : public SpeakerModel<Speaker::k4x12, Band::k48> {
public:
    CQuorvexAmp_4x12n48a();
};
class CQuorvexAmp_4x12n88a final : public SpeakerModel<Speaker::k4x12, Band::k88> {
public:
    CQuorvexAmp_4x12n88a();
};
class CQuorvexAmp_4x12n96a final : public SpeakerModel<Speaker::k4x12, Band::k96> {
public:
    CQuorvexAmp_4x12n96a();
};
class CQuorvexAmp_4x12n176a final : public SpeakerModel<Speaker::k4x12, Band::k176> {
public:
    CQuorvexAmp_4x12n176a();
};
class CQuorvexAmp_4x12n192a final : public SpeakerModel<Speaker::k4x12, Band::k192> {
public:
    CQuorvexAmp_4x12n192a();
};

class CQuorvexAmp_4x10n44a final : public SpeakerModel<Speaker::k4x10, Band::k44> {
public:
    CQuorvexAmp_4x10n44a();
};
class CQuorvexAmp_4x10n48a final : public SpeakerModel<Speaker::k4x10, Band::k48> {
public:
    CQuorvexAmp_4x10n48a();
};
class CQuorvexAmp_4x10n88a final : public SpeakerModel<Speaker::k4x10, Band::k88> {
public:
    CQuorvexAmp_4x10n88a();
};
class CQuorvexAmp_4x10n96a final : public SpeakerModel<Speaker::k4x10, Band::k96> {
public:
    CQuorvexAmp_4x10n96a();
};
class CQuorvexAmp_4x10n176a final : public SpeakerModel<Speaker::k4x10, Band::k176> {
public:
    CQuorvexAmp_4x10n176a();
};
class CQuorvexAmp_4x10n192a final : public SpeakerModel<Speaker::k4x10, Band::k192> {
public:
    CQuorvexAmp_4x10n192a();
};

class CQuorvexAmp_4x10Bassn44a final : public SpeakerModel<Speaker::k4x10Bass, Band::k44> {
public:
    CQuorvexAmp_4x10Bassn44a();
};
class CQuorvexAmp_4x10Bassn48a final : public SpeakerModel<Speaker::k4x10Bass, Band::k48> {
public:
    CQuorvexAmp_4x10Bassn48a();
};
class CQuorvexAmp_4x10Bassn88a final : public SpeakerModel<Speaker::k4x10Bass, Band::k88> {
public:
    CQuorvexAmp_4x10Bassn88a();
};
class CQuorvexAmp_4x10Bassn96a final : public SpeakerModel<Speaker::k4x10Bass, Band::k96> {
public:
    CQuorvexAmp_4x10Bassn96a();
};
class CQuorvexAmp_4x10Bassn176a final : public SpeakerModel<Speaker::k4x10Bass, Band::k176> {
public:
    CQuorvexAmp_4x10Bassn176a();
};
class CQuorvexAmp_4x10Bassn192a final : public SpeakerModel<Speaker::k4x10Bass, Band::k192> {
public:
    CQuorvexAmp_4x10Bassn192a();
};

}  // namespace tarnlow
