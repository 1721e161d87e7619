// The header that a program includes for its keys.
#pragma once

#include <string>
#include <vector>

#include "descriptions/description.h"

namespace keygen {

struct DescribedFile {
    std::string path;
    std::vector<sd::KeyDescription> descriptions;
};

struct Options {
    std::string aroundAll;  // a namespace around those of the keys: "acme" or "acme::client"; "": none
};

struct KeyHeader {
    std::string text;
    std::vector<std::string> problems;  // for a person, a line each, with file, line and remedy; then there is no text
};

KeyHeader makeKeyHeader(const std::vector<DescribedFile>& files, const Options& options);

}  // namespace keygen
