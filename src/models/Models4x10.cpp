// The six bands of the 4x10 speaker.

#include "models/CQuorvexSpeakerModelImpl.h"
#include "models/SpeakerModels.h"
#include "models/tables/4x10n44a.h"
#include "models/tables/4x10n48a.h"
#include "models/tables/4x10n88a.h"
#include "models/tables/4x10n96a.h"
#include "models/tables/4x10n176a.h"
#include "models/tables/4x10n192a.h"

namespace tarnlow {

TARNLOW_BIND_MODEL_TABLES(4x10, 44)
TARNLOW_BIND_MODEL_TABLES(4x10, 48)
TARNLOW_BIND_MODEL_TABLES(4x10, 88)
TARNLOW_BIND_MODEL_TABLES(4x10, 96)
TARNLOW_BIND_MODEL_TABLES(4x10, 176)
TARNLOW_BIND_MODEL_TABLES(4x10, 192)

}  // namespace tarnlow
