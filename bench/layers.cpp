// What the layers cost that a secure value goes through, each beside the library that it stands on: sealing beside
// OpenSSL, rows beside SQLite.
//     layers EXTENT
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "bench/bare_database.h"
#include "bench/comparison.h"
#include "bench/process.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "platform/velmarlog/velmarlog.h"
#include "sql/SQLiteDatabase.h"
#include "src/sdconfig_key_value_table.h"
#include "src/sdconfig_sealed_row.h"

namespace bench {

namespace {

const std::string kValue(64, 'v');

// ---- Sealing ----

constexpr std::size_t kTagSize = 16;

struct Sealed {
    std::array<unsigned char, 12> nonce{};
    std::array<unsigned char, 64> text{};
    std::array<unsigned char, kTagSize> tag{};
};

// AES-256-GCM as OpenSSL's manual shows it: the cipher fetched once, a context and a random nonce a value.
class BareCipher {
public:
    BareCipher() : mCipher(::EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr)) {
        require(mCipher && ::RAND_bytes(mKey.data(), static_cast<int>(mKey.size())) == 1, "AES-256-GCM");
    }

    Sealed seal(const std::string& plain) const {
        Sealed sealed;
        const Context context(::EVP_CIPHER_CTX_new(), ::EVP_CIPHER_CTX_free);
        int length = 0;
        require(
            ::RAND_bytes(sealed.nonce.data(), static_cast<int>(sealed.nonce.size())) == 1 &&
                ::EVP_EncryptInit_ex2(context.get(), mCipher.get(), mKey.data(), sealed.nonce.data(), nullptr) == 1 &&
                ::EVP_EncryptUpdate(context.get(), sealed.text.data(), &length,
                                    reinterpret_cast<const unsigned char*>(plain.data()),
                                    static_cast<int>(plain.size())) == 1 &&
                ::EVP_EncryptFinal_ex(context.get(), sealed.text.data() + length, &length) == 1 &&
                ::EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, kTagSize, sealed.tag.data()) == 1,
            "sealing by OpenSSL");
        return sealed;
    }

    std::string open(Sealed sealed) const {
        std::string plain(sealed.text.size(), '\0');
        auto* const out = reinterpret_cast<unsigned char*>(plain.data());
        const Context context(::EVP_CIPHER_CTX_new(), ::EVP_CIPHER_CTX_free);
        int length = 0;
        require(::EVP_DecryptInit_ex2(context.get(), mCipher.get(), mKey.data(), sealed.nonce.data(), nullptr) == 1 &&
                    ::EVP_DecryptUpdate(context.get(), out, &length, sealed.text.data(),
                                        static_cast<int>(sealed.text.size())) == 1 &&
                    ::EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, kTagSize, sealed.tag.data()) == 1 &&
                    ::EVP_DecryptFinal_ex(context.get(), out + length, &length) == 1,
                "opening by OpenSSL");
        return plain;
    }

private:
    using Context = std::unique_ptr<EVP_CIPHER_CTX, decltype(&::EVP_CIPHER_CTX_free)>;
    struct FreeCipher {
        void operator()(EVP_CIPHER* cipher) const { ::EVP_CIPHER_free(cipher); }
    };
    const std::unique_ptr<EVP_CIPHER, FreeCipher> mCipher;
    std::array<unsigned char, 32> mKey{};
};

// What it costs that a value is bound to its row.
void measureBinding(int calls, const Extent& extent) {
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    const sd::SDSecurityRow row = sd::secureRow("bench.secure.key.1");
    const std::string bound = security.EncryptForRow(row, kValue);
    const std::string unbound = security.FastEncrypt(kValue);
    const auto samples = alternate(
        extent.rounds(),
        {[&] { return p50Microseconds(calls, [&] { require(!security.EncryptForRow(row, kValue).empty(), "bind"); }); },
         [&] { return p50Microseconds(calls, [&] { require(!security.FastEncrypt(kValue).empty(), "seal"); }); },
         [&] { return p50Microseconds(calls, [&] { require(security.DecryptForRow(row, bound) == kValue, "row"); }); },
         [&] { return p50Microseconds(calls, [&] { require(security.FastDecrypt(unbound) == kValue, "open"); }); }});
    report({"sealing 64 bytes for a row, p50", "sealed for none", "us", Wanted::AtMost, 1.1}, samples[0], samples[1]);
    report({"opening 64 bytes of a row, p50", "sealed for none", "us", Wanted::AtMost, 1.1}, samples[2], samples[3]);
}

void measureSealing(const Workplace& place, const Extent& extent) {
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    std::filesystem::create_directory(place.path("ring"));
    security.SetKeyRingFolder(place.path("ring"));
    const BareCipher bare;
    const std::string envelope = security.FastEncrypt(kValue);
    const Sealed sealed = bare.seal(kValue);
    const int calls = extent.calls(50'000);
    const auto samples = alternate(
        extent.rounds(),
        {[&] { return p50Microseconds(calls, [&] { require(!security.FastEncrypt(kValue).empty(), "seal"); }); },
         [&] { return p50Microseconds(calls, [&] { bare.seal(kValue); }); },
         [&] { return p50Microseconds(calls, [&] { require(security.FastDecrypt(envelope) == kValue, "open"); }); },
         [&] { return p50Microseconds(calls, [&] { require(bare.open(sealed) == kValue, "bare open"); }); }});
    measureBinding(calls, extent);
    report({"sealing 64 bytes, p50", "bare EVP AES-256-GCM", "us", Wanted::AtMost, 1.3}, samples[0], samples[1]);
    report({"opening 64 bytes, p50", "bare EVP AES-256-GCM", "us", Wanted::AtMost, 1.3}, samples[2], samples[3]);
}

// ---- Rows ----

// The operations on one table, of the layer or of SQLite itself.
struct Rows {
    std::function<void(const std::string& sql)> run;
    std::function<void(const std::string& key)> insert;
    std::function<void(const std::string& key)> select;
    std::function<void(const std::string& key)> remove;
};

enum class Commit { EachRow, AllAtOnce };

std::string keyOf(const char* kind, int number) {
    return "bench." + std::string(kind) + "." + std::to_string(number);
}

// New rows, rows that stay, and rows to remove, in turn. Each call has a row of its own.
std::vector<std::function<double()>> measuresOf(const Rows& rows, Commit commit, int rounds, int calls) {
    rows.run("BEGIN");
    for (int i = 0; i < rounds * calls; ++i) {
        rows.insert(keyOf("stays", i));
        rows.insert(keyOf("goes", i));
    }
    rows.run("COMMIT");
    const auto p50 = [&rows, commit, calls](const auto& operation, const char* kind) {
        return [&rows, &operation, commit, calls, kind, number = 0]() mutable {
            if (commit == Commit::AllAtOnce) rows.run("BEGIN");
            const double time = p50Microseconds(calls, [&] { operation(keyOf(kind, number++)); });
            if (commit == Commit::AllAtOnce) rows.run("COMMIT");
            return time;
        };
    };
    return {p50(rows.insert, "comes"), p50(rows.select, "stays"), p50(rows.remove, "goes")};
}

void compareRows(const Rows& layer, const Rows& bare, Commit commit, const Extent& extent) {
    // A disk's pace drifts: those that wait for it take turns more often.
    const int rounds = extent.rounds() * (commit == Commit::EachRow ? 4 : 1);
    const int calls = extent.calls(commit == Commit::EachRow ? 50 : 2000);
    auto measures = measuresOf(layer, commit, rounds, calls);
    const auto floors = measuresOf(bare, commit, rounds, calls);
    measures.insert(measures.end(), floors.begin(), floors.end());
    const auto samples = alternate(rounds, measures);

    const std::string how = commit == Commit::EachRow ? ", p50" : " in a transaction, p50";
    const std::array operations{"insert", "select", "delete"};
    for (std::size_t i = 0; i < operations.size(); ++i)
        report({operations[i] + how, "bare SQLite with fresh statements", "us", Wanted::AtMost, 1.1}, samples[i],
               samples[i + operations.size()]);
}

void measureRows(const Workplace& place, const Extent& extent) {
    namespace key_value = sd::key_value;
    for (const Commit commit : {Commit::EachRow, Commit::AllAtOnce}) {
        const std::string name = commit == Commit::EachRow ? "each" : "all";
        sd::data::SQLiteDatabase database(place.path(name + ".layer.db"));
        sd::data::SQLiteTable table(database, "bench");
        require(key_value::create(table), "the layer's table");
        BareDatabase bare(place.path(name + ".bare.db"));
        compareRows(
            {[&](const std::string& sql) { require(database.executeCommand(sql), "the layer"); },
             [&](const std::string& key) { require(key_value::set(table, key, kValue), "insert"); },
             [&](const std::string& key) { require(key_value::get(table, key) == kValue, "select"); },
             [&](const std::string& key) { require(key_value::remove(table, key), "delete"); }},
            {[&](const std::string& sql) { bare.run(sql); }, [&](const std::string& key) { bare.insert(key, kValue); },
             [&](const std::string& key) { require(bare.select(key) == kValue, "bare select"); },
             [&](const std::string& key) { bare.remove(key); }},
            commit, extent);
    }
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc > 2) {
        std::fprintf(stderr, "usage: layers full|short|smoke\n");
        return 2;
    }
    velmarLogSetLevel(8);
    const bench::Workplace place;
    bench::measureSealing(place, extent);
    bench::measureRows(place, extent);
    return 0;
}
