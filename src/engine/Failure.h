#pragma once

#include <cstddef>
#include <stdexcept>
#include <vector>

namespace tarnlow {

// The one fatal end of the library: an index past the end of a list of records.
// It never returns and it never throws; the host process ends.
[[noreturn]] void InvalidParameterHandler() noexcept;

// Checked access with the exception text hosts have always seen from this library.
[[noreturn]] void ThrowInvalidSubscript();

template <typename T>
T& CheckedAt(std::vector<T>& items, std::size_t index)
{
    if (index >= items.size()) ThrowInvalidSubscript();
    return items[index];
}

template <typename T>
const T& CheckedAt(const std::vector<T>& items, std::size_t index)
{
    if (index >= items.size()) ThrowInvalidSubscript();
    return items[index];
}

// Checked access that ends the process instead of throwing.
template <typename T>
T& FatalAt(std::vector<T>& items, std::size_t index) noexcept
{
    if (index >= items.size()) InvalidParameterHandler();
    return items[index];
}

}  // namespace tarnlow
