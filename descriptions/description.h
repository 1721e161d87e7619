// What a key is, in the words of whoever made it: its type, its default, what its value may be, and words for people. A
// description is a help: neither the library nor the service reads one. sdconfig-keys(5) has the form of the files.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

enum class KeyType { Bool, Int, Number, String, Enum, Duration, Size, Url, Path, Color, Json, Array };

const char* nameOf(KeyType type);  // as files have it: "bool", "int"

// What a value has to be. Its texts are in the form that base/sdconfig_forms.h prints.
struct ValueRule {
    KeyType type = KeyType::String;
    std::optional<std::string> minimum{};  // of int, number, duration and size
    std::optional<std::string> maximum{};
    std::string pattern{};               // of string, url and path: RE2 finds it in the value; "": any
    std::vector<std::string> allowed{};  // of an enum, in the order of the file
};

// For people, in one language. Each "" where there is none.
struct KeyWords {
    std::string summary{};
    std::string description{};
    std::string unit{};
    std::map<std::string, std::string> values{};  // of an enum: by the value
};

enum class KeyStore { Property, Secure };

struct KeyDescription {
    std::string key{};  // or a glob
    ValueRule value{};
    ValueRule items{};                          // each of them, where the value is an array
    std::optional<std::string> defaultValue{};  // in the form that is stored
    KeyStore store = KeyStore::Property;
    bool isSecret = false;
    bool isGovernable = false;  // by policies
    KeyWords words{};
    std::map<std::string, KeyWords> translations{};  // by locale: "de", "pt_BR"
    std::string since{};
    bool isDeprecated = false;
    std::string replacedBy{};
    int line = 0;  // where the key stands

    bool isGlob() const { return key.find('*') != std::string::npos; }
};

// What is wrong at a place of a file; never with a value in it that may be a secret.
struct DescriptionFault {
    int line = 0;        // 0: of the file as a whole
    std::string key;     // "": of no description
    std::string field;   // "": of no field
    std::string what;    // behind the place: "is no type"
    std::string remedy;  // what to do about it

    std::string place() const;  // "line 3, "velmar.a", "minimum""
};

struct DescriptionFile {
    std::vector<KeyDescription> descriptions;  // those that are as they have to be, in the order of the file
    std::vector<DescriptionFault> faults;
};

inline constexpr std::size_t kDescriptionFileBytesMax = std::size_t{64} << 20;
inline constexpr std::size_t kDescriptionBytesMax = std::size_t{256} << 10;

// Reads a whole file. A description with a fault is left out; the others count. Any bytes are safe.
DescriptionFile readDescriptions(std::string_view text);

}  // namespace sd
