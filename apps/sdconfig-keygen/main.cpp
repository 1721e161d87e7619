// sdconfig-keygen: writes the header that gives a program its described keys as constants.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "apps/common/usage.h"
#include "apps/sdconfig-keygen/key_header.h"
#include "apps/sdconfig/files/whole_file.h"
#include "base/escaped.h"
#include "descriptions/description.h"

namespace {

enum ExitCode { kDone = 0, kFailed = 1, kWrongUse = 2 };

struct Options {
    std::vector<std::string> files;
    std::string output;
    keygen::Options header;
};

int fail(const std::string& problem, ExitCode code = kFailed) {
    std::fprintf(stderr, "sdconfig-keygen: %s\n", problem.c_str());
    return code;
}

// "acme::client": identifiers, and two colons between them.
std::string unfitNamespace(const std::string& name) {
    const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    const auto isInside = [&](char c) { return isLetter(c) || (c >= '0' && c <= '9'); };
    for (std::size_t begin = 0;;) {
        const std::size_t end = std::min(name.find("::", begin), name.size());
        const std::string piece = name.substr(begin, end - begin);
        if (piece.empty() || !isLetter(piece[0]) || !std::all_of(piece.begin(), piece.end(), isInside))
            return "it is no namespace: acme, or acme::client";
        if (end == name.size()) return "";
        begin = end + 2;
    }
}

void declareOptions(CLI::App& app, Options& options) {
    app.option_defaults()->disable_flag_override();
    app.add_option("FILE", options.files, "Files of descriptions, as those of /usr/share/sdconfig/keys.d")
        ->required()
        ->check(apps::notEmpty);
    app.add_option("-o,--output", options.output, "The header to write; - or none: standard output")
        ->type_name("FILE")
        ->check(apps::notEmpty);
    app.add_option("--namespace", options.header.aroundAll, "A namespace around those that the keys' names make")
        ->type_name("NAME")
        ->check(unfitNamespace);
    app.set_version_flag("--version", "sdconfig-keygen " SDCONFIG_VERSION);
    app.footer(
        "Exit codes: 0 done, 1 a file can't be read or has a fault, 2 wrong use.\n"
        "Example: sdconfig-keygen velmar.keys.json -o velmar_keys.h");
}

// Tells of each fault; false where there is any: a key that is left out would be missed by the compiler alone.
bool readFile(const std::string& path, keygen::DescribedFile& file) {
    std::string text;
    if (const std::string problem = cli::readWhole(path, sd::kDescriptionFileBytesMax, text); !problem.empty()) {
        fail(sd::escaped(path) + ": " + sd::escaped(problem));
        return false;
    }
    sd::DescriptionFile read = sd::readDescriptions(text);
    for (const sd::DescriptionFault& fault : read.faults)
        fail(sd::escaped(path) + ", " + fault.place() + ": " + fault.what + "; next: " + fault.remedy);
    file = {path, std::move(read.descriptions)};
    return read.faults.empty();
}

int write(const std::string& path, const std::string& text) {
    if (path.empty() || path == "-") {
        const bool isWritten = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
        return isWritten && std::fflush(stdout) == 0 ? kDone : fail("standard output can't be written");
    }
    constexpr mode_t kForAll = 0644;
    cli::UnfinishedFile file(path);
    if (file.write(text) && file.setMode(kForAll) && file.putInPlace(cli::UnfinishedFile::Existing::Replace))
        return kDone;
    return fail(sd::escaped(path) + " can't be written: " + std::strerror(errno));
}

int run(const Options& options) {
    std::vector<keygen::DescribedFile> files(options.files.size());
    bool areSound = true;
    for (std::size_t i = 0; i < files.size(); ++i) areSound = readFile(options.files[i], files[i]) && areSound;
    if (!areSound) return kFailed;
    const keygen::KeyHeader header = keygen::makeKeyHeader(files, options.header);
    for (const std::string& problem : header.problems) fail(problem);
    return header.problems.empty() ? write(options.output, header.text) : kFailed;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Writes a C++ header with a constant for each described key", "sdconfig-keygen");
    Options options;
    declareOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& wanted) {
        return app.exit(wanted);
    } catch (const CLI::ParseError& error) {
        return fail(apps::usageProblem(error) + "; see: sdconfig-keygen --help", kWrongUse);
    }
    return run(options);
}
