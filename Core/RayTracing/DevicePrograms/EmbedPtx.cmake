# Writes a C++ source that defines one zero-terminated character array per PTX text.
# Usage: cmake -DOUTPUT=<file.cpp> -DNAMES=<name;...> -DINPUTS=<file.ptx;...> -P EmbedPtx.cmake
# A byte array rather than a string literal: compilers cap literal lengths (MSVC at 16 KiB per piece).
cmake_minimum_required(VERSION 3.25)

list(LENGTH NAMES nNames)
list(LENGTH INPUTS nInputs)
if(NOT nNames EQUAL nInputs OR nNames EQUAL 0)
    message(FATAL_ERROR "EmbedPtx: NAMES and INPUTS must be non-empty lists of the same length")
endif()

set(sSource "// Generated from the device programs' PTX; do not edit.\n#include \"OptixPrograms.h\"\n")
math(EXPR iLast "${nNames} - 1")
foreach(i RANGE ${iLast})
    list(GET NAMES ${i} sName)
    list(GET INPUTS ${i} sInput)
    file(READ "${sInput}" sHex HEX)
    string(LENGTH "${sHex}" nHexDigits)
    if(nHexDigits EQUAL 0)
        message(FATAL_ERROR "EmbedPtx: ${sInput} is empty")
    endif()
    # A NUL inside would cut the text short where the driver reads it.
    string(REGEX MATCH "^(..)*00" sUpToNul "${sHex}")
    if(sUpToNul)
        message(FATAL_ERROR "EmbedPtx: ${sInput} contains a NUL byte")
    endif()
    string(REGEX REPLACE "(..)" "0x\\1," sBytes "${sHex}")
    # 24 bytes a line (CMake's regular expressions have no counted repetition).
    string(REPEAT "0x..," 24 sLine)
    string(REGEX REPLACE "(${sLine})" "\\1\n    " sBytes "${sBytes}")
    string(APPEND sSource "\nextern const char ${sName}[] = {\n    ${sBytes}0x00};\n")
endforeach()

file(WRITE "${OUTPUT}.tmp" "${sSource}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
