// The configuration facade: plain properties, secure values, constants, request signing, and where the data lies.
#pragma once

#include <map>
#include <string>

#include "base/sdconfig_export.h"

namespace sd {

// The one door through which any process of the client reads and writes configuration.
//
// Every operation but the local GetProperty is one synchronous call to the configuration service: it blocks its thread
// for at most 5000 ms. The process's first one runs the start-up tasks, too. Where there is no service it waits up to
// about a second more for one to appear, and so does each call until one was there; threads that call meanwhile wait
// along. Where the service hangs, the first call fails after those 5000 ms, and the next one that is answered goes on
// with the start-up. Nothing is cached; no operation throws; keys and values are byte strings, UTF-8 in practice.
//
// On any failure (no service, time-out, an answer that makes no sense) an operation logs one level-7 line and returns
// its failure value, "" or false. That value looks the same as an unset key or a refusal by the service.
//
// Any thread may call any operation, from a listener too, and so may a forked child, as a process of its own. The five
// path operations take no lock: call them early, from the thread that starts the program.
class SDCONFIG_API SDConfig {
public:
    static SDConfig* GetInstance();

    // Plain properties: what the build.prop files define, and what was set since the service started. Keys compare
    // exactly. Keys that begin with "ro." can be given a value once, while they read as empty, and never be deleted. A
    // key is at most 64 KiB long, a value 16 MiB; setting longer ones is refused, with a line in the service's log.
    // local: read the build.prop files in this process, without the service; it works while the service is down.
    std::string GetProperty(const std::string& key, bool local = false);
    bool SetProperty(const std::string& key, const std::string& value);
    bool DeleteProperty(const std::string& key);

    // Adds the properties that the service lists to *properties: entries of the same key are overwritten, others kept.
    // The service of this version lists none. False, silently and without asking it, for a null pointer.
    bool GetAllProperties(std::map<std::string, std::string>* properties);

    // Secure values, sealed at rest. Keys compare without regard to letter case. A value is read as Latin-1 up to its
    // first zero byte and kept as UTF-8: ASCII comes back as it was, every other byte as two; textAsSet
    // (libsdconfig/sdconfig_text.h) makes one of them again. A policy of a priority above 5 hides the stored value. An
    // empty value and an absent key read the same. The limits are those of properties, of a value for what stands
    // before its first zero byte; a key that holds a zero byte is refused, too.
    bool SetSecure(const std::string& key, const std::string& value);
    std::string GetSecure(const std::string& key);
    bool DeleteSecure(const std::string& key);  // deleting an absent key succeeds

    // What a key reads as, and why. Where GetProperty and GetSecure give "" for all but Value, these tell which it was:
    // the key has no value, or an empty one, which is the same; what is stored can't be opened, as under a locked key
    // ring; no service answered. *value is set to what those would have returned; it is not null.
    enum class Reading { Value, Unset, Unreadable, NoAnswer };
    Reading ReadProperty(const std::string& key, std::string* value);
    Reading ReadSecure(const std::string& key, std::string* value);

    // A constant that the service's host registered.
    std::string GetConst(const std::string& key);

    // The signature of a request's content, and whether a signature fits it, as the service sees it.
    std::string SignRequest(const std::string& content);
    bool VerifyRequest(const std::string& content, const std::string& sign);

    // The folder of the databases, in the local 8-bit encoding. Untold, it is the data folder of an application of the
    // program's name, ~/.local/share/PROGRAM as a rule, which the stores make; or the folder above, where an
    // earlier version put such data (docs/library-guide.md). The stores take it when they are first used and don't
    // follow later changes. Setting it always returns true.
    static bool setDataPath(std::string path);
    static std::string getDataPath();
    static std::string getDataPathUtf8();

    // The product's data folder; the first build.prop is the one at "<folder>/../etc/build.prop". Empty untold.
    static bool setVelmarDataPath(std::string path);
    static std::string getVelmarDataPath();

    SDConfig(const SDConfig&) = delete;
    SDConfig& operator=(const SDConfig&) = delete;

private:
    SDConfig() = default;

    static std::string& dataPath;
    static std::string& velmarDataPath;
};

}  // namespace sd
