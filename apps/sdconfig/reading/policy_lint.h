// What is wrong with files of the machine's policies, before they are where a service reads them.
#pragma once

#include <string>
#include <vector>

#include "apps/sdconfig/reading/lint_output.h"
#include "descriptions/descriptions.h"

namespace cli {

// paths: of files, whatever their names, and of folders, whose files *.json are taken. They are weighed as if they all
// were the machine's: in the order of their names; of one name, the later one takes the place of the earlier. A fault
// is what a service would leave the file out for, and what doesn't fit a key's description.
// Works for everybody, and asks no service.
LintResult lintPolicyFiles(const std::vector<std::string>& paths, sd::Descriptions& descriptions);

}  // namespace cli
