#include "apps/sdconfig/described/new_value.h"

#include "apps/sdconfig/described/handed_over.h"
#include "descriptions/pattern.h"

namespace cli {

NewValue::NewValue(const Request& request, Target target) : mRequest(request), mTarget(target) {
    if (request.unchecked) return;
    if (auto handedOver = sd::knowsPatterns() ? takeHandedOver(request.key) : std::nullopt) {
        mFound = std::move(handedOver);
        return;
    }
    mDescriptions = describedKeys(request);
    mFound = mDescriptions.find(request.key, &mExcerpt);
}

bool NewValue::goesElsewhere() const {
    if (!mFound || sd::knowsPatterns()) return false;
    const sd::KeyDescription& description = mFound->description;
    if (description.value.pattern.empty() && description.items.pattern.empty()) return false;
    if (mDescriptions.leftOut().empty()) handOverFound(*mFound, mExcerpt);
    return true;
}

int NewValue::fit(std::string& value) const {
    noteLeftOut(mDescriptions);
    if (!mFound) {
        if (!mDescriptions.isEmpty()) noteUndescribed(mRequest.key, mDescriptions.near(mRequest.key));
        return kDone;
    }
    if (const Problem problem = misfit(*mFound, mTarget, value)) return valueMisfit(mRequest, problem);
    if (mFound->description.isDeprecated) noteDeprecated(mRequest.key, mFound->description.replacedBy);
    return kDone;
}

}  // namespace cli
