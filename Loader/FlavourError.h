// Why a flavour of the library cannot be loaded; its text is one line for the user.
#pragma once

#include <stdexcept>
#include <string>

class FlavourError : public std::runtime_error
{
public:
    explicit FlavourError(const std::string& sMessage) : std::runtime_error(sMessage) {}
};
