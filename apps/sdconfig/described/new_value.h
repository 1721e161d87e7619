// A value that is about to be stored, weighed against the description of its key.
#pragma once

#include <optional>
#include <string>

#include "apps/sdconfig/described/described_keys.h"

namespace cli {

class NewValue {
public:
    // Reads what is described, unless the request goes on without.
    NewValue(const Request& request, Target target);

    // Whether the other program has to weigh it, which knows patterns; then that one gets what was found.
    bool goesElsewhere() const;

    // Makes it the form that is stored. Returns the exit code; where it isn't kDone, it told why.
    int fit(std::string& value) const;

private:
    const Request& mRequest;
    const Target mTarget;
    std::optional<sd::Descriptions::Found> mFound;
    std::string mExcerpt;  // of the file in which it was found
    sd::Descriptions mDescriptions;
};

}  // namespace cli
