// What is listed with several fields a line.
#pragma once

#include <string>
#include <vector>

namespace cli {

using Fields = std::vector<std::string>;

// A line each, with tabs between the fields; at a terminal in columns, beneath the headings. The fields hold neither
// newlines nor tabs.
std::string table(const Fields& headings, const std::vector<Fields>& lines);

}  // namespace cli
