// The reader of build.prop files, against a second reader that is written to be plain rather than quick.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "fuzz/support.h"
#include "src/sdconfig_impl_property.h"

namespace {

using Definitions = std::vector<std::pair<std::string, std::string>>;

constexpr char kBlanks[] = " \t\n\v\f\r";
constexpr std::size_t kPiece = 1023;

// The bytes up to and with the next newline, or as many as a piece has.
std::string takePiece(const std::string& file, std::size_t& at) {
    const std::size_t newline = file.find('\n', at);
    const std::size_t end = std::min(newline == std::string::npos ? file.size() : newline + 1, at + kPiece);
    std::string piece = file.substr(at, end - at);
    at = end;
    return piece;
}

Definitions definitionsOf(const std::string& file) {
    Definitions definitions;
    for (std::size_t at = 0; at < file.size();) {
        std::string piece = takePiece(file, at);
        piece = piece.c_str();
        if (!piece.empty() && piece.back() == '\n') piece.pop_back();
        const std::size_t equals = piece.find('=');
        if (equals == std::string::npos) continue;
        std::string key = piece.substr(0, equals);
        const std::size_t last = key.find_last_not_of(kBlanks);
        // A key of blanks alone keeps its first one.
        if (!key.empty()) key.resize(last == std::string::npos ? 1 : last + 1);
        const std::size_t first = piece.find_first_not_of(kBlanks, equals + 1);
        definitions.emplace_back(key, first == std::string::npos ? "" : piece.substr(first));
    }
    return definitions;
}

std::map<std::string, std::string> loaded(const Definitions& definitions) {
    std::map<std::string, std::string> properties;
    for (const auto& [key, value] : definitions)
        if (key.compare(0, 3, "ro.") != 0 || properties[key].empty()) properties[key] = value;
    return properties;
}

// Of the product's build.prop itself, and so from the file every time.
bool isReadAfresh(const std::string& key) {
    return key == "ro.sd.build.version" || key == "ro.sd.product.channel" || key == "ro.velmar.switch.env";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::hideLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const int sFile = ::memfd_create("build.prop", MFD_CLOEXEC);
    static const std::string sPath = "/proc/self/fd/" + std::to_string(sFile);
    fuzz::expect(::ftruncate(sFile, 0) == 0 && ::pwrite(sFile, data, size, 0) == static_cast<ssize_t>(size),
                 "the file can be written");

    const Definitions definitions = definitionsOf(fuzz::text(data, size));
    sd::SDPropertyInf reader;
    std::string value = "untouched";
    fuzz::expect(reader.fileOperate(sPath, true, value, ""), "a file of any bytes loads");
    fuzz::expect(value == "untouched", "loading looks nothing up");
    for (const auto& [key, wanted] : loaded(definitions))
        fuzz::expect(isReadAfresh(key) || reader.GetProperty(key) == wanted, "what is loaded is what the file defines");

    for (const auto& definition : definitions) {
        const std::string& key = definition.first;
        const auto first =
            std::find_if(definitions.begin(), definitions.end(), [&](const auto& other) { return other.first == key; });
        fuzz::expect(reader.fileOperate(sPath, false, value, key) && value == first->second,
                     "a look-up finds the first definition");
        if (&definition - definitions.data() > 16) break;  // each reads the file again
    }
    return 0;
}
