// The six bands of the 4x12 speaker.

#include "models/CQuorvexSpeakerModelImpl.h"
#include "models/SpeakerModels.h"
#include "models/tables/4x12n44a.h"
#include "models/tables/4x12n48a.h"
#include "models/tables/4x12n88a.h"
#include "models/tables/4x12n96a.h"
#include "models/tables/4x12n176a.h"
#include "models/tables/4x12n192a.h"

namespace tarnlow {

TARNLOW_BIND_MODEL_TABLES(4x12, 44)
TARNLOW_BIND_MODEL_TABLES(4x12, 48)
TARNLOW_BIND_MODEL_TABLES(4x12, 88)
TARNLOW_BIND_MODEL_TABLES(4x12, 96)
TARNLOW_BIND_MODEL_TABLES(4x12, 176)
TARNLOW_BIND_MODEL_TABLES(4x12, 192)

}  // namespace tarnlow
