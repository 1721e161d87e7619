#include "sql/SQLiteWitness.h"

namespace sd::data {

namespace {

thread_local SQLiteWitness* sCurrent = nullptr;

}  // namespace

SQLiteWitnessed::SQLiteWitnessed(SQLiteWitness& witness) {
    sCurrent = &witness;
}

SQLiteWitnessed::~SQLiteWitnessed() {
    sCurrent = nullptr;
}

SQLiteWitness* SQLiteWitnessed::current() {
    return sCurrent;
}

}  // namespace sd::data
