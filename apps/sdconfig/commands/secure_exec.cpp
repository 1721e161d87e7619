// secure exec: another program with secure values in its environment, which no list of processes shows.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/service/secure_values.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

bool isVariable(const std::string& name) {
    constexpr char kFirst[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
    const std::string others = std::string(kFirst) + "0123456789";
    return !name.empty() && std::string(kFirst).find(name.front()) != std::string::npos &&
           name.find_first_not_of(others) == std::string::npos;
}

// The pairs' keys and variables; a key may hold a "=". Returns what is wrong, or "".
std::string split(const std::vector<std::string>& pairs, std::vector<std::string>& keys,
                  std::vector<std::string>& variables) {
    for (const std::string& pair : pairs) {
        const std::size_t equals = pair.rfind('=');
        if (equals == 0 || equals == std::string::npos || !isVariable(pair.substr(equals + 1)))
            return quoted(pair) + " is no key, \"=\" and name of a variable";
        keys.push_back(pair.substr(0, equals));
        variables.push_back(pair.substr(equals + 1));
        if (std::find(variables.begin(), variables.end() - 1, variables.back()) != variables.end() - 1)
            return variables.back() + " would get two values";
    }
    return "";
}

// Comes back where it fails.
int execute(const Request& request) {
    std::vector<std::string> words = request.program;
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ::execvp(arguments.front(), arguments.data());
    return notExecuted(request, request.program.front(), errno);
}

}  // namespace

int executeWithSecrets(const Request& request, Service& service) {
    if (request.program.empty()) return misused(request.command, "a program is missing behind --");
    std::vector<std::string> keys;
    std::vector<std::string> variables;
    if (const std::string problem = split(request.pairs, keys, variables); !problem.empty())
        return misused(request.command, problem);
    if (const int code = service.require()) return code;
    std::vector<Lookup> found;
    if (const int code = readSecureValues(keys, service, found)) return code;
    int code = kDone;
    for (std::size_t i = 0; i < found.size(); ++i) {
        Request one = request;
        one.key = found[i].key;
        if (found[i].value.empty())
            code = found[i].isUnopenable ? unopenable(one) : unset(one);
        else if (::setenv(variables[i].c_str(), found[i].value.c_str(), 1) != 0)
            return notExecuted(request, request.program.front(), errno);
    }
    return code ? code : execute(request);
}

}  // namespace cli
