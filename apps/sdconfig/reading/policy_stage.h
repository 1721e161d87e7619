// A folder of the machine's policies as it would be.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace cli {

// Fills the folder `stage`, for everybody to read, with what `folder` holds, files and links that mask, and puts
// `files` in their places: their texts by their names; nothing: it would be gone.
void fillStage(const std::string& stage, const std::string& folder,
               const std::map<std::string, std::optional<std::string>>& files);

}  // namespace cli
