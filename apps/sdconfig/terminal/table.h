// What is listed with several fields a line.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace cli {

using Fields = std::vector<std::string>;

// A line each, with tabs between the fields; at a terminal in columns, beneath the headings. The fields hold neither
// newlines nor tabs.
std::string table(const Fields& headings, const std::vector<Fields>& lines);

// One such line of a list that is too long to look at whole. widths: of the columns, in characters; a longer field
// moves its own line alone.
std::string tableLine(const Fields& fields, const std::vector<std::size_t>& widths);

}  // namespace cli
