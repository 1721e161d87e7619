// What the service does about the keys of the ring, and about the rows that are sealed with them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "src/sdconfig_key_value_table.h"
#include "src/sdconfig_protocol.h"

namespace sd {

class SDConfigDmHelper;
class SDConfigImpl;

// A row of either store, by its key.
struct SealedRow {
    bool isPolicy;
    std::string key;
};

// Some rows: how many, and the first of them.
struct SealedRows {
    std::int64_t count = 0;
    std::vector<SealedRow> first;

    void add(SealedRow row);
};

// Work on all rows is done in steps of a few milliseconds, so that other calls wait no longer than that. Where a pass
// stands is kept in memory alone: a service that was killed begins anew, and passes quickly over what is done. As the
// stores, for the service's own thread.
class KeyKeeper {
public:
    KeyKeeper(SDConfigImpl& config, SDConfigDmHelper& policies);

    // A new key seals from now on. reseal: begins to seal all rows under it; but where that was begun before and did
    // not end, it goes on with the key that seals.
    struct Rotation {
        protocol::KeyOutcome outcome;
        std::string keyId;  // which seals, whatever the outcome; "" without a ring that can be used
        bool goesOn;
    };
    Rotation rotate(bool reseal);

    // One step of sealing all rows under the key that seals. Each is replaced where it is still what was read, so that
    // a set in between wins. After the last one, and where none was left, the ring requires the bound form.
    struct Resealing {
        protocol::KeyOutcome outcome;
        bool isAtEnd = false;
        int percent = 0;
        std::string keyId{};      // with which they are sealed: another one than was made where others rotate meanwhile
        std::int64_t sealed = 0;  // in this pass
        SealedRows left{};        // that can't be opened, or were changed by another process
    };
    Resealing reseal();

    // id: the key's, or the beginning of it that no other has.
    struct Change {
        protocol::KeyOutcome outcome;
        std::string keyId;
    };
    Change enable(const std::string& id, bool enabled);

    // One step of finding the keys that no row needs, or, after the last row, of taking one of them out of the ring.
    // begin: whether it is the first step.
    struct Pruning {
        protocol::KeyOutcome outcome;
        bool isAtEnd = false;
        int percent = 0;
        std::vector<std::string> removed{};          // so far
        std::string removedNow{};                    // by this step; "" for none
        std::map<std::string, SealedRows> needed{};  // by the key's id; those that do not seal
    };
    Pruning prune(bool begin);

private:
    // How far a walk through the rows of both stores has come.
    struct Place {
        std::size_t store = 0;
        std::string afterId = key_value::kBeforeAllIds;
        std::vector<std::int64_t> lastIds;  // of the stores when it began

        bool isInPolicies() const { return store == 1; }
        bool isAtEnd() const { return store == lastIds.size(); }
        int percent() const;
    };
    Place beginning();
    data::SQLiteTable& tableAt(const Place& place);
    bool walkOn(Place& place, const std::function<void(key_value::StoredRow&&)>& take);

    struct ResealPass {
        std::string keyId;
        Place place;
        std::int64_t sealed = 0;
        SealedRows left;
    };
    struct PrunePass {
        Place place;
        std::map<std::string, SealedRows> candidates;  // which did not seal when it began, and are in the ring
        std::vector<std::string> removed;

        std::map<std::string, SealedRows>::iterator unneeded();
    };
    protocol::KeyOutcome resealSome(ResealPass& pass);
    protocol::KeyOutcome endResealing(const ResealPass& pass);
    protocol::KeyOutcome beginPrune();
    protocol::KeyOutcome findNeeded(PrunePass& pass);
    static protocol::KeyOutcome removeOne(PrunePass& pass);

    SDConfigImpl& mConfig;
    SDConfigDmHelper& mPolicies;
    std::optional<ResealPass> mResealing;
    std::optional<PrunePass> mPruning;
};

}  // namespace sd
