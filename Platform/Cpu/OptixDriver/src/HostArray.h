// An uninitialised host array: a scene's copies of its triangles are large and written once, so zeroing them
// first would only cost.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

namespace OptixStandIn
{
template <class T> class HostArray
{
public:
    HostArray() = default;
    explicit HostArray(size_t nSize) : m_nSize(nSize)
    {
        if (nSize == 0)
            return;
        m_pData = static_cast<T*>(std::malloc(nSize * sizeof(T)));
        if (!m_pData)
            throw std::bad_alloc();
    }
    ~HostArray() { std::free(m_pData); }
    HostArray(HostArray&& cOther) noexcept : m_pData(cOther.m_pData), m_nSize(cOther.m_nSize)
    {
        cOther.m_pData = nullptr;
        cOther.m_nSize = 0;
    }
    HostArray& operator=(HostArray&& cOther) noexcept
    {
        std::swap(m_pData, cOther.m_pData);
        std::swap(m_nSize, cOther.m_nSize);
        return *this;
    }
    HostArray(const HostArray&) = delete;
    HostArray& operator=(const HostArray&) = delete;

    T* Data() { return m_pData; }
    const T* Data() const { return m_pData; }
    size_t Size() const { return m_nSize; }
    T& operator[](size_t i) { return m_pData[i]; }
    const T& operator[](size_t i) const { return m_pData[i]; }

private:
    T* m_pData = nullptr;
    size_t m_nSize = 0;
};
} // namespace OptixStandIn
