#include "engine/Failure.h"

#include <cstdlib>

namespace tarnlow {

void InvalidParameterHandler() noexcept
{
    std::abort();
}

void ThrowInvalidSubscript()
{
    throw std::out_of_range("invalid vector<T> subscript");
}

}  // namespace tarnlow
