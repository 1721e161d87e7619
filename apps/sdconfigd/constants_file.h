// The file of constants that the service answers.
#pragma once

#include <map>
#include <string>

// Reads "name=value" lines. Blank lines and lines that begin with "#" don't count; blanks around the name don't either;
// the value is everything after the first "=".
// On failure returns a line for a person and leaves `constants` alone; "" on success.
std::string readConstantsFile(const std::string& path, std::map<std::string, std::string>& constants);
