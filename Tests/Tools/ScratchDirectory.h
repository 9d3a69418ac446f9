// A temporary directory per test, removed with everything in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class ScratchDirectory
{
public:
    ScratchDirectory()
    {
        std::string sTemplate = (std::filesystem::temp_directory_path() / "raycast-test-XXXXXX").string();
        if (mkdtemp(sTemplate.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        m_sPath = sTemplate;
    }
    ~ScratchDirectory()
    {
        std::error_code cError;
        std::filesystem::remove_all(m_sPath, cError);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    std::string Path(const std::string& sName) const { return m_sPath + "/" + sName; }
    std::string Write(const std::string& sName, const std::string& sContent) const
    {
        std::ofstream(Path(sName), std::ios::binary) << sContent;
        return Path(sName);
    }

private:
    std::string m_sPath;
};
