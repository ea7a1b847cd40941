#pragma once

#include <cstdint>

#include "room/CQuorvexAmpRoom.h"

namespace tarnlow {

// The room of one sample rate: the five speaker models of the rate's band, in switch
// order 1x12, 2x12, 4x12, 4x10, 4x10Bass.
class CQuorvexAmpRoomNative : public CQuorvexAmpRoom {
public:
    explicit CQuorvexAmpRoomNative(int32_t rate);
};

}  // namespace tarnlow
