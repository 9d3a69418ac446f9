// While one lives, a crash inside the mesh importer (segmentation fault, bus error, abort, ...) ends the
// process with one line, "raycast: error: <file>: the importer crashed ...", and exit code 1 instead of a
// core dump. The importer's parsers do not survive every malformed file (a COLLADA array without its count is
// enough), and once one has touched memory it does not own nothing can be saved, so the handler only writes
// and exits.
#pragma once

#include <csignal>
#include <string>
#include <vector>

class ImportCrashGuard
{
public:
    explicit ImportCrashGuard(const std::string& sPath);
    ~ImportCrashGuard();
    ImportCrashGuard(const ImportCrashGuard&) = delete;
    ImportCrashGuard& operator=(const ImportCrashGuard&) = delete;

private:
    // Runaway recursion in a parser overflows the main stack; the handler needs one of its own.
    std::vector<char> m_aStack;
    stack_t m_cPreviousStack = {};
    struct sigaction m_aPrevious[5] = {};
};
