// Programs of all kinds store values of every type, and each reads what each stored.
#include <string>
#include <vector>

#include "tests/e2e/sandbox.h"

namespace {

constexpr char kValues[] = R"(bool true
short 65535
int -9223372036854775808
number -1e+300
string grün € 𝄞 "x"
plain 
enum grün
duration 30d
size 9223372036854775807B
url https://münchen.example/ä?b=%20
path /srv/größe
color #ff000080
json {"ä":[1,null,"ö"]}
strings ["","ü\n"]
ints [-9223372036854775808,9223372036854775807]
durations ["0s","1d1ms"]
enums ["two","one"]
)";

struct Party {
    std::string name;
    std::vector<std::string> begin, end;  // of its command, before and behind what it is to do, and whose values
};

const std::vector<Party> kParties{
    {"cpp", {EXCHANGE_CPP}, {}},
    {"shell", {"/bin/sh", EXCHANGE_SHELL}, {SDCONFIG_CLI}},
#ifdef EXCHANGE_PYTHON
    {"python", {EXCHANGE_PYTHON, EXCHANGE_MODULE}, {}},
#endif
#ifdef EXCHANGE_QT5
    {"qt5", {EXCHANGE_QT5}, {}},
#endif
#ifdef EXCHANGE_QT6
    {"qt6", {EXCHANGE_QT6}, {}},
#endif
};

class ExchangeTest : public test::Sandbox {
protected:
    test::Result runParty(const Party& party, const std::string& what, const std::string& writer) const {
        std::vector<std::string> command = party.begin;
        command.insert(command.end(), {what, writer});
        command.insert(command.end(), party.end.begin(), party.end.end());
        test::Environment variables = environment();
        variables.insert({{"QT_QPA_PLATFORM", "offscreen"}, {"PYTHONPATH", PYTHON_MODULE}, {"LC_ALL", "C.UTF-8"}});
        variables.insert({"PYTHONDONTWRITEBYTECODE", "1"});
        return test::run(command, variables);
    }
};

TEST_F(ExchangeTest, EachReadsWhatEachStored) {
    test::Process service = startService();
    for (const Party& writer : kParties) {
        const test::Result stored = runParty(writer, "set", writer.name);
        ASSERT_EQ(stored.exitCode, 0) << writer.name << ": " << stored.err;
        for (const Party& reader : kParties) {
            const test::Result read = runParty(reader, "get", writer.name);
            EXPECT_EQ(read.out, kValues) << reader.name << " of " << writer.name << ": " << read.err;
        }
    }
}

}  // namespace
