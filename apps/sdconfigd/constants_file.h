// The file of constants that the service answers.
#pragma once

#include <string>

// Registers the lines "name=value" of the file with the security layer, which answers them from then on. Blank lines
// and lines that begin with "#" don't count; blanks around the name don't either; the value is everything after the
// first "=". On failure returns a line for a person and registers nothing; "" on success. Where memory or descriptors
// run out it raises an exception, and some may be registered.
std::string useConstants(const std::string& path);
