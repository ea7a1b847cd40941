#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace tarnlow {

// Owning array of plain words with no spare capacity. Storage comes from the plain heap,
// elements are never constructed: T is int32_t or int64_t.
template <typename T>
class CQuorvexArray {
public:
    CQuorvexArray() = default;
    CQuorvexArray(const CQuorvexArray&) = delete;
    CQuorvexArray& operator=(const CQuorvexArray&) = delete;
    virtual ~CQuorvexArray() { std::free(data); }

    // Appends `length` words by reallocation; the storage may move.
    void Append(const T* table, int32_t length)
    {
        if (length <= 0) return;
        void* grown = std::realloc(data, sizeof(T) * (std::size_t(size) + std::size_t(length)));
        if (grown == nullptr) throw std::bad_alloc();
        data = static_cast<T*>(grown);
        std::memcpy(data + size, table, sizeof(T) * std::size_t(length));
        size += length;
    }

    // Deep copy that always reallocates, even between arrays of equal length.
    void AssignFrom(const CQuorvexArray& source)
    {
        if (&source == this) return;
        std::free(data);
        data = nullptr;
        size = 0;
        if (source.size < 1) return;
        data = static_cast<T*>(std::malloc(sizeof(T) * std::size_t(source.size)));
        if (data == nullptr) throw std::bad_alloc();
        std::memcpy(data, source.data, sizeof(T) * std::size_t(source.size));
        size = source.size;
    }

    T* data = nullptr;
    int32_t size = 0;
};

}  // namespace tarnlow
