// The six bands of the 4x10Bass speaker.

#include "models/CQuorvexSpeakerModelImpl.h"
#include "models/SpeakerModels.h"
#include "models/tables/4x10Bassn44a.h"
#include "models/tables/4x10Bassn48a.h"
#include "models/tables/4x10Bassn88a.h"
#include "models/tables/4x10Bassn96a.h"
#include "models/tables/4x10Bassn176a.h"
#include "models/tables/4x10Bassn192a.h"

namespace tarnlow {

TARNLOW_BIND_MODEL_TABLES(4x10Bass, 44)
TARNLOW_BIND_MODEL_TABLES(4x10Bass, 48)
TARNLOW_BIND_MODEL_TABLES(4x10Bass, 88)
TARNLOW_BIND_MODEL_TABLES(4x10Bass, 96)
TARNLOW_BIND_MODEL_TABLES(4x10Bass, 176)
TARNLOW_BIND_MODEL_TABLES(4x10Bass, 192)

}  // namespace tarnlow
