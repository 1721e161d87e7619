#include "apps/sdconfig/output.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "apps/sdconfig/messages.h"

namespace cli {

namespace {

std::string base64(const std::string& bytes) {
    std::string text((bytes.size() + 2) / 3 * 4, '\0');
    ::EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    return text;
}

}  // namespace

// The library that prints decides what it can print.
bool fitsJson(const std::string& bytes) {
    try {
        (void)nlohmann::json(bytes).dump();
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

void addBytes(Object& object, const std::string& name, const std::string& bytes) {
    if (fitsJson(bytes)) {
        object[name] = bytes;
    } else {
        object[name + "_base64"] = base64(bytes);
    }
}

int printText(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (written >= 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno == EPIPE) {
            return kDone;
        } else if (errno != EINTR) {
            return notPrinted(std::strerror(errno));
        }
    }
    return kDone;
}

int print(const Request& request, const std::string& text, const Object& object) {
    return printText(request.json ? object.dump() + "\n" : text);
}

int printValue(const Request& request, const char* keyName, const std::string& value,
               int (*whenUnset)(const Request&)) {
    const bool set = !value.empty();
    Object object;
    addBytes(object, keyName, request.key);
    object["set"] = set;
    set ? addBytes(object, "value", value) : void(object["value"] = nullptr);
    const int printed = print(request, set ? value + "\n" : "", object);
    return set ? printed : whenUnset(request);
}

int printDone(const Request& request, bool done, int (*whenRefused)(const Request&)) {
    Object object;
    addBytes(object, "key", request.key);
    object["done"] = done;
    const int printed = print(request, "", object);
    return done ? printed : whenRefused(request);
}

}  // namespace cli
