// One table: its SQL is generated from a list of columns, and rows are lists of values.
#pragma once

#include <string>
#include <vector>

namespace sd::data {

class SQLiteDatabase;

// A column's definition, a value to bind, or a value read back.
struct TableField {
    int index = 0;           // the column's position in the definition, from 0
    std::string name;        // as it stands in SQL
    int type = 0;            // 0 integer, 1 text
    std::string constraint;  // what follows the type in CREATE TABLE
    std::string text;        // the value of a text field
    int integer = 0;         // the value of an integer field
};

using TableRow = std::vector<TableField>;

// Values travel as bound parameters, never in the SQL. Every call prepares, runs and finalizes a fresh statement.
// One thread at a time; nothing throws; failures are false and a log line.
class SQLiteTable {
public:
    // Keeps a reference to `db`, which has to outlive the table. Runs nothing.
    SQLiteTable(SQLiteDatabase& db, const std::string& name);
    virtual ~SQLiteTable();
    SQLiteTable(const SQLiteTable&) = delete;
    SQLiteTable& operator=(const SQLiteTable&) = delete;

    // Takes over copies of the `count` definitions, which have to stand in the order of their index, and creates the
    // table if it is missing. False without effect for a count below 1.
    bool create(const TableField* fields, int count);

    // Appends a value of the column with that index. An unknown index leaves the row as it was, silently.
    void addFieldToRow(TableRow& row, int index, const std::string& value);

    // Writes a row; one with the same unique key is replaced. False for an empty row.
    bool insert(const TableRow& row);

    // Deletes the rows whose column equals the row's first field, without regard to letter case. False for an empty
    // row.
    bool remove(const TableRow& row);

    // Reads `columns` of the rows whose column equals the first field of `where`, without regard to letter case; of all
    // rows when `where` is empty. Appends to `results` a row each, its fields in the order of `columns`, only their
    // values set. False when there are no columns or the statement can't be prepared; a failure later on ends the rows.
    bool select(const TableRow& where, const TableRow& columns, std::vector<TableRow>& results);

    // Whether select would yield a row of `columns` of all rows: reads no further than the first.
    bool hasRow(const TableRow& columns);

    // The statements. A part of one that is longer than 255 characters is cut there.
    void genCreateStatement(std::string& out);  // leaves `out` alone while there are no definitions
    void genInsertStatement(const TableRow& row, std::string& out);
    void genRemoveStatement(const TableRow& row, std::string& out);  // likewise for an empty row
    void genSelectStatement(const TableRow& where, const TableRow& columns, std::string& out);

    // Runs a statement that yields no rows with the row's fields as parameters 1, 2, ... False, with a line logged, on
    // a detached database.
    bool executeStatement(const std::string& sql, const TableRow& row);

    // Whether a change would last: false, with a line, where the file that is open stands at its path no more.
    bool isInPlace() const;

    SQLiteDatabase& database() const { return mDb; }
    const std::string& name() const { return mName; }

private:
    SQLiteDatabase& mDb;
    std::string mName;
    std::vector<TableField> mFields;
};

}  // namespace sd::data
