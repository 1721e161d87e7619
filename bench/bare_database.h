// The floor of the stores: the SQLite library by itself, on a file that is tuned and laid out like theirs.
#pragma once

#include <initializer_list>
#include <string>

struct sqlite3;

namespace bench {

// Every operation prepares, runs and finalizes fresh statements, as the stores do; outside of a transaction each
// statement that writes is a durable commit.
class BareDatabase {
public:
    // Makes the file, and the table "bench" (id, key, value) in it, where they are missing.
    explicit BareDatabase(const std::string& path);
    ~BareDatabase();
    BareDatabase(const BareDatabase&) = delete;
    BareDatabase& operator=(const BareDatabase&) = delete;

    // Runs one statement to its end. Returns the text of its last row's first column.
    std::string run(const std::string& sql, std::initializer_list<std::string> parameters = {});

    void insert(const std::string& key, const std::string& value);
    std::string select(const std::string& key);
    void remove(const std::string& key);

private:
    sqlite3* mHandle = nullptr;
};

}  // namespace bench
