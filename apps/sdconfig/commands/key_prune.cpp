// key prune: removes the keys that no row needs.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/key_calls.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/confirmation.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

Object objectOf(const Pruned& pruned) {
    Object needed = Object::array();
    for (const auto& [id, rows] : pruned.needed)
        needed.push_back({{"key", id}, {"count", rows.count}, {"rows", objectsOf(rows)}});
    return {{"removed", pruned.removed}, {"needed", std::move(needed)}, {"done", pruned.needed.empty()}};
}

std::string textOf(const Pruned& pruned) {
    std::string text;
    for (const std::string& id : pruned.removed) text += "removed: key " + id + "\n";
    return text.empty() && pruned.needed.empty() ? "there is no key but the one that seals\n" : text;
}

}  // namespace

int pruneKeys(const Request& request, Service& service) {
    if (!canConfirm(request)) return notAskable(request, "keys for good");
    if (const int code = service.require()) return code;
    if (!confirmed(request, "Remove the keys that nothing is sealed with, for good?")) return notConfirmed(request);
    const Pruned pruned = [&] {
        ProgressLine progress("looking through the rows");
        return prune(service, [&](int percent) { progress.show(percent); });
    }();
    if (!pruned) return refused(request, pruned);
    int code = print(request, textOf(pruned), objectOf(pruned));
    if (!pruned.removed.empty()) noteOlderBackups();
    for (const auto& [id, rows] : pruned.needed) code = keyNeeded(request, id, rows.count, textOf(rows));
    return code;
}

}  // namespace cli
