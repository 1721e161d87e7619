#include "tests/support/legacy_database.h"

#include <openssl/evp.h>

#include <array>
#include <memory>
#include <stdexcept>

#include "tests/support/support.h"

namespace test {

namespace {

constexpr std::size_t kPieceSize = 32;

// What "openssl enc -aes-256-cbc -base64" prints of a piece.
std::string enciphered(const std::string& piece) {
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    std::array<unsigned char, 3 * kPieceSize> bytes{};
    std::array<unsigned char, 2 * bytes.size()> base64{};
    int length = 0;
    int rest = 0;
    if (EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, sd::kLegacyKey, sd::kLegacyIv) != 1 ||
        EVP_EncryptUpdate(context.get(), bytes.data(), &length, reinterpret_cast<const unsigned char*>(piece.data()),
                          static_cast<int>(piece.size())) != 1 ||
        EVP_EncryptFinal_ex(context.get(), bytes.data() + length, &rest) != 1)
        throw std::runtime_error("no legacy database: OpenSSL does not encipher");
    EVP_EncodeBlock(base64.data(), bytes.data(), length + rest);
    return reinterpret_cast<const char*>(base64.data()) + std::string("\n");
}

std::string row(const std::string& table, const std::string& key, const std::string& value) {
    return "INSERT INTO " + table + "(key, value) VALUES('" + key + "', '" + value + "');";
}

std::string secureRows(const std::string& name, const std::string& value) {
    std::string sql;
    for (std::size_t at = 0; at < value.size(); at += kPieceSize)
        sql += row("secure", name + "@@" + std::to_string(at / kPieceSize), enciphered(value.substr(at, kPieceSize)));
    return sql;
}

}  // namespace

void makeLegacyDatabase(const std::string& file) {
    std::string sql = "PRAGMA journal_mode = WAL; BEGIN;";
    for (const char* table : {"dbinfor", "config", "secure"})
        sql += std::string("CREATE TABLE ") + table +
               "(id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT COLLATE NOCASE UNIQUE ON CONFLICT FAIL,value TEXT );";
    sql += row("dbinfor", "dbVersion", "2");
    sql += row("config", "sd.ui.theme", "dark") + row("config", "empty", "");
    sql += row("config", "velmar.client.id", "client-4711");
    sql += secureRows("mail.password", std::string(69, '0') + "7");
    sql += secureRows("long", std::string(2999, '0') + "3");
    sql += secureRows("token", "tok") + secureRows("user@host", "cut at its first @");
    sql += row("secure", "without-at", "any") + row("secure", "hollow@@0", "");
    query(file, sql + "COMMIT;");
}

}  // namespace test
