// Owner of a library opened with dlopen.
#pragma once

#include <string>

class SharedLibrary
{
public:
    SharedLibrary() = default;
    // Returns an empty owner and sets sError (dlerror's text) when the library cannot be loaded.
    static SharedLibrary Open(const std::string& sPath, std::string& sError);

    SharedLibrary(SharedLibrary&& cOther) noexcept : m_pHandle(cOther.m_pHandle)
    {
        cOther.m_pHandle = nullptr;
    }
    SharedLibrary& operator=(SharedLibrary&& cOther) noexcept;
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;
    ~SharedLibrary();

    explicit operator bool() const { return m_pHandle != nullptr; }
    // Null when the library does not export sName.
    void* Symbol(const char* sName) const;

private:
    void* m_pHandle = nullptr;
};
