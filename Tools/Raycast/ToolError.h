// The one exception type of the tools: its text is the single line shown to the user.
#pragma once

#include <stdexcept>
#include <string>

class ToolError : public std::runtime_error
{
public:
    explicit ToolError(const std::string& sMessage) : std::runtime_error(sMessage) {}
};
